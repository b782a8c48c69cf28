#include "agent/RadiusSockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "agent/DaemonLog.h"
#include "agent/EventLoop.h"
#include "agent/RadiusTlsConnection.h"
#include "platform/Clock.h"
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

RadiusSockets::RadiusSockets(EventLoop& loop, Received received) : loop_(loop), received_(std::move(received)) {}

RadiusSockets::~RadiusSockets() {
  for (auto& [key, channel] : channels_) close(channel);
}

void RadiusSockets::serversAre(const std::map<std::string, RadiusServerConfig>& servers) {
  std::vector<std::string> changed;
  for (const auto& [name, config] : servers_) {
    const auto it = servers.find(name);
    if (it == servers.end() || !(it->second == config)) changed.push_back(name);
  }
  for (const std::string& name : changed) closeServer(name);
  servers_ = servers;
}

void RadiusSockets::close(Channel& channel) {
  channel.tls.reset();
  if (channel.fd >= 0) {
    loop_.fdDel(channel.fd);
    ::close(channel.fd);
    channel.fd = -1;
  }
}

void RadiusSockets::closeServer(const std::string& server) {
  for (auto it = channels_.begin(); it != channels_.end();) {
    if (it->first.first != server) {
      ++it;
      continue;
    }
    close(it->second);
    it = channels_.erase(it);
  }
}

void RadiusSockets::send(const std::string& server, uint32_t channel, std::string_view packet) {
  const auto config = servers_.find(server);
  if (config == servers_.end()) return;
  Channel& open = channels_[{server, channel}];
  if (open.tls) {
    // A connection that failed, or that has not been established within a timeout, is opened anew.
    const bool stuck =
        !open.tls->established() && Zef::System::currentTime() - open.openedAt > config->second.settings.timeout;
    if (open.tls->failed() || stuck) close(open);
  }
  const bool ready = open.fd >= 0 || open.tls ||
                     (config->second.settings.transport == Dot1x::RadiusTransport::tls
                          ? openTls(server, channel, config->second, open)
                          : openUdp(server, channel, config->second, open));
  if (!ready) return;
  if (open.tls) {
    open.tls->send(packet);
  } else if (::send(open.fd, packet.data(), packet.size(), 0) < 0) {
    TRACE(3, ": to " << server << ": " << std::strerror(errno));
  }
}

bool RadiusSockets::openUdp(const std::string& server, uint32_t channel, const RadiusServerConfig& config,
                            Channel& out) {
  const sockaddr_storage& address = config.endpoint.address;
  const int fd = ::socket(address.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), config.endpoint.length) != 0) {
    Zef::log(MKAD_RADIUS_SOCKET_FAILED, server, config.endpoint.text, std::strerror(errno));
    if (fd >= 0) ::close(fd);
    return false;
  }
  out.fd = fd;
  loop_.fdIs(fd, EPOLLIN, [this, server, channel, fd](uint32_t) { readable(server, channel, fd); });
  TRACE(3, ": channel " << channel << " to " << server << " at " << config.endpoint.text);
  return true;
}

bool RadiusSockets::openTls(const std::string& server, uint32_t channel, const RadiusServerConfig& config,
                            Channel& out) {
  std::string error;
  out.tls = RadiusTlsConnection::open(
      loop_, config.endpoint, *config.tls,
      [this, server, channel](std::string_view packet) { received_(server, channel, packet); },
      [server, endpoint = config.endpoint.text](const std::string& why, bool closed) {
        // A server closing a connection is no fault: the next request opens another.
        if (!closed) Zef::log(MKAD_RADIUS_SOCKET_FAILED, server, endpoint, why);
      },
      error);
  if (!out.tls) {
    Zef::log(MKAD_RADIUS_SOCKET_FAILED, server, config.endpoint.text, error);
    return false;
  }
  out.openedAt = Zef::System::currentTime();
  TRACE(3, ": channel " << channel << " to " << server << " at " << config.endpoint.text << " over TLS");
  return true;
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
