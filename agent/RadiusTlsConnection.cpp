#include "agent/RadiusTlsConnection.h"

#include <netinet/in.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/EventLoop.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::RadiusTlsConnection")

namespace Macsec {

namespace {

constexpr size_t kHeaderOctets = 4;
constexpr size_t kShortestPacket = 20;
constexpr size_t kLongestPacket = 4096;

std::string openSslReason() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "the connection ended";
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

}  // namespace

std::unique_ptr<RadiusTlsConnection> RadiusTlsConnection::open(EventLoop& loop, const RadiusEndpoint& endpoint,
                                                               const Dot1x::TlsContext& tls, Received received,
                                                               Failed failed, std::string& error) {
  const int fd = ::socket(endpoint.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::strerror(errno);
    return nullptr;
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&endpoint.address), endpoint.length) != 0 &&
      errno != EINPROGRESS) {
    error = std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  SSL* ssl = SSL_new(tls.raw());
  if (ssl == nullptr || SSL_set_fd(ssl, fd) != 1) {
    error = "cannot make a TLS connection: " + openSslReason();
    SSL_free(ssl);
    ::close(fd);
    return nullptr;
  }
  SSL_set_mode(ssl, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  std::unique_ptr<RadiusTlsConnection> connection(
      new RadiusTlsConnection(loop, fd, ssl, std::move(received), std::move(failed)));
  // Writable once the TCP connection is made.
  loop.fdIs(fd, EPOLLIN | EPOLLOUT, [raw = connection.get()](uint32_t events) { raw->ready(events); });
  return connection;
}

RadiusTlsConnection::~RadiusTlsConnection() {
  if (fd_ >= 0) {
    loop_.fdDel(fd_);
    ::close(fd_);
  }
  SSL_free(ssl_);
}

void RadiusTlsConnection::send(std::string_view packet) {
  if (failed()) return;
  out_.emplace_back(packet);
  if (established_) flush();
}

void RadiusTlsConnection::ready(uint32_t events) {
  if (failed()) return;
  if (!connected_) {
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    if (error != 0) {
      fail(std::string("cannot connect: ") + std::strerror(error));
      return;
    }
    if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) == 0) return;
    connected_ = true;
  }
  if (!established_) {
    handshake();
    return;
  }
  read();
  if (!failed()) flush();
}

void RadiusTlsConnection::handshake() {
  const int result = SSL_connect(ssl_);
  if (result == 1) {
    established_ = true;
    TRACE(3, ": established with " << SSL_get_version(ssl_));
    flush();
    return;
  }
  const int error = SSL_get_error(ssl_, result);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    wantsWrite_ = error == SSL_ERROR_WANT_WRITE;
    watch();
    return;
  }
  const long verified = SSL_get_verify_result(ssl_);
  fail(verified != X509_V_OK ? std::string("the server's certificate: ") + X509_verify_cert_error_string(verified)
                             : "the TLS handshake failed: " + openSslReason());
}

void RadiusTlsConnection::flush() {
  wantsWrite_ = false;
  while (!out_.empty()) {
    // Whole or not at all: a write that must wait is made again with the same packet.
    const int written = SSL_write(ssl_, out_.front().data(), static_cast<int>(out_.front().size()));
    if (written > 0) {
      out_.pop_front();
      continue;
    }
    const int error = SSL_get_error(ssl_, written);
    if (error == SSL_ERROR_WANT_WRITE || error == SSL_ERROR_WANT_READ) {
      wantsWrite_ = error == SSL_ERROR_WANT_WRITE;
      break;
    }
    fail("cannot send: " + openSslReason());
    return;
  }
  watch();
}

void RadiusTlsConnection::read() {
  char buffer[16384];
  for (;;) {
    const int got = SSL_read(ssl_, buffer, sizeof buffer);
    if (got > 0) {
      in_.append(buffer, static_cast<size_t>(got));
      continue;
    }
    const int error = SSL_get_error(ssl_, got);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) break;
    // Closed by the server, with TLS's close or without: servers close the connections they
    // find idle.
    const bool closed =
        error == SSL_ERROR_ZERO_RETURN ||
        (error == SSL_ERROR_SSL && ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING);
    fail(closed ? std::string("the server closed the connection") : "cannot read: " + openSslReason(), closed);
    return;
  }
  // Whole packets, each as long as its header says.
  while (in_.size() >= kHeaderOctets) {
    const size_t length = (static_cast<size_t>(static_cast<uint8_t>(in_[2])) << 8) | static_cast<uint8_t>(in_[3]);
    if (length < kShortestPacket || length > kLongestPacket) {
      fail("the server sent a packet of a length no RADIUS packet has");
      return;
    }
    if (in_.size() < length) break;
    const std::string packet = in_.substr(0, length);
    in_.erase(0, length);
    received_(packet);
    if (failed()) return;
  }
}

void RadiusTlsConnection::watch() {
  if (failed()) return;
  const bool write = !connected_ || wantsWrite_ || (established_ && !out_.empty());
  loop_.fdIs(fd_, EPOLLIN | (write ? EPOLLOUT : 0u), [this](uint32_t events) { ready(events); });
}

void RadiusTlsConnection::fail(const std::string& why, bool closed) {
  if (failed()) return;
  TRACE(3, ": " << why);
  ERR_clear_error();
  loop_.fdDel(fd_);
  ::close(fd_);
  fd_ = -1;
  failed_(why, closed);
}

}  // namespace Macsec
