#include <benchmark/benchmark.h>

#include "platform/Log.h"

#include "mka/MkaActorSm.h"
#include "model/Crypto.h"
#include "platform/Clock.h"
#include "sim/Simulation.h"

namespace {

const uint8_t* text(const char* s) { return reinterpret_cast<const uint8_t*>(s); }

// The two keys an actor derives when it starts.
void BM_DeriveIckAndKek(benchmark::State& state) {
  Zef::String ick;
  Zef::String kek;
  for (auto _ : state) {
    Macsec::deriveIck(text("135bd758b0ee5c11c55ff6ab19fdb199"), text("96437a93ccf10d9dfe347846cce52c7d"), 128, ick);
    Macsec::deriveKek(text("135bd758b0ee5c11c55ff6ab19fdb199"), text("96437a93ccf10d9dfe347846cce52c7d"), 128, kek);
  }
  benchmark::DoNotOptimize(ick);
}
BENCHMARK(BM_DeriveIckAndKek);

// A new SAK for a key server with one live peer.
void BM_DeriveSak(benchmark::State& state) {
  Zef::String sak;
  for (auto _ : state) {
    Macsec::deriveSak(text("135bd758b0ee5c11c55ff6ab19fdb199"),
                      text("0102030405060708090a0b0c0d0e0f10cd421cf86ba457938657675b01020304050607080d1f36cf00000001"),
                      128, sak);
  }
  benchmark::DoNotOptimize(sak);
}
BENCHMARK(BM_DeriveSak);

// One received MKPDU reaching an actor it is not for: the cost every actor pays per message.
void BM_RxDispatchReturnsEarly(benchmark::State& state) {
  Zef::System::VirtualClock clock(0.0);
  Zef::System::ScopedClock scoped(clock);
  const Lanx::IntfId eth1("eth1");
  Zef::Ptr<Macsec::Status> status = Macsec::Status::StatusIs();
  status->intfStatusIs(eth1, Macsec::MacsecParams());
  status->cpStatusIs(eth1, Macsec::MacsecParams());
  status->portStatusIs(eth1)->actorStatusIs("abcd");
  Zef::Ptr<Macsec::MkaPamManager> pam = Macsec::MkaPamManager::MkaPamManagerIs(nullptr);
  Zef::Ptr<Orb::TimerWheel> wheel = Orb::TimerWheel::TimerWheelIs();
  Zef::Ptr<Macsec::MkaActorSm> actor =
      Macsec::MkaActorSm::MkaActorSmIs("abcd", Macsec::StoredKey::ofHex("135bd758b0ee5c11c55ff6ab19fdb199"), eth1,
                                       status, pam, Macsec::MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs(), wheel);
  Zef::Ptr<Macsec::MkaMessageInfo> rx = pam->rxMessageInfo();
  rx->intfIdIs(Lanx::IntfId("eth2"));
  rx->mkaInfoIs();
  for (auto _ : state) rx->countInc(1);
}
BENCHMARK(BM_RxDispatchReturnsEarly);

}  // namespace

namespace {

constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";
constexpr const char* kCak = "135bd758b0ee5c11c55ff6ab19fdb199";

Lanx::IntfId intfNumber(int i) { return Lanx::IntfId("Ethernet" + std::to_string(i)); }

// The operators' log is not what is measured here.
void quietLog() {
  Zef::logSinkIs([](const Zef::LogRecord&) {});
}

// One received MKPDU reaching every actor of an agent, the one it is for parsing it.
void BM_RxDispatchToManyActors(benchmark::State& state) {
  quietLog();
  Sim::Simulation sim(0.0);
  Sim::Agent& agent = sim.agentIs("switch");
  const int actors = static_cast<int>(state.range(0));
  for (int i = 0; i < actors; ++i) {
    Sim::PortConfig config;
    config.mac = Lanx::EthAddr({2, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
    agent.portIs(intfNumber(i), config);
    agent.actorIs(intfNumber(i), kCkn, kCak);
  }
  Sim::Message message;
  message.intfId = intfNumber(actors / 2);
  message.baseInfo.keyServerPriority = 16;
  message.baseInfo.keyServer = true;
  message.baseInfo.sci = Macsec::Sci{Lanx::EthAddr({2, 0, 0, 0, 0, 1}), 1};
  message.baseInfo.msgId = "0102030405060708090a0b0c";
  message.baseInfo.ckn = kCkn;
  uint32_t number = 0;
  for (auto _ : state) {
    message.baseInfo.msgNum = ++number;
    agent.deliver(message);
  }
  state.SetItemsProcessed(state.iterations() * actors);
}
BENCHMARK(BM_RxDispatchToManyActors)->Arg(1)->Arg(64)->Arg(1024);

// One periodic MKPDU of an actor with a live peer: peer review, building and handing it off.
void BM_PeriodicTransmit(benchmark::State& state) {
  quietLog();
  Sim::Simulation sim(0.0);
  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  const Lanx::IntfId eth1("eth1");
  sim.linkIs(a, eth1, b, eth1);
  for (auto [agent, last] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
    Sim::PortConfig config;
    config.mac = Lanx::EthAddr({2, 0, 0, 0, 0, static_cast<uint8_t>(last)});
    agent->portIs(eth1, config);
    agent->actorIs(eth1, kCkn, kCak);
  }
  sim.runFor(10);
  Zef::Ptr<Macsec::MkaActorSm> actor = a.actor(eth1, kCkn);
  b.mutedIs(true);
  for (auto _ : state) actor->handleMkpduTimerExpiry(true);
}
BENCHMARK(BM_PeriodicTransmit);

// 256 two-actor links securing and keeping their sessions for 60 s of virtual time.
void BM_Harness256LinksFor60Seconds(benchmark::State& state) {
  quietLog();
  for (auto _ : state) {
    Sim::Simulation sim(0.0);
    Sim::Agent& a = sim.agentIs("a");
    Sim::Agent& b = sim.agentIs("b");
    for (int i = 0; i < 256; ++i) {
      sim.linkIs(a, intfNumber(i), b, intfNumber(i));
      for (auto [agent, side] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
        Sim::PortConfig config;
        config.mac =
            Lanx::EthAddr({2, 0, 0, static_cast<uint8_t>(side), static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
        agent->portIs(intfNumber(i), config);
        agent->actorIs(intfNumber(i), kCkn, kCak);
      }
    }
    sim.runFor(60);
    state.counters["messages"] = static_cast<double>(sim.deliveries());
  }
}
BENCHMARK(BM_Harness256LinksFor60Seconds)->Unit(benchmark::kMillisecond);

}  // namespace
