#pragma once

// The Linux kernel's MACsec driver through netlink: the MACsec link on top of a port (rtnetlink,
// libnl-route) and its receive channels and SAs (the "macsec" generic netlink family, libnl-genl).
// The verbs follow the driver's own: add, update and delete of receive SC, receive SA and
// transmit SA. Every call waits for the kernel's answer; a failure returns the error text, names
// the operation and is never partly applied by us. Key bytes are wiped from every message buffer
// before it is freed.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "agent/MacsecKernel.h"

struct nl_sock;
struct nl_msg;
struct nlattr;

namespace Macsec {

class MacsecNetlink : public MacsecKernel {
 public:
  // Null with the reason if the kernel has no MACsec (its module could not be loaded) or netlink
  // cannot be opened.
  static std::unique_ptr<MacsecNetlink> open(std::string& error);
  ~MacsecNetlink() override;
  MacsecNetlink(const MacsecNetlink&) = delete;
  MacsecNetlink& operator=(const MacsecNetlink&) = delete;

  int linkIndex(const std::string& name) override;
  Answer linkAdd(const MacsecLinkSettings& settings) override;
  Answer linkUpdate(int ifindex, const MacsecLinkState& state) override;
  Answer linkDel(int ifindex) override;
  Answer rxScAdd(int ifindex, const KernelSci& sci) override;
  Answer rxScDel(int ifindex, const KernelSci& sci) override;
  Answer rxSaAdd(int ifindex, const KernelSci& sci, const MacsecSaSettings& sa) override;
  // Switched off first: the kernel refuses to delete an active SA.
  Answer rxSaDel(int ifindex, const KernelSci& sci, uint8_t an) override;
  Answer txSaAdd(int ifindex, const MacsecSaSettings& sa) override;
  Answer txSaDel(int ifindex, uint8_t an) override;
  std::optional<MacsecLinkView> linkView(const std::string& name) override;
  std::vector<std::string> markedLinks(const std::string& mark) override;
  std::map<int, MacsecLinkCounters> linkCounters() override;
  Traffic traffic() const override { return traffic_; }

 private:
  // Counts every message either socket sends or receives, whoever asks.
  MacsecNetlink(nl_sock* route, nl_sock* genl, int family);
  nl_msg* genlMessage(uint8_t command, int ifindex);
  // Sends, wipes the buffer, frees it and waits for the acknowledgement.
  std::optional<std::string> send(nl_msg* msg, const char* operation, bool existsIsSuccess = false);
  // One SA of the link (a receive SA of `sci`, or a transmit SA without): an update command switches
  // it off, a delete command removes it.
  // Calls `use` with the attributes of one MACsec link, or of every one (ifindex 0), from a dump of
  // the transmit channels.
  void dumpLink(int ifindex, const std::function<void(nlattr** attrs)>& use);
  std::optional<std::string> switchOffOrDeleteSa(uint8_t command, int ifindex, const KernelSci* sci, uint8_t an);

  nl_sock* route_;
  nl_sock* genl_;
  int family_;
  Traffic traffic_;
};

}  // namespace Macsec
