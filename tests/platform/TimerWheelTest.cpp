#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/TimerWheel.h"

namespace {

// A timer that writes its name and the time into a shared list when it fires.
class Timer : public Orb::TimerWheel::Notifiee {
 public:
  Timer(const Zef::Ptr<Orb::TimerWheel>& wheel, std::string name, std::vector<std::string>* fired)
      : Notifiee(wheel), name_(std::move(name)), fired_(fired) {
    hasNotificationActiveIs(true);
  }
  std::function<void()> then;
  void onTime() override {
    fired_->push_back(name_ + "@" + std::to_string(static_cast<int>(Zef::System::currentTime())));
    if (then) then();
  }

 private:
  std::string name_;
  std::vector<std::string>* fired_;
};

class TimerWheelTest : public ::testing::Test {
 protected:
  Zef::Ptr<Timer> timer(const std::string& name) { return Zef::Ptr<Timer>(new Timer(wheel, name, &fired)); }
  void runTo(double t) { Orb::advanceVirtualTime(clock, t, {wheel.ptr()}); }

  Zef::System::VirtualClock clock{0.0};
  Zef::System::ScopedClock scoped{clock};
  Zef::Ptr<Orb::TimerWheel> wheel = Orb::TimerWheel::TimerWheelIs();
  std::vector<std::string> fired;
};

TEST_F(TimerWheelTest, ANewDeadlineReplacesTheOldAndNeverSwitchesOff) {
  auto a = timer("a");
  auto off = timer("off");
  a->timeMinIs(5);
  a->timeMinIs(7);
  off->timeMinIs(3);
  off->timeMinIs(Orb::never);
  EXPECT_FALSE(off->isArmed());
  runTo(100);
  EXPECT_EQ(fired, (std::vector<std::string>{"a@7"}));
  EXPECT_EQ(a->timeMin(), 7);  // keeps its deadline after firing, and does not repeat
  EXPECT_FALSE(a->isArmed());
}

TEST_F(TimerWheelTest, TimersDueAtOneTimeFireInArmingOrder) {
  auto a = timer("a");
  auto b = timer("b");
  auto c = timer("c");
  b->timeMinIs(4);
  c->timeMinIs(4);
  a->timeMinIs(4);
  c->timeMinIs(4);  // re-arming puts it last
  runTo(4);
  EXPECT_EQ(fired, (std::vector<std::string>{"b@4", "a@4", "c@4"}));
}

TEST_F(TimerWheelTest, AHandlerMayRearmDeleteOrArmOthersForNow) {
  auto periodic = timer("p");
  auto victim = timer("victim");
  auto immediate = timer("now");
  periodic->then = [&] {
    periodic->timeMinIs(Zef::System::currentTime() + 2);
    victim = nullptr;  // deleting an armed timer takes it off the wheel
    immediate->timeMinIs(Zef::System::currentTime());
  };
  periodic->timeMinIs(1);
  victim->timeMinIs(2);
  runTo(5);
  EXPECT_EQ(fired, (std::vector<std::string>{"p@1", "now@1", "p@3", "now@3", "p@5", "now@5"}));
}

TEST_F(TimerWheelTest, ATimerWhoseTimeHasPassedFiresOnTheNextRun) {
  auto late = timer("late");
  clock.timeIs(10);
  late->timeMinIs(3);
  wheel->serviceTimers();
  EXPECT_EQ(fired, (std::vector<std::string>{"late@10"}));
}

TEST_F(TimerWheelTest, AnInactiveTimerIsConsumedWithoutRunning) {
  auto quiet = timer("quiet");
  quiet->hasNotificationActiveIs(false);
  quiet->timeMinIs(1);
  runTo(2);
  EXPECT_TRUE(fired.empty());
  EXPECT_EQ(wheel->armedTimers(), 0u);
}

// Periodic timers of several periods, armed again as they fire, among timers moved, switched off
// and armed for the present by another timer: each fires at its deadline, in the order of deadline
// and then of arming, and none is lost or fires twice.
TEST_F(TimerWheelTest, PeriodicAndMovedTimersFireInDeadlineThenArmingOrder) {
  struct Armed {
    double deadline = Orb::never;
    uint64_t order = 0;
  };
  std::mt19937 random(7);
  std::vector<Zef::Ptr<Timer>> timers;
  std::vector<Armed> expected;
  uint64_t arming = 0;
  std::pair<double, uint64_t> lastFired{-1.0, 0};
  int firings = 0;
  auto armAt = [&](size_t i, double t) {
    timers[i]->timeMinIs(t);
    expected[i] = t == Orb::never ? Armed() : Armed{t, ++arming};
  };
  const double periods[] = {0.5, 2.0, 3.0, 0.0};  // 0.0: fires once
  for (size_t i = 0; i < 300; ++i) {
    timers.push_back(timer("t"));
    expected.emplace_back();
    const double period = periods[i % 4];
    timers[i]->then = [&, i, period] {
      const double now = Zef::System::currentTime();
      EXPECT_EQ(now, expected[i].deadline);
      const std::pair<double, uint64_t> key{expected[i].deadline, expected[i].order};
      EXPECT_LT(lastFired, key);
      lastFired = key;
      ++firings;
      expected[i] = Armed();
      if (period > 0) armAt(i, now + period);
    };
    armAt(i, 0.25 * static_cast<double>(1 + random() % 8));
  }
  auto mover = timer("mover");
  mover->then = [&] {
    const double now = Zef::System::currentTime();
    for (int n = 0; n < 20; ++n) {
      const size_t i = random() % timers.size();
      switch (random() % 4) {
        case 0:
          armAt(i, now + 0.25 * static_cast<double>(random() % 20));
          break;
        case 1:
          armAt(i, Orb::never);
          break;
        case 2:
          armAt(i, now);
          break;
        default:
          // Put off again and again, far beyond the others: the places left behind close up.
          armAt(i % 50, now + 40 + 0.25 * static_cast<double>(random() % 4));
      }
    }
    mover->timeMinIs(now + 0.25);
  };
  mover->timeMinIs(0.25);
  runTo(100);
  EXPECT_GT(firings, 10000);
  for (size_t i = 0; i < timers.size(); ++i) {
    EXPECT_EQ(timers[i]->isArmed(), expected[i].deadline != Orb::never) << i;
    EXPECT_GT(expected[i].deadline, 100.0) << i;
  }
  EXPECT_EQ(wheel->armedTimers(), std::count_if(expected.begin(), expected.end(), [](const Armed& a) {
                                    return a.deadline != Orb::never;
                                  }) + 1u);
}

}  // namespace
