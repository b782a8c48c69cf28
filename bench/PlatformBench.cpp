#include <benchmark/benchmark.h>

#include <vector>

#include "bench/Bench.h"
#include "platform/Clock.h"
#include "platform/TimerWheel.h"

namespace {

class Listener : public Bench::Box::NotifieeConst {
 public:
  explicit Listener(const Zef::Ptr<Bench::Box>& box) : NotifieeConst(box) { hasNotificationActiveIs(true); }
  void onCount() override { benchmark::DoNotOptimize(++heard); }
  uint64_t heard = 0;
};

// The cost of a change that nobody watches: a compare, a store and one pointer test.
void BM_SetterNobodyWatching(benchmark::State& state) {
  Zef::Ptr<Bench::Box> box = Bench::Box::BoxIs();
  uint32_t value = 0;
  for (auto _ : state) box->countIs(++value);
  benchmark::DoNotOptimize(box->count());
}
BENCHMARK(BM_SetterNobodyWatching);

// A change delivered synchronously to 1 and to 100 reactors.
void BM_SetterWithReactors(benchmark::State& state) {
  Zef::Ptr<Bench::Box> box = Bench::Box::BoxIs();
  std::vector<Zef::Ptr<Listener>> listeners;
  for (int i = 0; i < state.range(0); ++i) listeners.emplace_back(new Listener(box));
  uint32_t value = 0;
  for (auto _ : state) box->countIs(++value);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SetterWithReactors)->Arg(1)->Arg(100);

// An equal value: the rule that ends every reaction chain.
void BM_SetterEqualValue(benchmark::State& state) {
  Zef::Ptr<Bench::Box> box = Bench::Box::BoxIs();
  Zef::Ptr<Listener> listener(new Listener(box));
  box->countIs(7);
  for (auto _ : state) box->countIs(7);
}
BENCHMARK(BM_SetterEqualValue);

// A walk over a collection of 1,000 owned entities, reading each member.
void BM_WalkEntities1000(benchmark::State& state) {
  Zef::Ptr<Bench::Box> box = Bench::Box::BoxIs();
  for (uint32_t i = 0; i < 1000; ++i) box->itemIs(i)->weightIs(i);
  for (auto _ : state) {
    uint64_t sum = 0;
    for (auto it = box->itemIter(); it; ++it) sum += it->weight();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_WalkEntities1000);

// The same over a collection of 1,000 plain values.
void BM_WalkValues1000(benchmark::State& state) {
  Zef::Ptr<Bench::Box> box = Bench::Box::BoxIs();
  for (uint32_t i = 0; i < 1000; ++i) box->tallyIs(i, i);
  for (auto _ : state) {
    uint64_t sum = 0;
    for (auto it = box->tallyIter(); it; ++it) sum += it.value();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_WalkValues1000);

class CountingTimer : public Orb::TimerWheel::Notifiee {
 public:
  CountingTimer(const Zef::Ptr<Orb::TimerWheel>& wheel, uint64_t* fired) : Notifiee(wheel), fired_(fired) {
    hasNotificationActiveIs(true);
  }
  void onTime() override { ++*fired_; }

 private:
  uint64_t* fired_;
};

// Scheduling 10,000 timers at spread deadlines and running the wheel until all have fired.
void BM_ScheduleAndFire10000Timers(benchmark::State& state) {
  Zef::System::VirtualClock clock(0.0);
  Zef::System::ScopedClock scoped(clock);
  Zef::Ptr<Orb::TimerWheel> wheel = Orb::TimerWheel::TimerWheelIs();
  uint64_t fired = 0;
  std::vector<Zef::Ptr<CountingTimer>> timers;
  for (int i = 0; i < 10000; ++i) timers.emplace_back(new CountingTimer(wheel, &fired));
  double base = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < timers.size(); ++i)
      timers[i]->timeMinIs(base + 1 + static_cast<double>((i * 7919) % 10000) / 1000);
    base += 20;
    Orb::advanceVirtualTime(clock, base, {wheel.ptr()});
  }
  if (fired != state.iterations() * timers.size()) state.SkipWithError("not every timer fired");
  state.SetItemsProcessed(state.iterations() * timers.size());
}
BENCHMARK(BM_ScheduleAndFire10000Timers)->Unit(benchmark::kMillisecond);

}  // namespace
