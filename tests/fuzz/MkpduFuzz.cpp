// Feeds arbitrary bytes to the MKPDU decoder. The first byte chooses whether the ICV is made good
// over the rest first, so that mutated parameter sets get past the integrity check and into the
// set parsers. An accepted frame must encode again and decode to the same message.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "mkpdu/MkpduCoding.h"
#include "model/Crypto.h"

namespace {

using namespace Macsec::IdentifierLiterals;

const Macsec::ActorKeys& keys() {
  static const Macsec::ActorKeys k{Macsec::StoredKey::ofHex("8f1c5cb1c8ed2e5f047906e0473aad4d"),
                                   Macsec::StoredKey::ofHex("8f5a384c15d6ae9302b462e363d03ca6"),
                                   Macsec::cipherSuiteGcmAes128};
  return k;
}

std::optional<Macsec::ActorKeys> lookup(const Macsec::Ckn& ckn) {
  if (ckn == "96437a93ccf10d9dfe347846cce52c7d"_ckn) return keys();
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool reseal = data[0] & 1;
  std::string frame(reinterpret_cast<const char*>(data + 1), size - 1);
  if (reseal && frame.size() >= 16) {
    Macsec::KeyBytes ick;
    Macsec::hexToBytes("8f1c5cb1c8ed2e5f047906e0473aad4d", ick);
    const Macsec::KeyBytes icv =
        Macsec::aesCmac(ick, reinterpret_cast<const uint8_t*>(frame.data()), frame.size() - 16);
    frame.replace(frame.size() - 16, 16, reinterpret_cast<const char*>(icv.data()), 16);
  }
  Macsec::DecodedMkpdu message;
  if (Macsec::decodeMkpdu(reinterpret_cast<const uint8_t*>(frame.data()), frame.size(), lookup, message) !=
      Macsec::DecodeResult::accepted) {
    return 0;
  }
  std::string again;
  if (!Macsec::encodeMkpdu(message, message.baseInfo.sci.addr, keys(), again)) std::abort();
  Macsec::DecodedMkpdu back;
  if (Macsec::decodeMkpdu(reinterpret_cast<const uint8_t*>(again.data()), again.size(), lookup, back) !=
      Macsec::DecodeResult::accepted) {
    std::abort();
  }
  if (back.baseInfo != message.baseInfo || back.sakUseInfo != message.sakUseInfo ||
      back.livePeers != message.livePeers || back.potentialPeers != message.potentialPeers) {
    std::abort();
  }
  return 0;
}
