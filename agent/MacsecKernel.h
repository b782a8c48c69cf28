#pragma once

// The kernel's MACsec as the kernel data plane asks it: the driver's own verbs (add, update and
// delete of the MACsec link, the receive SC, receive SA and transmit SA), each answered with the
// error text or nothing. `MacsecNetlink` speaks them to the kernel; tests speak them to a fake
// that records every call and answers as told.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/KeyBytes.h"

namespace Macsec {

// A secure channel identifier as the kernel takes it: the address's six octets and the port
// number, in network order.
struct KernelSci {
  uint8_t octets[8] = {};
  uint64_t raw() const;
};

// The settings of a MACsec link that the kernel fixes at creation, and those it can change.
struct MacsecLinkSettings {
  std::string name;
  // The mark of who made the link, in its alias: links with mkad's mark are mkad's to remove.
  std::string mark;
  int lowerIfindex = 0;
  KernelSci sci;
  uint64_t cipherSuite = 0;  // an IEEE 802.1AE cipher suite reference number
  bool replayProtection = false;
  uint32_t replayWindow = 0;
  bool includeSci = true;
};

struct MacsecLinkState {
  bool up = false;       // frames pass at all
  bool protect = true;   // frames sent are protected
  bool validate = true;  // received frames are validated strictly; else accepted unprotected
  bool encrypt = true;   // frames sent are encrypted; else their integrity alone is protected
  int encodingSa = -1;   // the association number frames are sent with; -1 leaves it
};

// One SA's key and identity. The key identifier is the key server's member identifier followed
// by the key number.
struct MacsecSaSettings {
  uint8_t an = 0;
  uint64_t lowestPn = 1;
  const KeyBytes* key = nullptr;
  uint8_t keyId[16] = {};
  // The extended packet number suites: 64-bit packet numbers, and the SA's short SCI and salt.
  bool xpn = false;
  uint32_t ssci = 0;
  uint8_t salt[12] = {};
};

// One SA as the kernel reports it: its association number and key identifier, never its key.
struct MacsecSaView {
  uint8_t an = 0;
  uint8_t keyId[16] = {};
  bool active = false;
};

// A MACsec link as the kernel holds it: where it sits, who marked it, its channel, the association
// number it sends with, and its SAs.
struct MacsecLinkView {
  int ifindex = 0;
  int lowerIfindex = 0;
  std::string mark;
  KernelSci sci;
  int encodingSa = -1;
  std::vector<MacsecSaView> txSas;
  struct RxSc {
    KernelSci sci;
    std::vector<MacsecSaView> sas;
  };
  std::vector<RxSc> rxScs;
};

// Counters of the kernel's MACsec, each by the name `ip -s macsec show` prints it.
struct MacsecCounter {
  const char* name;
  uint64_t value;
};
using MacsecCounters = std::vector<MacsecCounter>;
// The counter of that name in a set, 0 if the set lacks it.
uint64_t counterOf(const MacsecCounters& counters, std::string_view name);

// One MACsec link's counters: of its SecY, its transmit channel and SAs, and each receive channel
// and its SAs (by association number); and the next packet number of each transmit SA.
struct MacsecLinkCounters {
  MacsecCounters secy;
  MacsecCounters txSc;
  std::map<uint8_t, MacsecCounters> txSas;
  std::map<uint8_t, uint64_t> txNextPn;
  struct RxSc {
    KernelSci sci;
    MacsecCounters counters;
    std::map<uint8_t, MacsecCounters> sas;
  };
  std::vector<RxSc> rxScs;
};

class MacsecKernel {
 public:
  // The kernel's answer to a call: the error text, or nothing on success.
  using Answer = std::optional<std::string>;

  virtual ~MacsecKernel() = default;

  // The interface index of a link by name, or 0.
  virtual int linkIndex(const std::string& name) = 0;
  // A link or SA that exists already counts as made.
  virtual Answer linkAdd(const MacsecLinkSettings& settings) = 0;
  virtual Answer linkUpdate(int ifindex, const MacsecLinkState& state) = 0;
  virtual Answer linkDel(int ifindex) = 0;
  virtual Answer rxScAdd(int ifindex, const KernelSci& sci) = 0;
  virtual Answer rxScDel(int ifindex, const KernelSci& sci) = 0;
  virtual Answer rxSaAdd(int ifindex, const KernelSci& sci, const MacsecSaSettings& sa) = 0;
  virtual Answer rxSaDel(int ifindex, const KernelSci& sci, uint8_t an) = 0;
  virtual Answer txSaAdd(int ifindex, const MacsecSaSettings& sa) = 0;
  virtual Answer txSaDel(int ifindex, uint8_t an) = 0;
  // A MACsec link by name as the kernel holds it; none if there is no MACsec link of that name.
  virtual std::optional<MacsecLinkView> linkView(const std::string& name) = 0;
  // The names of the MACsec links that carry a mark.
  virtual std::vector<std::string> markedLinks(const std::string& mark) = 0;
  // Every MACsec link's counters, by interface index, read in one dump: one request however many
  // links there are.
  virtual std::map<int, MacsecLinkCounters> linkCounters() = 0;

  // The netlink messages exchanged with the kernel since the start: requests sent, and answers,
  // acknowledgements and each part of a dump received.
  struct Traffic {
    uint64_t sent = 0;
    uint64_t received = 0;
  };
  virtual Traffic traffic() const = 0;
};

// How the data plane holds the kernel, which the daemon owns.
using MacsecKernelPtr = MacsecKernel*;

}  // namespace Macsec
