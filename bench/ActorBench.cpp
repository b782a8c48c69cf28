#include <benchmark/benchmark.h>

#include "mka/MkaActorSm.h"
#include "model/CloakLib.h"
#include "model/Crypto.h"
#include "platform/Clock.h"

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
      Macsec::MkaActorSm::MkaActorSmIs("abcd", CloakLib::doEncodeKey("135bd758b0ee5c11c55ff6ab19fdb199"), eth1, status,
                                       pam, Macsec::MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs(), wheel);
  Zef::Ptr<Macsec::MkaMessageInfo> rx = pam->rxMessageInfo();
  rx->intfIdIs(Lanx::IntfId("eth2"));
  rx->mkaInfoIs();
  for (auto _ : state) rx->countInc(1);
}
BENCHMARK(BM_RxDispatchReturnsEarly);

}  // namespace
