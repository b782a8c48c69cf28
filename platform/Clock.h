#pragma once

namespace Zef::System {

// The agent's notion of time, in seconds. currentTime() is monotonic and is what every period
// and time stamp of the engine uses; currentTimeUtc() is the wall clock.
double currentTime();
double currentTimeUtc();

// A source of time. The process starts on the system clock; tests and simulations install a
// VirtualClock so that nothing depends on the wall clock.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual double monotonicTime() const = 0;
  virtual double utcTime() const = 0;
};

// Installs a clock, or the system clock again for null. The caller keeps the clock alive while it
// is installed.
void clockIs(Clock* clock);

// Time that moves only when told to.
class VirtualClock : public Clock {
 public:
  explicit VirtualClock(double start = 0.0, double utcAtStart = 1.7e9) : now_(start), utcOffset_(utcAtStart - start) {}
  double monotonicTime() const override { return now_; }
  double utcTime() const override { return now_ + utcOffset_; }
  // Time never runs backwards: an earlier value is ignored.
  void timeIs(double t) {
    if (t > now_) now_ = t;
  }

 private:
  double now_;
  double utcOffset_;
};

// Installs a virtual clock for the life of a scope and puts the previous clock back after it.
class ScopedClock {
 public:
  explicit ScopedClock(Clock& clock);
  ~ScopedClock();
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;

 private:
  Clock* previous_;
};

}  // namespace Zef::System
