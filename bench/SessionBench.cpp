// Sessions on the simulation harness: how long, in virtual seconds, a link takes to be secured
// and to rekey (deterministic figures of the protocol's timing), and how long, in wall time, 256
// links take to be secured.

#include <benchmark/benchmark.h>

#include <string>

#include "bench/Switches.h"
#include "platform/Log.h"
#include "sim/Simulation.h"

namespace {

const Sim::Key kKey{"96437a93ccf10d9dfe347846cce52c7d", "135bd758b0ee5c11c55ff6ab19fdb199"};

using Bench::intfNumber;

// A pair of switches joined by `links` links, every interface running a port with one key.
void build(Sim::Simulation& sim, int links, double hardwareLatency) {
  Bench::linkedSwitchesIs(sim, links, kKey);
  sim.agent("a").hardwareLatencyIs(hardwareLatency);
  sim.agent("b").hardwareLatencyIs(hardwareLatency);
}

// Both ends transmit on the key with number `keyNum`, and their ports are open.
bool secured(Sim::Simulation& sim, int link, uint32_t keyNum) {
  for (const char* name : {"a", "b"}) {
    const Zef::Ptr<Macsec::CpStatus> cp = sim.agent(name).status()->cpStatus(intfNumber(link));
    const Macsec::SakContext& running = cp->oldSakContext();
    if (!cp->controlledPortEnabled() || !running.txInstalled || running.sak.keyNum != keyNum) return false;
  }
  return true;
}

// Virtual seconds from the start to a secured link, and from the rekey timer's expiry to the
// link running on the new key; with and without hardware that takes 50 ms per confirmation.
void BM_VirtualTimeToSecureAndRekey(benchmark::State& state) {
  Zef::logSinkIs([](const Zef::LogRecord&) {});
  const double latency = static_cast<double>(state.range(0)) / 1000.0;
  double toSecure = 0;
  double toRekey = 0;
  for (auto _ : state) {
    Sim::Simulation sim(0.0);
    build(sim, 1, latency);
    sim.agent("a").profile(intfNumber(0))->sessionReKeyPeriodIs(60);
    double securedAt = -1;
    double rekeyedAt = -1;
    double rekeyStarts = -1;
    const Zef::Ptr<Macsec::MkaActorStatus> server =
        sim.agent("a").status()->portStatus(intfNumber(0))->actorStatus(kKey.name());
    sim.observerIs([&] {
      if (securedAt < 0 && secured(sim, 0, 1)) securedAt = sim.now();
      if (rekeyStarts < 0 && server->keyNum() == 2) rekeyStarts = sim.now();
      if (rekeyedAt < 0 && secured(sim, 0, 2)) rekeyedAt = sim.now();
    });
    sim.runFor(120);
    if (securedAt < 0 || rekeyedAt < 0) state.SkipWithError("the link was not secured and rekeyed");
    toSecure = securedAt;
    toRekey = rekeyedAt - rekeyStarts;
  }
  state.counters["virtual_s_to_secure"] = toSecure;
  state.counters["virtual_s_to_rekey"] = toRekey;
  Zef::logSinkIs(nullptr);
}
BENCHMARK(BM_VirtualTimeToSecureAndRekey)->Arg(0)->Arg(50)->Unit(benchmark::kMillisecond);

// Wall time for 256 links between two switches to be secured, checked every virtual second.
void BM_Secure256Links(benchmark::State& state) {
  Zef::logSinkIs([](const Zef::LogRecord&) {});
  double virtualSeconds = 0;
  for (auto _ : state) {
    Sim::Simulation sim(0.0);
    build(sim, 256, 0.0);
    int done = 0;
    while (done < 256 && sim.now() < 120) {
      sim.runFor(1);
      done = 0;
      for (int i = 0; i < 256; ++i) done += secured(sim, i, 1) ? 1 : 0;
    }
    if (done < 256) state.SkipWithError("not every link was secured");
    virtualSeconds = sim.now();
  }
  state.counters["virtual_s"] = virtualSeconds;
  Zef::logSinkIs(nullptr);
}
BENCHMARK(BM_Secure256Links)->Unit(benchmark::kMillisecond);

}  // namespace
