#pragma once

// One RADIUS/TLS connection (RFC 6614) to a server: TCP, then TLS with this host's certificate,
// the server's checked against the authorities and names of the section. Packets given while it
// connects wait for the handshake; whole packets are cut from what comes back by the length each
// gives. When it fails or the server closes it, it says why and takes no more: the owner opens
// another, and the requests it carried time out as lost ones do.

#include <openssl/ssl.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "agent/RadiusSockets.h"

namespace Macsec {

class EventLoop;

class RadiusTlsConnection {
 public:
  using Received = std::function<void(std::string_view packet)>;
  // Why the connection ended; `closed` when the server closed it, as servers close idle ones.
  using Failed = std::function<void(const std::string& why, bool closed)>;

  // Starts connecting; null, with the reason in `error`, if not even that can begin.
  static std::unique_ptr<RadiusTlsConnection> open(EventLoop& loop, const RadiusEndpoint& endpoint,
                                                   const Dot1x::TlsContext& tls, Received received, Failed failed,
                                                   std::string& error);
  ~RadiusTlsConnection();
  RadiusTlsConnection(const RadiusTlsConnection&) = delete;
  RadiusTlsConnection& operator=(const RadiusTlsConnection&) = delete;

  // Sends a packet, at once or when the handshake ends.
  void send(std::string_view packet);
  bool failed() const noexcept { return fd_ < 0; }
  bool established() const noexcept { return established_; }

 private:
  RadiusTlsConnection(EventLoop& loop, int fd, SSL* ssl, Received received, Failed failed)
      : loop_(loop), fd_(fd), ssl_(ssl), received_(std::move(received)), failed_(std::move(failed)) {}

  void ready(uint32_t events);
  void handshake();
  void flush();
  void read();
  void watch();
  // Ends the connection and says why, once.
  void fail(const std::string& why, bool closed = false);

  EventLoop& loop_;
  int fd_;
  SSL* ssl_;
  Received received_;
  Failed failed_;
  bool connected_ = false;
  bool established_ = false;
  bool wantsWrite_ = false;
  // Packets to send, each in a record of its own: servers read one packet from each.
  std::deque<std::string> out_;
  std::string in_;
};

}  // namespace Macsec
