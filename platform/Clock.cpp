#include "platform/Clock.h"

#include <chrono>

namespace Zef::System {

namespace {

class SystemClock : public Clock {
 public:
  double monotonicTime() const override {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }
  double utcTime() const override {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  }
};

SystemClock systemClock;
Clock* installed = &systemClock;

}  // namespace

double currentTime() { return installed->monotonicTime(); }

double currentTimeUtc() { return installed->utcTime(); }

void clockIs(Clock* clock) { installed = clock ? clock : &systemClock; }

ScopedClock::ScopedClock(Clock& clock) : previous_(installed) { installed = &clock; }

ScopedClock::~ScopedClock() { installed = previous_; }

}  // namespace Zef::System
