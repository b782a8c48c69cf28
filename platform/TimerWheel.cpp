#include "platform/TimerWheel.h"

#include <algorithm>
#include <cmath>

namespace Orb {

void TimerWheel::Notifiee::timeMinIs(double t) {
  if (std::isnan(t)) t = never;
  TimerWheel* w = wheel();
  if (w && isArmed()) w->disarm(this);
  timeMin_ = t;
  if (w && t != never) w->arm(this);
}

void TimerWheel::Notifiee::zefTimerWheelIs(const Zef::Ptr<TimerWheel const>& wheel) {
  if (wheel.ptr() == notifier().ptr()) return;
  const bool armed = isArmed();
  if (TimerWheel* old = this->wheel(); old && armed) old->disarm(this);
  zefNotifierIs(wheel);
  if (TimerWheel* now = this->wheel(); now && armed) now->arm(this);
}

void TimerWheel::Notifiee::notifierIs(const Zef::Ptr<TimerWheel const>& wheel) {
  zefTimerWheelIs(wheel);
  isRegisteredNotifieeIs(static_cast<bool>(wheel));
}

TimerWheel::Notifiee::~Notifiee() {
  if (TimerWheel* w = wheel(); w && isArmed()) w->disarm(this);
}

TimerWheel::~TimerWheel() {
  // Timers hold the wheel, so none can be armed here; this only guards a wheel torn down by
  // force.
  for (const Slot& slot : heap_) slot.timer->index_ = Notifiee::kNotArmed;
  for (const Lane& lane : lanes_) {
    for (const Slot& slot : lane.slots) {
      if (slot.timer) slot.timer->index_ = Notifiee::kNotArmed;
    }
  }
}

size_t TimerWheel::armedTimers() const noexcept {
  size_t armed = heap_.size();
  for (const Lane& lane : lanes_) armed += lane.slots.size() - lane.vacant;
  return armed;
}

const TimerWheel::Slot* TimerWheel::earliest() const noexcept {
  if (earliestKnown_) return earliest_;
  // The front of the heap and of each lane, which is never a vacant place.
  const Slot* next = heap_.empty() ? nullptr : &heap_.front();
  for (const Lane& lane : lanes_) {
    if (!lane.slots.empty() && (next == nullptr || earlier(lane.slots.front(), *next))) next = &lane.slots.front();
  }
  earliest_ = next;
  earliestKnown_ = true;
  return next;
}

void TimerWheel::serviceTimers() {
  Zef::Ptr<TimerWheel> keepAlive(this);
  while (serviceOneTimer()) {
  }
}

bool TimerWheel::serviceOneTimer() {
  const Slot* next = earliest();
  if (next == nullptr || next->timeMin > Zef::System::currentTime()) return false;
  Zef::Ptr<TimerWheel> keepAlive(this);
  Notifiee* timer = next->timer;
  disarm(timer);
  // The handler may delete the timer, its state machine, or re-arm it: nothing here touches the
  // timer after the call.
  if (timer->hasNotificationActive()) {
    try {
      timer->onTime();
    } catch (...) {
      Zef::onNotificationException(std::current_exception());
    }
  }
  return true;
}

void TimerWheel::arm(Notifiee* timer) {
  earliestKnown_ = false;
  const Slot slot{timer->timeMin_, ++sequence_, timer};
  // The lane whose last deadline is the latest one not after this deadline keeps its order with
  // this timer at its end; an empty lane is taken only when no other fits.
  Lane* fit = nullptr;
  for (Lane& lane : lanes_) {
    if (lane.slots.empty()) {
      if (fit == nullptr) fit = &lane;
    } else if (lane.slots.back().timeMin <= slot.timeMin &&
               (fit == nullptr || fit->slots.empty() || fit->slots.back().timeMin < lane.slots.back().timeMin)) {
      fit = &lane;
    }
  }
  if (fit != nullptr) {
    timer->lane_ = static_cast<uint8_t>(fit - lanes_.data());
    timer->index_ = fit->first + fit->slots.size();
    fit->slots.push_back(slot);
    return;
  }
  timer->lane_ = Notifiee::kInHeap;
  heap_.push_back(slot);
  timer->index_ = heap_.size() - 1;
  siftUp(timer->index_);
}

void TimerWheel::disarm(Notifiee* timer) {
  earliestKnown_ = false;
  if (timer->lane_ != Notifiee::kInHeap) {
    laneDisarm(lanes_[timer->lane_], timer);
    return;
  }
  const size_t index = timer->index_;
  timer->index_ = Notifiee::kNotArmed;
  const Slot last = heap_.back();
  heap_.pop_back();
  if (last.timer == timer) return;
  place(last, index);
  siftUp(index);
  siftDown(last.timer->index_);
}

void TimerWheel::laneDisarm(Lane& lane, Notifiee* timer) {
  lane.slots[timer->index_ - lane.first].timer = nullptr;
  timer->index_ = Notifiee::kNotArmed;
  ++lane.vacant;
  laneTrim(lane);
}

void TimerWheel::laneTrim(Lane& lane) {
  // Neither end is left vacant: the front is the lane's next timer, and the back the deadline a
  // newcomer must not precede.
  while (!lane.slots.empty() && lane.slots.front().timer == nullptr) {
    lane.slots.pop_front();
    ++lane.first;
    --lane.vacant;
  }
  while (!lane.slots.empty() && lane.slots.back().timer == nullptr) {
    lane.slots.pop_back();
    --lane.vacant;
  }
  // Timers moved again and again before they fall due leave vacant places in between: once these
  // are most of the lane, it closes up.
  if (lane.vacant > 64 && 2 * lane.vacant > lane.slots.size()) {
    std::deque<Slot> kept;
    for (const Slot& slot : lane.slots) {
      if (slot.timer == nullptr) continue;
      slot.timer->index_ = lane.first + kept.size();
      kept.push_back(slot);
    }
    lane.slots.swap(kept);
    lane.vacant = 0;
  }
}

namespace {

// The heap is 4-ary: half the depth of a binary one, so each change moves fewer timers, and a
// node's children lie side by side.
constexpr size_t kArity = 4;

}  // namespace

void TimerWheel::siftUp(size_t index) {
  const Slot timer = heap_[index];
  while (index > 0) {
    const size_t parent = (index - 1) / kArity;
    if (!earlier(timer, heap_[parent])) break;
    place(heap_[parent], index);
    index = parent;
  }
  place(timer, index);
}

void TimerWheel::siftDown(size_t index) {
  const Slot timer = heap_[index];
  const size_t size = heap_.size();
  for (;;) {
    const size_t first = kArity * index + 1;
    if (first >= size) break;
    size_t child = first;
    for (size_t other = first + 1; other < std::min(first + kArity, size); ++other) {
      if (earlier(heap_[other], heap_[child])) child = other;
    }
    if (!earlier(heap_[child], timer)) break;
    place(heap_[child], index);
    index = child;
  }
  place(timer, index);
}

void advanceVirtualTime(Zef::System::VirtualClock& clock, double until, std::initializer_list<TimerWheel*> wheels) {
  for (;;) {
    double next = never;
    for (TimerWheel* wheel : wheels) next = std::min(next, wheel->nextDeadline());
    if (next > until) break;
    clock.timeIs(next);
    for (TimerWheel* wheel : wheels) wheel->serviceTimers();
  }
  clock.timeIs(until);
}

}  // namespace Orb
