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
  for (const Slot& slot : heap_) slot.timer->heapIndex_ = Notifiee::kNotArmed;
}

void TimerWheel::serviceTimers() {
  Zef::Ptr<TimerWheel> keepAlive(this);
  while (serviceOneTimer()) {
  }
}

bool TimerWheel::serviceOneTimer() {
  if (heap_.empty() || heap_.front().timeMin > Zef::System::currentTime()) return false;
  Zef::Ptr<TimerWheel> keepAlive(this);
  Notifiee* timer = heap_.front().timer;
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
  timer->sequence_ = ++sequence_;
  heap_.push_back(Slot{timer->timeMin_, timer->sequence_, timer});
  timer->heapIndex_ = heap_.size() - 1;
  siftUp(timer->heapIndex_);
}

void TimerWheel::disarm(Notifiee* timer) {
  const size_t index = timer->heapIndex_;
  timer->heapIndex_ = Notifiee::kNotArmed;
  const Slot last = heap_.back();
  heap_.pop_back();
  if (last.timer == timer) return;
  place(last, index);
  siftUp(index);
  siftDown(last.timer->heapIndex_);
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
