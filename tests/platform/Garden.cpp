#include "tests/platform/Garden.h"

#include "platform/Exception.h"

namespace Garden {

std::vector<std::string>& journal() {
  static std::vector<std::string> lines;
  return lines;
}

namespace {
void note(const std::string& line) { journal().push_back(line); }
}  // namespace

void Sprout::handleInitialized() {
  initializedIs(true);
  note("sprout " + id().stdString() + " initialized");
}

void Sprout::handleCleanUp() {
  note("sprout " + id().stdString() + " cleanup");
  // A change made on the way down, which reactors of a dying owner must not see.
  if (tree()) tree()->titleIs("left by sprout " + id().stdString());
}

void Sprout::handleTitle() {
  if (!initialized()) return;
  note("sprout " + id().stdString() + " title " + tree()->title().stdString());
}

void Gardener::handleInitialized() {
  initializedIs(true);
  note(std::string("gardener initialized, tree ") + (tree() ? "watched" : "none") + ", notification " +
       (hasNotificationActive() ? "on" : "off"));
}

void Gardener::handleCleanUp() { note("gardener cleanup"); }

void Gardener::handleTitle() { note("title " + tree()->title().stdString()); }

void Gardener::handleVisits() {
  if (tree()->visits() == 13) Zef::throwRangeException("unlucky visit count");
  note("visits " + std::to_string(tree()->visits()));
}

void Gardener::handleScore(const Zef::String& key) { note("score " + key.stdString()); }

void Gardener::handleScore() { note("score all"); }

void Gardener::handleLeaf(const Zef::String& key) { note("leaf " + key.stdString()); }

void Gardener::handleSpareTitle() { note("spare title " + spare()->title().stdString()); }

void Gardener::handleSpareWeight() { note("spare weight " + std::to_string(spare()->weight())); }

void Gardener::handleAlarm() { note("alarm"); }

void Gardener::handlePoke() { note("poke " + std::to_string(pokes())); }

void Gardener::ZefTree::ZefLeafWatch::handleLabel() {
  note("label " + key().stdString() + " " + notifier()->label().stdString());
}

void Gardener::ZefTree::ZefLeafWatch::handleHits() { note("hits " + key().stdString()); }

void Gardener::ZefWatched::handleWatchedLabel() {
  note("watched " + key().stdString() + " " + notifier()->label().stdString());
}

}  // namespace Garden
