#pragma once

#include <cstdint>
#include <ostream>

#include "platform/IntfId.h"
#include "platform/ValueMap.h"

namespace Macsec::Memtab {

// One interface's MKA counters: the MKPDUs that went in and out, each kind of refused frame on its
// own, as the codec keeps them, and the keys of EAP exchanges that derived nothing.
struct MessageCounterData {
  Lanx::IntfId intfId;
  uint64_t inMkpdus = 0;              // accepted and handed to the actors
  uint64_t outMkpdus = 0;             // sent
  uint64_t outErrors = 0;             // could not be built or sent
  uint64_t inMalformed = 0;           // too short, bad lengths, a malformed parameter set or CKN
  uint64_t inNotMka = 0;              // another EtherType, EAPOL type or destination
  uint64_t inBadVersion = 0;          // an EAPOL or MKA version not understood
  uint64_t inUnsupportedAgility = 0;  // an algorithm agility other than AES-CMAC-128
  uint64_t inUnknownCkn = 0;          // no actor on the interface has the CKN
  uint64_t inBadIcv = 0;              // the integrity check value does not verify
  uint64_t inBadKeyWrap = 0;          // a distributed key that does not unwrap
  uint64_t inReplayed = 0;            // a member number already seen
  uint64_t inNotKeyServer = 0;        // a distributed key from a live peer that is not the key server
  uint64_t inOffsetRefused = 0;       // a distributed key at a confidentiality offset the data plane lacks
  uint64_t eapKeysRefused = 0;        // an EAP exchange's key that gives no CAK

  const Lanx::IntfId& key() const noexcept { return intfId; }
  bool operator==(const MessageCounterData&) const noexcept = default;
};

// A hold on one interface's row of the table.
using RowHold = Zef::ValueMap<Lanx::IntfId, MessageCounterData>::Hold;

inline std::ostream& operator<<(std::ostream& out, const MessageCounterData& d) {
  return out << "MessageCounterData(" << d.intfId << ", in " << d.inMkpdus << ", out " << d.outMkpdus << "/"
             << d.outErrors << ", refused: malformed " << d.inMalformed << ", not MKA " << d.inNotMka << ", version "
             << d.inBadVersion << ", agility " << d.inUnsupportedAgility << ", unknown CKN " << d.inUnknownCkn
             << ", ICV " << d.inBadIcv << ", key wrap " << d.inBadKeyWrap << ", replayed " << d.inReplayed
             << ", not key server " << d.inNotKeyServer << ", offset " << d.inOffsetRefused << ", EAP keys "
             << d.eapKeysRefused << ")";
}

}  // namespace Macsec::Memtab
