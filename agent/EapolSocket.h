#pragma once

// EAPOL frames on one Linux interface: an AF_PACKET socket bound to the interface for EtherType
// 0x888E, a member of the PAE group address 01:80:C2:00:00:03 (and of the bridge and LLDP group
// addresses, which peers may use instead), that hears frames from the wire and not the ones this
// host sends.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace Macsec {

class EapolSocket {
 public:
  // Null, with the reason in `error`, if the socket cannot be opened (no CAP_NET_RAW, the
  // interface gone).
  static std::unique_ptr<EapolSocket> open(int ifindex, std::string& error);
  ~EapolSocket();
  EapolSocket(const EapolSocket&) = delete;
  EapolSocket& operator=(const EapolSocket&) = delete;

  int fd() const noexcept { return fd_; }
  int ifindex() const noexcept { return ifindex_; }
  // Reads every frame that is waiting and hands each on, Ethernet header included.
  void readable(const std::function<void(const uint8_t* frame, size_t length)>& received);
  // Sends a whole Ethernet frame; false if the kernel refused it.
  bool send(std::string_view frame);

 private:
  EapolSocket(int fd, int ifindex) : fd_(fd), ifindex_(ifindex) {}

  int fd_;
  int ifindex_;
};

}  // namespace Macsec
