#pragma once

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <random>
#include <vector>

#include "platform/Clock.h"
#include "platform/Notifier.h"

namespace Orb {

// A deadline of positive infinity switches a timer off.
inline constexpr double never = std::numeric_limits<double>::infinity();

// The agent's one source of timers. A timer is a reactor bound to the wheel: it is armed with
// timeMinIs(t) and gets one onTime() when the wheel reaches t. Timers that fall due at the same
// time fire in the order in which they were armed.
class TimerWheel : public Zef::Notifier {
 public:
  class Notifiee : public Zef::NotifieeOf<TimerWheel, Zef::NotifieeConstOf<TimerWheel>> {
   public:
    // The deadline last set; 0.0 for a timer never armed. It keeps its value after the timer fires.
    double timeMin() const noexcept { return timeMin_; }
    // Schedules one onTime() at the absolute time t, replacing any earlier deadline; `never`
    // switches the timer off.
    void timeMinIs(double t);
    bool isArmed() const noexcept { return heapIndex_ != kNotArmed; }
    virtual void onTime() {}

    // Moving to another wheel takes a pending deadline along.
    void notifierIs(const Zef::Ptr<TimerWheel const>& wheel) override;
    using NotifieeOf::notifierIs;

   protected:
    Notifiee() = default;
    explicit Notifiee(const Zef::Ptr<TimerWheel>& wheel) : NotifieeOf(wheel) {}
    ~Notifiee() override;

    // Binds to another wheel, carrying the deadline along, without replaying anything.
    void zefTimerWheelIs(const Zef::Ptr<TimerWheel const>& wheel);

   private:
    friend class TimerWheel;
    static constexpr size_t kNotArmed = ~size_t{0};
    TimerWheel* wheel() const noexcept { return const_cast<TimerWheel*>(notifier().ptr()); }

    double timeMin_ = 0.0;
    uint64_t sequence_ = 0;
    size_t heapIndex_ = kNotArmed;
  };

  static Zef::Ptr<TimerWheel> TimerWheelIs() { return Zef::Ptr<TimerWheel>(new TimerWheel); }

  // The earliest deadline of an armed timer, or `never`.
  double nextDeadline() const noexcept { return heap_.empty() ? never : heap_.front().timeMin; }
  size_t armedTimers() const noexcept { return heap_.size(); }

  // Fires every timer whose deadline is not after the current time, in deadline order, including
  // timers armed meanwhile for a time already reached.
  void serviceTimers();
  // Fires the one earliest timer if it is due; returns whether one fired. For drivers that look
  // at the world after every timer.
  bool serviceOneTimer();

  // A whole number from 0 up to but not including `bound` (0 if `bound` is 0), for spreading out
  // timers that would otherwise fall due together. Each wheel has its own seeded source, so that
  // the timing of one engine repeats exactly, run after run, whatever else the process does. Not
  // for keys or identities: those come from the cryptographic source.
  uint32_t randomBelow(uint32_t bound) { return bound == 0 ? 0 : static_cast<uint32_t>(random_() % bound); }
  void randomSeedIs(uint64_t seed) { random_.seed(seed); }

 protected:
  ~TimerWheel() override;

 private:
  TimerWheel() = default;
  // A place in the heap carries its timer's deadline and arming order, so that ordering the heap
  // reads the heap alone and not the timers, which lie all over memory.
  struct Slot {
    double timeMin;
    uint64_t sequence;
    Notifiee* timer;
  };
  static bool earlier(const Slot& a, const Slot& b) noexcept {
    return a.timeMin < b.timeMin || (a.timeMin == b.timeMin && a.sequence < b.sequence);
  }
  void arm(Notifiee* timer);
  void disarm(Notifiee* timer);
  void siftUp(size_t index);
  void siftDown(size_t index);
  void place(const Slot& slot, size_t index) {
    heap_[index] = slot;
    slot.timer->heapIndex_ = index;
  }

  std::vector<Slot> heap_;
  uint64_t sequence_ = 0;
  std::mt19937_64 random_{1};
};

inline Zef::Ptr<TimerWheel> timerWheelFactory() { return TimerWheel::TimerWheelIs(); }

// Moves a virtual clock forward to `until`, firing on the way every timer of the given wheels that
// falls due, with the clock standing at each timer's deadline when it fires.
void advanceVirtualTime(Zef::System::VirtualClock& clock, double until, std::initializer_list<TimerWheel*> wheels);

}  // namespace Orb
