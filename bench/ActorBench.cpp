#include <benchmark/benchmark.h>

#include "platform/Log.h"

#include "mka/MkaActorSm.h"
#include "mkpdu/MkpduCoding.h"
#include "model/Crypto.h"
#include "platform/Clock.h"
#include "sim/Simulation.h"

namespace {

Macsec::KeyBytes octets(const char* hex) {
  Macsec::KeyBytes out;
  Macsec::hexToBytes(hex, out);
  return out;
}

// The two keys an actor derives when it starts.
void BM_DeriveIckAndKek(benchmark::State& state) {
  const Macsec::KeyBytes cak = octets("135bd758b0ee5c11c55ff6ab19fdb199");
  const Macsec::KeyBytes ckn = octets("96437a93ccf10d9dfe347846cce52c7d");
  for (auto _ : state) {
    benchmark::DoNotOptimize(Macsec::deriveIck(cak, ckn, 128));
    benchmark::DoNotOptimize(Macsec::deriveKek(cak, ckn, 128));
  }
}
BENCHMARK(BM_DeriveIckAndKek);

// A new SAK for a key server with one live peer.
void BM_DeriveSak(benchmark::State& state) {
  const Macsec::KeyBytes cak = octets("135bd758b0ee5c11c55ff6ab19fdb199");
  const Macsec::KeyBytes context =
      octets("0102030405060708090a0b0c0d0e0f10cd421cf86ba457938657675b01020304050607080d1f36cf00000001");
  for (auto _ : state) benchmark::DoNotOptimize(Macsec::deriveSak(cak, context, 128));
}
BENCHMARK(BM_DeriveSak);

}  // namespace

namespace {

constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";
constexpr const char* kCak = "135bd758b0ee5c11c55ff6ab19fdb199";

Lanx::IntfId intfNumber(int i) { return Lanx::IntfId("Ethernet" + std::to_string(i)); }

// The operators' log is not what is measured here.
void quietLog() {
  Zef::logSinkIs([](const Zef::LogRecord&) {});
}

// The frames a peer sends one actor, numbered from `first` on, sealed with the actor's keys.
std::vector<std::string> framesFor(const Zef::Ptr<Macsec::MkaActorStatus>& actor, uint32_t first, size_t count) {
  const Macsec::ActorKeys keys{actor->ick(), actor->kek(), Macsec::cipherSuiteGcmAes128};
  Macsec::DecodedMkpdu message;
  message.baseInfo.keyServerPriority = 16;
  message.baseInfo.keyServer = true;
  message.baseInfo.macsecDesired = true;
  message.baseInfo.sci = Macsec::Sci{Lanx::EthAddr({2, 0, 0, 0, 0, 1}), 1};
  message.baseInfo.msgId = Macsec::MemberId::fromHex("0102030405060708090a0b0c");
  message.baseInfo.ckn = Macsec::Ckn::fromHex(kCkn);
  std::vector<std::string> frames(count);
  for (size_t i = 0; i < count; ++i) {
    message.baseInfo.msgNum = first + static_cast<uint32_t>(i);
    Macsec::encodeMkpdu(message, message.baseInfo.sci.addr, keys, frames[i]);
  }
  return frames;
}

// One received MKPDU frame, from the access point of its interface to the end of its handling:
// decoding, the ICV check, the lookup of the one actor among all of the agent's, and the actor's
// parsing of it. With a second argument of 1 the frames go to every actor in turn, as on a busy
// switch, where each finds its actor's state out of the processor's caches.
void BM_ReceiveFrameAmongActors(benchmark::State& state) {
  quietLog();
  Sim::Simulation sim(0.0, 1, Sim::Wire::bytes);
  Sim::Agent& agent = sim.agentIs("switch");
  const int actors = static_cast<int>(state.range(0));
  for (int i = 0; i < actors; ++i) {
    Sim::InterfaceConfig config;
    config.mac = Lanx::EthAddr({2, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
    agent.interfaceIs(intfNumber(i), config);
    agent.actorIs(intfNumber(i), kCkn, kCak);
  }
  const bool spread = state.range(1) != 0;
  std::vector<Lanx::IntfId> intfs;
  for (int i = 0; i < actors; ++i) intfs.push_back(intfNumber(i));
  const Lanx::IntfId intf = intfNumber(actors / 2);
  // Every actor has the same keys, so that one frame suits any of them.
  const Zef::Ptr<Macsec::MkaActorStatus> actor = agent.actorStatus(intf, kCkn);
  constexpr size_t kBatch = 4096;
  uint32_t next = 1;
  std::vector<std::string> frames;
  size_t at = kBatch;
  for (auto _ : state) {
    if (at == kBatch) {
      state.PauseTiming();
      frames = framesFor(actor, next, kBatch);
      next += kBatch;
      at = 0;
      state.ResumeTiming();
    }
    agent.deliverFrame(spread ? intfs[at % intfs.size()] : intf, frames[at]);
    ++at;
  }
  if (agent.codec()->pamManager()->rxMessages() != next - kBatch + at - 1) {
    state.SkipWithError("a frame was refused");
  }
}
BENCHMARK(BM_ReceiveFrameAmongActors)->Args({1, 0})->Args({64, 0})->Args({1024, 0})->Args({1024, 1})->Args({4096, 1});

// One periodic MKPDU of an actor with a live peer: peer review, building and handing it off.
void BM_PeriodicTransmit(benchmark::State& state) {
  quietLog();
  Sim::Simulation sim(0.0);
  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  const Lanx::IntfId eth1("eth1");
  sim.linkIs(a, eth1, b, eth1);
  for (auto [agent, last] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
    Sim::InterfaceConfig config;
    config.mac = Lanx::EthAddr({2, 0, 0, 0, 0, static_cast<uint8_t>(last)});
    agent->interfaceIs(eth1, config);
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
        Sim::InterfaceConfig config;
        config.mac =
            Lanx::EthAddr({2, 0, 0, static_cast<uint8_t>(side), static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
        agent->interfaceIs(intfNumber(i), config);
        agent->actorIs(intfNumber(i), kCkn, kCak);
      }
    }
    sim.runFor(60);
    state.counters["messages"] = static_cast<double>(sim.deliveries());
  }
}
BENCHMARK(BM_Harness256LinksFor60Seconds)->Unit(benchmark::kMillisecond);

}  // namespace
