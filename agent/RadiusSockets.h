#pragma once

// The daemon's side of its RADIUS servers: where each [radius.NAME] section says the server is,
// and the sockets that carry the engine's requests to it and its answers back. Each channel the
// engine uses is one socket, so that its 256 identifiers are its own: over UDP a socket connected
// to the server, so that the kernel drops datagrams that come from anywhere else; over TLS a
// connection (RFC 6614), opened again when it fails.

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "dot1x/RadiusServer.h"
#include "dot1x/TlsSession.h"

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

// A [radius.NAME] section: over TLS, with this host's certificate and what the server's must be,
// and what they were loaded from.
struct RadiusServerConfig {
  Dot1x::RadiusServerSettings settings;
  RadiusEndpoint endpoint;
  std::shared_ptr<const Dot1x::TlsContext> tls;
  std::string tlsSource;
  // Two readings of the same files are the same server, whichever loading each holds.
  bool operator==(const RadiusServerConfig& other) const {
    return settings == other.settings && endpoint == other.endpoint && tlsSource == other.tlsSource;
  }
};

class RadiusTlsConnection;

class RadiusSockets {
 public:
  // What came back from a server on a channel.
  using Received = std::function<void(const std::string& server, uint32_t channel, std::string_view bytes)>;

  RadiusSockets(EventLoop& loop, Received received);
  ~RadiusSockets();
  RadiusSockets(const RadiusSockets&) = delete;
  RadiusSockets& operator=(const RadiusSockets&) = delete;

  // The servers of the configuration: the channels of one that is gone or has moved are closed.
  void serversAre(const std::map<std::string, RadiusServerConfig>& servers);
  // Sends a packet to a server on a channel, opening the channel's socket as it is first used. A
  // packet that cannot go is lost as on the network, and its request is sent again.
  void send(const std::string& server, uint32_t channel, std::string_view packet);

 private:
  // A channel: a UDP socket, or a TLS connection.
  struct Channel {
    int fd = -1;
    std::unique_ptr<RadiusTlsConnection> tls;
    // When the connection was opened: one that has not been established within the server's
    // timeout is given up when the next request comes.
    double openedAt = 0;
  };

  bool openUdp(const std::string& server, uint32_t channel, const RadiusServerConfig& config, Channel& out);
  bool openTls(const std::string& server, uint32_t channel, const RadiusServerConfig& config, Channel& out);
  void readable(const std::string& server, uint32_t channel, int fd);
  void close(Channel& channel);
  void closeServer(const std::string& server);

  EventLoop& loop_;
  Received received_;
  std::map<std::string, RadiusServerConfig> servers_;
  std::map<std::pair<std::string, uint32_t>, Channel> channels_;
};

}  // namespace Macsec
