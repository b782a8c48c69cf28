#pragma once

#include <cstdint>
#include <ostream>

#include "platform/IntfId.h"

namespace Macsec::Memtab {

// One interface's MKPDU counters, as the codec keeps them.
struct MessageCounterData {
  Lanx::IntfId intfId;
  uint64_t rxSuccess = 0;
  uint64_t rxFailure = 0;
  uint64_t txSuccess = 0;
  uint64_t txFailure = 0;

  const Lanx::IntfId& key() const noexcept { return intfId; }
  bool operator==(const MessageCounterData&) const noexcept = default;
};

inline std::ostream& operator<<(std::ostream& out, const MessageCounterData& d) {
  return out << "MessageCounterData(" << d.intfId << ", rx " << d.rxSuccess << "/" << d.rxFailure << ", tx "
             << d.txSuccess << "/" << d.txFailure << ")";
}

}  // namespace Macsec::Memtab
