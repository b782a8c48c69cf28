// Shows the reactive runtime at work: a watchdog state machine follows a link's heartbeats on
// virtual time, traces its handlers and logs the link going up and down.

#include <cstdio>
#include <iomanip>
#include <iostream>

#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/Trace.h"
#include "tools/RuntimeDemo.h"

ZEF_TRACE_MODULE("Demo::Watchdog")

namespace Demo {

namespace {

Zef::LogHandle LINK_STATE("DEMO_LINK_STATE", 5, "Link %s is %s", "The watchdog saw the link change state.",
                          Zef::NoActionRequired, 0, 1.0, 0);

}  // namespace

void Watchdog::handleInitialized() {
  TRACE(8, ": link " << link()->name());
  silenceIs(wheel());
  initializedIs(true);
  handleUp();
}

void Watchdog::handleUp() {
  if (!initialized()) return;
  TRACE(8, ": link " << link()->name() << " up " << link()->up());
  Zef::log(LINK_STATE, link()->name(), link()->up() ? "UP" : "DOWN");
  silence()->timeMinIs(link()->up() ? Zef::System::currentTime() + lifetime() : Orb::never);
}

void Watchdog::handleBeat() {
  if (!initialized() || !link()->up()) return;
  TRACE(8, ": beat " << link()->beats());
  silence()->timeMinIs(Zef::System::currentTime() + lifetime());
}

void Watchdog::handleSilence() {
  TRACE(3, ": no heartbeat for " << lifetime() << " s, taking the link down");
  link()->upIs(false);
}

}  // namespace Demo

int main() {
  Zef::System::VirtualClock clock(0.0);
  Zef::System::ScopedClock scoped(clock);
  Zef::traceSettingsIs("Demo*=8");
  Zef::traceSinkIs([](const Zef::TraceRecord& r) {
    std::cout << std::fixed << std::setprecision(1) << "[" << r.time << "s] trace " << r.text << '\n';
  });
  Zef::logSinkIs([&](const Zef::LogRecord& r) {
    std::cout << std::fixed << std::setprecision(1) << "[" << clock.monotonicTime() << "s] log   " << r.handle->name()
              << ": " << r.text << '\n';
  });

  Zef::Ptr<Orb::TimerWheel> wheel = Orb::TimerWheel::TimerWheelIs();
  Zef::Ptr<Demo::Link> link = Demo::Link::LinkIs("eth0");
  Zef::Ptr<Demo::Watchdog> watchdog = Demo::Watchdog::WatchdogIs(link, wheel);

  link->upIs(true);
  // Heartbeats every second for five seconds, then silence: the watchdog's timer takes the link
  // down three seconds after the last beat.
  for (int second = 1; second <= 5; ++second) {
    Orb::advanceVirtualTime(clock, second, {wheel.ptr()});
    link->beatsInc(1);
  }
  Orb::advanceVirtualTime(clock, 12, {wheel.ptr()});
  std::cout << "link " << link->name() << " is " << (link->up() ? "up" : "down") << " after " << clock.monotonicTime()
            << " virtual seconds\n";
  return link->up() ? 1 : 0;
}
