// Every port of a large switch in one engine: two engines joined back to back by N links over real
// frames (no delay, so that no frame waits in the simulator), each port with a primary and a fallback
// key (two actors), delay protection on (an MKPDU every 0.5 s). Once every link is secured, the
// figures of steady state: CPU per virtual second of one engine, and heap bytes per actor. `make
// bench-scale` runs them alone.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "bench/Switches.h"
#include "platform/Log.h"
#include "sim/Simulation.h"

namespace {

const Sim::Key kPrimary{"96437a93ccf10d9dfe347846cce52c7d", "135bd758b0ee5c11c55ff6ab19fdb199"};
const Sim::Key kFallback{"7888f5d48ba8b24e96bb95bd8c7304ec", "a29efdb63d6fba73c65daab2295340a8"};

using Bench::intfNumber;

size_t heapInUse() { return mallinfo2().uordblks; }

double cpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

bool secured(Sim::Simulation& sim, int links) {
  for (int i = 0; i < links; ++i) {
    for (const char* name : {"a", "b"}) {
      const Zef::Ptr<Macsec::CpStatus> cp = sim.agent(name).status()->cpStatus(intfNumber(i));
      if (!cp || !cp->controlledPortEnabled()) return false;
    }
  }
  return true;
}

// Steady state of N links. With `upOverSeconds` 0 every link comes up at the same moment, and every
// actor of one switch sends in one burst, before the other switch answers: each actor's records
// are read twice a period, and cold both times. Links that came up one after another over a
// period, the two ends of each together (as a cable plugged in brings up both), send and answer
// link by link: the answer finds the records still in the cache.
void steadyState(benchmark::State& state, double upOverSeconds) {
  Zef::logSinkIs([](const Zef::LogRecord&) {});
  const int links = static_cast<int>(state.range(0));
  // Ten virtual seconds of steady state, or as many as MKA_SCALE_SECONDS says (for counting
  // instructions by difference: bench/steady_instructions.sh).
  const char* seconds = std::getenv("MKA_SCALE_SECONDS");
  const double measuredSeconds = seconds != nullptr ? std::atof(seconds) : 10;
  for (auto _ : state) {
    const size_t heapBefore = heapInUse();
    Sim::Simulation sim(0.0, 1, Sim::Wire::bytes);
    // Delay protection from the start, as in a daemon configured with it: each actor's first
    // MKPDU leaves as its link comes up, and the actors keep the order in which they started.
    for (const char* name : {"a", "b"}) sim.agentIs(name).engine().config()->delayProtectionIs(true);
    Bench::linkedSwitchesIs(sim, links, kPrimary, &kFallback, 0.0, upOverSeconds);
    Sim::Agent& a = sim.agent("a");
    // Past the fallback key's activation, and every link secured.
    sim.runFor(40);
    if (!secured(sim, links)) state.SkipWithError("not every link was secured");
    const double actors = static_cast<double>(a.status()->portStatus(intfNumber(0))->actorStatusSize()) * links * 2;

    const double cpuBefore = cpuSeconds();
    const uint64_t framesBefore = sim.deliveries();
    sim.runFor(measuredSeconds);
    const double cpu = cpuSeconds() - cpuBefore;
    state.counters["frames_per_actor_second"] =
        static_cast<double>(sim.deliveries() - framesBefore) / actors / measuredSeconds;
    state.counters["actors_per_engine"] = actors / 2;
    state.counters["cpu_pct_of_one_engine"] = 100.0 * cpu / measuredSeconds / 2;
    state.counters["heap_bytes_per_actor"] = static_cast<double>(heapInUse() - heapBefore) / actors;
  }
  Zef::logSinkIs(nullptr);
}

void BM_SteadyStatePerActor(benchmark::State& state) { steadyState(state, 0.0); }
BENCHMARK(BM_SteadyStatePerActor)
    ->Arg(128)
    ->Arg(512)
    ->Arg(1024)
    ->Arg(2048)
    ->Arg(4096)
    ->Arg(8192)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

// Links up one after another over one MKPDU period.
void BM_SteadyStateLinksUpInTurn(benchmark::State& state) { steadyState(state, 0.5); }
BENCHMARK(BM_SteadyStateLinksUpInTurn)->Arg(2048)->Arg(8192)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
