#pragma once

// What the kernel holds for one interface's MACsec, as the kernel data plane made it: the MACsec
// link, the receive channel of the peer, and the SAs in it, each by association number with the
// identity of its key.

#include <bitset>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

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

// Removes every MACsec link that bears mkad's mark but those named in `kept`: the links an earlier
// run left that nobody takes over. Returns how many went; each refusal is added to `refused` as the
// link's name and the kernel's reason.
inline size_t removeMarkedLinks(MacsecKernel& kernel, const std::set<std::string>& kept,
                                std::vector<std::pair<std::string, std::string>>& refused) {
  size_t removed = 0;
  for (const std::string& name : kernel.markedLinks(kLinkMark)) {
    const int index = kept.contains(name) ? 0 : kernel.linkIndex(name);
    if (index == 0) continue;
    if (const std::optional<std::string> error = kernel.linkDel(index)) {
      refused.emplace_back(name, *error);
    } else {
      ++removed;
    }
  }
  return removed;
}

struct KernelLink {
  std::string name;
  int ifindex = 0;  // of the MACsec link; 0 until it is made
  std::optional<KernelSci> rxSc;
  std::map<uint8_t, KernelSa> rxSas;
  std::map<uint8_t, KernelSa> txSas;
  uint64_t errors = 0;
};

// What the kernel has still to be told of one interface, as the engine asked for it since: the
// link's state, the peer's receive channel, receive SAs by association number, the transmit SA.
// Requests wait here until the daemon's loop gives the kernel its turn, so that a burst of them
// (every key server of a large switch making a key at once) never holds MKPDUs back.
struct KernelLinkWork {
  bool link = false;
  bool rxSc = false;
  std::bitset<4> rxSas;
  bool txSa = false;
};

}  // namespace Macsec
