#pragma once

// The daemon's side of its RADIUS servers: where each [radius.NAME] section says the server is,
// and the sockets that carry the engine's requests to it and its answers back. Each channel the
// engine uses is one UDP socket, connected to the server, so that its 256 identifiers are its own
// and the kernel drops datagrams that come from anywhere else.

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "dot1x/RadiusServer.h"

namespace Macsec {

class EventLoop;

// A server's address and port, and how the configuration wrote them ("192.0.2.1:1812").
struct RadiusEndpoint {
  sockaddr_storage address{};
  socklen_t length = 0;
  std::string text;

  // The address written as an IPv4 or IPv6 address, and the port; none if it is neither.
  static std::optional<RadiusEndpoint> of(const std::string& address, uint16_t port);
  bool operator==(const RadiusEndpoint& other) const { return text == other.text; }
};

// A [radius.NAME] section.
struct RadiusServerConfig {
  Dot1x::RadiusServerSettings settings;
  RadiusEndpoint endpoint;
  bool operator==(const RadiusServerConfig& other) const = default;
};

class RadiusSockets {
 public:
  // What came back from a server on a channel.
  using Received = std::function<void(const std::string& server, uint32_t channel, std::string_view bytes)>;

  RadiusSockets(EventLoop& loop, Received received) : loop_(loop), received_(std::move(received)) {}
  ~RadiusSockets();
  RadiusSockets(const RadiusSockets&) = delete;
  RadiusSockets& operator=(const RadiusSockets&) = delete;

  // The servers of the configuration: the channels of one that is gone or has moved are closed.
  void serversAre(const std::map<std::string, RadiusServerConfig>& servers);
  // Sends a packet to a server on a channel, opening the channel's socket as it is first used. A
  // packet that cannot go is lost as on the network, and its request is sent again.
  void send(const std::string& server, uint32_t channel, std::string_view packet);

 private:
  void readable(const std::string& server, uint32_t channel, int fd);
  void close(const std::string& server);

  EventLoop& loop_;
  Received received_;
  std::map<std::string, RadiusEndpoint> endpoints_;
  std::map<std::pair<std::string, uint32_t>, int> sockets_;
};

}  // namespace Macsec
