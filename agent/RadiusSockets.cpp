#include "agent/RadiusSockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "agent/DaemonLog.h"
#include "agent/EventLoop.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::RadiusSockets")

namespace Macsec {

std::optional<RadiusEndpoint> RadiusEndpoint::of(const std::string& address, uint16_t port) {
  RadiusEndpoint endpoint;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&endpoint.address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&endpoint.address);
  if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    endpoint.length = sizeof(sockaddr_in);
    endpoint.text = address + ":" + std::to_string(port);
  } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    endpoint.length = sizeof(sockaddr_in6);
    endpoint.text = "[" + address + "]:" + std::to_string(port);
  } else {
    return std::nullopt;
  }
  return endpoint;
}

RadiusSockets::~RadiusSockets() {
  for (const auto& [key, fd] : sockets_) {
    loop_.fdDel(fd);
    ::close(fd);
  }
}

void RadiusSockets::serversAre(const std::map<std::string, RadiusServerConfig>& servers) {
  std::vector<std::string> moved;
  for (const auto& [name, endpoint] : endpoints_) {
    const auto it = servers.find(name);
    if (it == servers.end() || !(it->second.endpoint == endpoint)) moved.push_back(name);
  }
  for (const std::string& name : moved) close(name);
  for (const auto& [name, server] : servers) endpoints_[name] = server.endpoint;
}

void RadiusSockets::close(const std::string& server) {
  for (auto it = sockets_.begin(); it != sockets_.end();) {
    if (it->first.first != server) {
      ++it;
      continue;
    }
    loop_.fdDel(it->second);
    ::close(it->second);
    it = sockets_.erase(it);
  }
  endpoints_.erase(server);
}

void RadiusSockets::send(const std::string& server, uint32_t channel, std::string_view packet) {
  const auto endpoint = endpoints_.find(server);
  if (endpoint == endpoints_.end()) return;
  auto it = sockets_.find({server, channel});
  if (it == sockets_.end()) {
    const sockaddr_storage& address = endpoint->second.address;
    const int fd = ::socket(address.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), endpoint->second.length) != 0) {
      Zef::log(MKAD_RADIUS_SOCKET_FAILED, server, endpoint->second.text, std::strerror(errno));
      if (fd >= 0) ::close(fd);
      return;
    }
    it = sockets_.emplace(std::pair{server, channel}, fd).first;
    loop_.fdIs(fd, EPOLLIN, [this, server, channel, fd](uint32_t) { readable(server, channel, fd); });
    TRACE(3, ": channel " << channel << " to " << server << " at " << endpoint->second.text);
  }
  if (::send(it->second, packet.data(), packet.size(), 0) < 0) {
    TRACE(3, ": to " << server << ": " << std::strerror(errno));
  }
}

void RadiusSockets::readable(const std::string& server, uint32_t channel, int fd) {
  char datagram[4096 + 1];
  for (;;) {
    const ssize_t got = ::recv(fd, datagram, sizeof datagram, 0);
    if (got < 0) {
      // A server that is not listening answers with an ICMP error, which a connected socket
      // reports here; its requests time out as if lost.
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      TRACE(3, ": from " << server << ": " << std::strerror(errno));
      continue;
    }
    received_(server, channel, std::string_view(datagram, static_cast<size_t>(got)));
  }
}

}  // namespace Macsec
