#include "agent/EapolSocket.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Macsec {

namespace {

constexpr uint16_t kEapolType = 0x888E;
// The PAE group address that we send to, and the bridge and LLDP group addresses that IEEE 802.1X
// lets a peer use as its PAE group address.
constexpr uint8_t kGroupAddresses[][6] = {
    {0x01, 0x80, 0xC2, 0x00, 0x00, 0x03}, {0x01, 0x80, 0xC2, 0x00, 0x00, 0x00}, {0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E}};
// Enough for a jumbo frame; a longer one is handed on cut short, and the codec refuses it.
constexpr size_t kLongestFrame = 9216;

}  // namespace

std::unique_ptr<EapolSocket> EapolSocket::open(int ifindex, std::string& error) {
  // Opened for no protocol and bound to EAPOL on the one interface: a socket opened for a
  // protocol hears every interface until bound, and binding it then waits for a grace period of
  // the kernel's network stack, tens of milliseconds for each interface of a large switch.
  const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::string("cannot open a packet socket: ") + std::strerror(errno);
    return nullptr;
  }
  std::unique_ptr<EapolSocket> eapol(new EapolSocket(fd, ifindex));
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(kEapolType);
  address.sll_ifindex = ifindex;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
    error = std::string("cannot bind a packet socket: ") + std::strerror(errno);
    return nullptr;
  }
  for (const auto& group : kGroupAddresses) {
    packet_mreq membership{};
    membership.mr_ifindex = ifindex;
    membership.mr_type = PACKET_MR_MULTICAST;
    membership.mr_alen = sizeof group;
    std::memcpy(membership.mr_address, group, sizeof group);
    if (setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &membership, sizeof membership) < 0) {
      error = std::string("cannot join the PAE group addresses: ") + std::strerror(errno);
      return nullptr;
    }
  }
  // Frames this host sends are not looped back to us; older kernels lack the option, and the
  // packet type check in readable() covers them.
  const int one = 1;
  setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
  return eapol;
}

EapolSocket::~EapolSocket() { close(fd_); }

void EapolSocket::readable(const std::function<void(const uint8_t* frame, size_t length)>& received) {
  uint8_t frame[kLongestFrame];
  while (true) {
    sockaddr_ll from{};
    socklen_t fromLength = sizeof from;
    const ssize_t length =
        recvfrom(fd_, frame, sizeof frame, MSG_TRUNC, reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (length < 0) return;  // nothing more waiting (or an error the next read reports again)
    if (from.sll_pkttype == PACKET_OUTGOING) continue;
    received(frame, std::min(static_cast<size_t>(length), sizeof frame));
  }
}

bool EapolSocket::send(std::string_view frame) {
  return ::send(fd_, frame.data(), frame.size(), MSG_DONTWAIT) == static_cast<ssize_t>(frame.size());
}

}  // namespace Macsec
