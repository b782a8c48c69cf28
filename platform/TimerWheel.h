#pragma once

#include <array>
#include <cstdint>
#include <deque>
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
    bool isArmed() const noexcept { return index_ != kNotArmed; }
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
    static constexpr uint8_t kInHeap = 0xff;
    TimerWheel* wheel() const noexcept { return const_cast<TimerWheel*>(notifier().ptr()); }

    double timeMin_ = 0.0;
    // Where the wheel keeps the armed timer: its place in the heap, or in a lane (`lane_`) its
    // place counted from the first the lane ever held.
    size_t index_ = kNotArmed;
    uint8_t lane_ = kInHeap;
  };

  static Zef::Ptr<TimerWheel> TimerWheelIs() { return Zef::Ptr<TimerWheel>(new TimerWheel); }

  // The earliest deadline of an armed timer, or `never`.
  double nextDeadline() const noexcept {
    const Slot* next = earliest();
    return next ? next->timeMin : never;
  }
  size_t armedTimers() const noexcept;

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
  // A place in the heap or a lane carries its timer's deadline and arming order, so that ordering
  // reads the wheel alone and not the timers, which lie all over memory. A slot of a lane whose
  // timer was disarmed keeps its place with no timer.
  struct Slot {
    double timeMin;
    uint64_t sequence;
    Notifiee* timer;
  };
  static bool earlier(const Slot& a, const Slot& b) noexcept {
    return a.timeMin < b.timeMin || (a.timeMin == b.timeMin && a.sequence < b.sequence);
  }
  // Most timers are periodic: each is armed again for a period after it fires, which is after
  // every deadline of its period armed before it. Such a timer is appended to a lane, a queue kept
  // in deadline order, and leaves it from the front: no ordering, and nothing read but the two
  // ends of the lane. A timer that fits no lane's order goes into the heap.
  struct Lane {
    std::deque<Slot> slots;
    size_t first = 0;  // the place of the front slot, counted from the first the lane ever held
    size_t vacant = 0;
  };
  static constexpr size_t kLanes = 4;

  const Slot* earliest() const noexcept;
  void arm(Notifiee* timer);
  void disarm(Notifiee* timer);
  void siftUp(size_t index);
  void siftDown(size_t index);
  void place(const Slot& slot, size_t index) {
    heap_[index] = slot;
    slot.timer->index_ = index;
  }
  void laneDisarm(Lane& lane, Notifiee* timer);
  void laneTrim(Lane& lane);

  std::vector<Slot> heap_;
  std::array<Lane, kLanes> lanes_;
  // The earliest slot, as last found; forgotten whenever a timer is armed or disarmed. A driver
  // asks for the next deadline more often than the timers change.
  mutable const Slot* earliest_ = nullptr;
  mutable bool earliestKnown_ = false;
  uint64_t sequence_ = 0;
  std::mt19937_64 random_{1};
};

inline Zef::Ptr<TimerWheel> timerWheelFactory() { return TimerWheel::TimerWheelIs(); }

// Moves a virtual clock forward to `until`, firing on the way every timer of the given wheels that
// falls due, with the clock standing at each timer's deadline when it fires.
void advanceVirtualTime(Zef::System::VirtualClock& clock, double until, std::initializer_list<TimerWheel*> wheels);

}  // namespace Orb
