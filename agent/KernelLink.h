#pragma once

// What the kernel holds for one interface's MACsec, as the kernel data plane made it: the MACsec
// link, the receive channel of the peer, and the SAs in it, each by association number with the
// identity of its key.

#include <map>
#include <optional>
#include <string>

#include "agent/MacsecKernel.h"
#include "model/Values.h"

namespace Macsec {

struct KernelSa {
  MemberId mi;
  uint32_t keyNum = 0;
  bool operator==(const KernelSa&) const noexcept = default;
};

// The mark of the links that mkad makes, in their alias: the links it may remove as its own.
inline constexpr const char* kLinkMark = "mkad";

struct KernelLink {
  std::string name;
  int ifindex = 0;  // of the MACsec link; 0 until it is made
  std::optional<KernelSci> rxSc;
  std::map<uint8_t, KernelSa> rxSas;
  std::map<uint8_t, KernelSa> txSas;
  uint64_t errors = 0;
};

}  // namespace Macsec
