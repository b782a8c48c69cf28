// The codec on a typical MKPDU of a key server: two live peers and a SAK use set, and, with the
// argument 1, a distributed SAK. The keys are made ready once, as an actor holds them.

#include <benchmark/benchmark.h>

#include "mkpdu/MkpduCoding.h"

namespace {

using namespace Macsec::IdentifierLiterals;

constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";

Macsec::ActorKeys keys() {
  return Macsec::ActorKeys{Macsec::StoredKey::ofHex("8f1c5cb1c8ed2e5f047906e0473aad4d"),
                           Macsec::StoredKey::ofHex("8f5a384c15d6ae9302b462e363d03ca6"), Macsec::cipherSuiteGcmAes128};
}

Macsec::DecodedMkpdu typical(bool distributing) {
  Macsec::DecodedMkpdu m;
  m.baseInfo = Macsec::BasicInfo{16,
                                 true,
                                 true,
                                 2,
                                 Macsec::Sci{Lanx::EthAddr({2, 0, 0, 0, 0, 1}), 1},
                                 "0102030405060708090a0b0c"_mi,
                                 7,
                                 Macsec::Ckn::fromHex(kCkn)};
  m.livePeers = {{"a1a2a3a4a5a6a7a8a9aaabac"_mi, 5}, {"b1b2b3b4b5b6b7b8b9babbbc"_mi, 9}};
  m.sakUseInfo.latestKey = Macsec::KeyInfo{1, false, true, "0102030405060708090a0b0c"_mi, 2, 0};
  m.sakUseInfo.oldKey = Macsec::KeyInfo{0, true, true, "0102030405060708090a0b0c"_mi, 1, 100};
  if (distributing) {
    m.sakDistInfo = Macsec::SakDistInfo{1, 0, 2, Macsec::cipherSuiteGcmAes128,
                                        Macsec::StoredKey::ofHex("00112233445566778899aabbccddeeff")};
  }
  return m;
}

void BM_EncodeWithIcv(benchmark::State& state) {
  const Macsec::ActorKeys k = keys();
  const Macsec::DecodedMkpdu m = typical(state.range(0) != 0);
  std::string frame;
  for (auto _ : state) {
    if (!Macsec::encodeMkpdu(m, m.baseInfo.sci.addr, k, frame)) state.SkipWithError("encoding failed");
  }
  state.counters["bytes"] = static_cast<double>(frame.size());
}
BENCHMARK(BM_EncodeWithIcv)->Arg(0)->Arg(1);

void BM_DecodeAndVerify(benchmark::State& state) {
  const Macsec::ActorKeys k = keys();
  const Macsec::DecodedMkpdu m = typical(state.range(0) != 0);
  std::string frame;
  Macsec::encodeMkpdu(m, m.baseInfo.sci.addr, k, frame);
  const Macsec::KeyLookup lookup = [&](const Macsec::Ckn&) { return std::optional<Macsec::ActorKeys>(k); };
  for (auto _ : state) {
    Macsec::DecodedMkpdu out;
    if (Macsec::decodeMkpdu(reinterpret_cast<const uint8_t*>(frame.data()), frame.size(), lookup, out) !=
        Macsec::DecodeResult::accepted) {
      state.SkipWithError("decoding failed");
    }
  }
}
BENCHMARK(BM_DecodeAndVerify)->Arg(0)->Arg(1);

}  // namespace
