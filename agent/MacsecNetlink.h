#pragma once

// The Linux kernel's MACsec driver through netlink: the MACsec link on top of a port (rtnetlink,
// libnl-route) and its receive channels and SAs (the "macsec" generic netlink family, libnl-genl).
// The verbs follow the driver's own: add, update and delete of receive SC, receive SA and
// transmit SA. Every call waits for the kernel's answer; a failure returns the error text, names
// the operation and is never partly applied by us. Key bytes are wiped from every message buffer
// before it is freed.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "model/KeyBytes.h"

struct nl_sock;
struct nl_msg;

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

class MacsecNetlink {
 public:
  // Null with the reason if the kernel has no MACsec (its module could not be loaded) or netlink
  // cannot be opened.
  static std::unique_ptr<MacsecNetlink> open(std::string& error);
  ~MacsecNetlink();
  MacsecNetlink(const MacsecNetlink&) = delete;
  MacsecNetlink& operator=(const MacsecNetlink&) = delete;

  // The interface index of a link by name, or 0.
  int linkIndex(const std::string& name);
  // Each returns the error text, or nothing on success. A link or SA that exists already counts as
  // made.
  std::optional<std::string> linkAdd(const MacsecLinkSettings& settings);
  std::optional<std::string> linkUpdate(int ifindex, const MacsecLinkState& state);
  std::optional<std::string> linkDel(int ifindex);
  std::optional<std::string> rxScAdd(int ifindex, const KernelSci& sci);
  std::optional<std::string> rxScDel(int ifindex, const KernelSci& sci);
  std::optional<std::string> rxSaAdd(int ifindex, const KernelSci& sci, const MacsecSaSettings& sa);
  // Switched off first: the kernel refuses to delete an active SA.
  std::optional<std::string> rxSaDel(int ifindex, const KernelSci& sci, uint8_t an);
  std::optional<std::string> txSaAdd(int ifindex, const MacsecSaSettings& sa);
  std::optional<std::string> txSaDel(int ifindex, uint8_t an);
  // The next packet number of a transmit SA, from a dump of the link's transmit channel.
  std::optional<uint64_t> txSaNextPn(int ifindex, uint8_t an);

 private:
  MacsecNetlink(nl_sock* route, nl_sock* genl, int family) : route_(route), genl_(genl), family_(family) {}
  nl_msg* genlMessage(uint8_t command, int ifindex);
  // Sends, wipes the buffer, frees it and waits for the acknowledgement.
  std::optional<std::string> send(nl_msg* msg, const char* operation, bool existsIsSuccess = false);
  std::optional<std::string> saActive(uint8_t command, int ifindex, const KernelSci* sci, uint8_t an, bool active);

  nl_sock* route_;
  nl_sock* genl_;
  int family_;
};

// How the data plane holds its netlink, which the daemon owns.
using MacsecNetlinkPtr = MacsecNetlink*;

}  // namespace Macsec
