#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/platform/Garden.h"

namespace Garden {
namespace {

// Watches a tree and writes down every notification it gets.
class Recorder : public Tree::Notifiee {
 public:
  explicit Recorder(const Zef::Ptr<Tree>& tree, std::string name = "r") : Notifiee(tree), name_(std::move(name)) {
    hasNotificationActiveIs(true);
  }
  std::vector<std::string> heard;
  std::function<void(const std::string&)> then;  // runs after each notification

  void onTitle() override { hear("title " + notifier()->title().stdString()); }
  void onWeight() override { hear("weight"); }
  void onVisits() override { hear("visits " + std::to_string(notifier()->visits())); }
  void onPolled() override { hear("polled"); }
  void onCrown() override { hear(std::string("crown ") + (notifier()->crown() ? "set" : "gone")); }
  void onScore(const Zef::String& key) override {
    hear("score " + key.stdString() + " size " + std::to_string(notifier()->scoreSize()));
  }
  void onLeaf(const Zef::String& key) override { hear("leaf " + key.stdString()); }
  void onTag(const Zef::String& key) override { hear("tag " + key.stdString()); }

 private:
  void hear(const std::string& what) {
    heard.push_back(what);
    if (then) then(what);
  }
  std::string name_;
};

using Lines = std::vector<std::string>;

class AttributesTest : public ::testing::Test {
 protected:
  Zef::Ptr<Tree> tree = Tree::TreeIs("oak");
  Zef::Ptr<Recorder> recorder{new Recorder(tree)};
};

TEST_F(AttributesTest, SettingAnEqualValueNotifiesNobody) {
  tree->titleIs("Oak");
  tree->titleIs("Oak");
  tree->weightIs(1.5);  // the declared default
  tree->weightIs(2.0);
  EXPECT_EQ(recorder->heard, (Lines{"title Oak", "weight"}));
  EXPECT_EQ(tree->title(), "Oak");
  EXPECT_EQ(tree->weight(), 2.0);
}

TEST_F(AttributesTest, CountersNotifyOnlyWhenTheyMoveAndQuietOnesNever) {
  EXPECT_EQ(tree->visitsInc(0), 0u);
  EXPECT_EQ(tree->visitsInc(3), 3u);
  EXPECT_EQ(tree->visitsDec(1), 2u);
  tree->visitsIs(2);
  EXPECT_EQ(tree->polledInc(5), 5u);
  tree->polledIs(0);
  EXPECT_EQ(recorder->heard, (Lines{"visits 3", "visits 2"}));
}

TEST_F(AttributesTest, AnOwnedChildIsMadeOnceAndKnowsItsOwner) {
  Zef::Ptr<Leaf> crown = tree->crownIs("top");
  EXPECT_EQ(tree->crownIs("other"), crown);  // the existing child is returned
  EXPECT_EQ(crown->id(), "top");
  EXPECT_EQ(crown->parent(), tree.ptr());
  EXPECT_EQ(crown->parentAttrName(), "crown");
  EXPECT_TRUE(crown->hasNotificationActive());
  EXPECT_EQ(tree->crownDel(), crown);
  EXPECT_EQ(crown->parent(), nullptr);
  EXPECT_FALSE(tree->crownDel());
  EXPECT_EQ(recorder->heard, (Lines{"crown set", "crown gone"}));
}

TEST_F(AttributesTest, ValueCollectionsNotifyPerKeyAndOnlyOnChange) {
  tree->scoreIs("a", 1);
  tree->scoreIs("a", 1);
  tree->scoreIs("a", 2);
  tree->scoreIs("b", 1);
  EXPECT_EQ(tree->scoreDel("zz"), 0u);  // a missing key: no notification
  EXPECT_EQ(tree->score("a"), 2u);
  EXPECT_EQ(tree->score("missing"), 0u);
  tree->scoreNotify("b");
  EXPECT_EQ(recorder->heard, (Lines{"score a size 1", "score a size 1", "score b size 2", "score b size 2"}));
}

TEST_F(AttributesTest, DeleteAllNotifiesOncePerKeyAndTheLastSeesAnEmptyCollection) {
  tree->scoreIs("a", 1);
  tree->scoreIs("b", 2);
  tree->scoreIs("c", 3);
  recorder->heard.clear();
  tree->scoreDelAll();
  ASSERT_EQ(recorder->heard.size(), 3u);
  EXPECT_EQ(recorder->heard[0].substr(recorder->heard[0].size() - 6), "size 2");
  EXPECT_EQ(recorder->heard[1].substr(recorder->heard[1].size() - 6), "size 1");
  EXPECT_EQ(recorder->heard[2].substr(recorder->heard[2].size() - 6), "size 0");
}

TEST_F(AttributesTest, EntityCollectionsMakeMembersFromTheKey) {
  Zef::Ptr<Leaf> a = tree->leafIs("a");
  EXPECT_EQ(tree->leafIs("a"), a);
  EXPECT_EQ(a->id(), "a");
  EXPECT_EQ(a->parent(), tree.ptr());
  EXPECT_EQ(tree->leafSize(), 1u);
  Zef::Ptr<Tree const> readOnly = tree;
  Zef::Ptr<Leaf const> seen = readOnly->leaf("a");
  EXPECT_EQ(seen, a);
  tree->tagIs(a);  // a collection keyed by its value's own key
  tree->tagIs(a);
  EXPECT_EQ(tree->tag("a"), a);
  EXPECT_EQ(tree->leafDel("a"), a);
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_FALSE(tree->leafDel("a"));
  EXPECT_EQ(recorder->heard, (Lines{"leaf a", "tag a", "leaf a"}));
}

TEST_F(AttributesTest, DeliveryIsSynchronousNestedInCallOrderAndInRegistrationOrder) {
  Zef::Ptr<Recorder> second(new Recorder(tree, "second"));
  // The first reactor's handler changes two other attributes; the second reactor hears each
  // change, in the order of the calls, before it hears the first one, depth first, and the first
  // handler sees the effect at once.
  std::vector<std::string> order;
  recorder->then = [&](const std::string& what) {
    order.push_back("first " + what);
    if (what == "title Oak") {
      tree->weightIs(9.0);
      tree->visitsInc(1);
      order.push_back("first sees visits " + std::to_string(tree->visits()));
    }
  };
  second->then = [&](const std::string& what) { order.push_back("second " + what); };
  tree->titleIs("Oak");
  EXPECT_EQ(order, (Lines{"first title Oak", "first weight", "second weight", "first visits 1", "second visits 1",
                          "first sees visits 1", "second title Oak"}));
}

TEST_F(AttributesTest, NoticesStopWhenNotificationIsSwitchedOffOnEitherSide) {
  recorder->hasNotificationActiveIs(false);
  tree->titleIs("quiet");
  recorder->hasNotificationActiveIs(true);
  tree->hasNotificationActiveIs(false);
  tree->titleIs("still quiet");
  tree->hasNotificationActiveIs(true);
  tree->titleIs("heard");
  EXPECT_EQ(recorder->heard, (Lines{"title heard"}));
}

TEST_F(AttributesTest, ReactorsThatComeAndGoDuringADeliveryLeaveTheRestInRegistrationOrder) {
  // A switch's worth of watchers on one notifier: during a delivery the first drops every other
  // one it has not reached yet and more join; each change reaches exactly those registered, in the
  // order in which they registered.
  std::vector<Zef::Ptr<Recorder>> watchers;
  std::vector<std::string> order;
  auto join = [&] {
    const std::string name = "w" + std::to_string(watchers.size());
    watchers.emplace_back(new Recorder(tree, name));
    watchers.back()->then = [&order, name](const std::string&) { order.push_back(name); };
  };
  auto registered = [&] {
    Lines expected = {"r"};
    for (size_t i = 0; i < watchers.size(); ++i) {
      if (watchers[i]) expected.push_back("w" + std::to_string(i));
    }
    return expected;
  };
  for (int i = 0; i < 1000; ++i) join();
  recorder->then = [&](const std::string& what) {
    order.push_back("r");
    if (what != "title drop") return;
    for (size_t i = 0; i < watchers.size(); i += 2) watchers[i] = nullptr;
    for (int i = 0; i < 10; ++i) join();
  };
  tree->titleIs("drop");
  Lines heardDuringDrop = registered();
  heardDuringDrop.resize(heardDuringDrop.size() - 10);  // those that joined during it hear the next
  EXPECT_EQ(order, heardDuringDrop);
  order.clear();
  tree->titleIs("after");
  EXPECT_EQ(order, registered());
}

TEST_F(AttributesTest, ANotifierFreedDuringItsOwnDeliveryFinishesTheWalkSafely) {
  Zef::Ptr<Recorder> second(new Recorder(tree, "second"));
  Zef::Ptr<Recorder> third(new Recorder(tree, "third"));
  recorder->then = [&](const std::string&) {
    // Every holder lets go while the tree's notification is being delivered: the last reference
    // goes here, in the middle of the walk.
    second->notifierIs(Zef::Ptr<Tree const>());
    third->notifierIs(Zef::Ptr<Tree const>());
    recorder->notifierIs(Zef::Ptr<Tree const>());
  };
  Tree* raw = tree.ptr();
  tree = nullptr;
  raw->titleIs("last");
  EXPECT_EQ(recorder->heard, (Lines{"title last"}));
  EXPECT_TRUE(second->heard.empty());
  EXPECT_TRUE(third->heard.empty());
}

}  // namespace
}  // namespace Garden
