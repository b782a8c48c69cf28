#include "platform/Log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "platform/Clock.h"

namespace Zef {

const char* const NoActionRequired = "No action is required.";
const char* const CallSupportIfPersists = "Contact support if the problem persists.";

namespace {

LogSink& installedSink() {
  static LogSink sink;
  return sink;
}

const char* currentSource = "";

int countPlaceholders(std::string_view format) {
  int count = 0;
  for (size_t i = 0; i + 1 < format.size(); ++i) {
    if (format[i] != '%') continue;
    if (format[i + 1] == 's' || format[i + 1] == 'd') ++count;
    ++i;
  }
  return count;
}

// Fills %s and %d in turn; a missing argument leaves the placeholder as it stands.
std::string fillIn(std::string_view format, const String* strings, int count) {
  std::string text;
  int next = 0;
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size()) {
      const char kind = format[i + 1];
      if ((kind == 's' || kind == 'd') && next < count) {
        text += strings[next++].view();
        ++i;
        continue;
      }
      if (kind == '%') {
        text += '%';
        ++i;
        continue;
      }
    }
    text += format[i];
  }
  return text;
}

// When the rate-limit history grows past this size, entries whose interval has passed are
// forgotten; the next pruning waits until the history has doubled, so that a history of many live
// entries costs each message a constant share of a walk.
constexpr size_t kHistoryPruneSize = 4096;

}  // namespace

LogHandle::LogHandle(String name, LogSeverity severity, String format, String explanation, String recommendedAction,
                     double minInterval, double rateParameter, uint8_t flags)
    : name_(std::move(name)),
      severity_(severity),
      format_(std::move(format)),
      explanation_(std::move(explanation)),
      recommendedAction_(std::move(recommendedAction)),
      minInterval_(minInterval),
      rateParameter_(rateParameter),
      flags_(flags),
      placeholders_(countPlaceholders(format_.view())),
      idHash_(name_.hash()),
      pruneAt_(kHistoryPruneSize) {
  (void)rateParameter_;
  (void)flags_;
}

bool LogHandle::okToLog(uint32_t hash) {
  if (minInterval_ <= 0) return true;
  hash ^= hashBytes(currentSource, std::strlen(currentSource));
  const double now = System::currentTime();
  auto [it, inserted] = lastLogged_.try_emplace(hash, now);
  if (!inserted) {
    if (now - it->second < minInterval_) return false;
    it->second = now;
  }
  if (lastLogged_.size() > pruneAt_) {
    std::erase_if(lastLogged_, [&](const auto& entry) { return now - entry.second >= minInterval_; });
    pruneAt_ = std::max(kHistoryPruneSize, 2 * lastLogged_.size());
  }
  return true;
}

void LogHandle::clearHistory() {
  lastLogged_.clear();
  pruneAt_ = kHistoryPruneSize;
}

void LogHandle::log(uint32_t, const String* strings, int count) {
  const LogRecord record{this, System::currentTimeUtc(), fillIn(format_.view(), strings, count), currentSource};
  if (const LogSink& sink = installedSink()) {
    sink(record);
  } else if (*currentSource) {
    std::cerr << currentSource << " " << name_ << ": " << record.text << '\n';
  } else {
    std::cerr << name_ << ": " << record.text << '\n';
  }
}

void logSourceIs(const char* source) { currentSource = source ? source : ""; }

const char* logSource() { return currentSource; }

void logSinkIs(LogSink sink) { installedSink() = std::move(sink); }

namespace detail {

uint32_t rateKeyOf(const String* strings, int count) {
  String joined;
  for (int i = 0; i < count; ++i) joined += strings[i] + String("\x1f");
  return joined.hash();
}

}  // namespace detail

}  // namespace Zef
