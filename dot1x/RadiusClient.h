#pragma once

// The RADIUS client of an engine's authenticators: the servers they name, what each has been
// asked and has answered, which of them are up, and the requests outstanding. Every port's
// request goes to its server on one of the server's channels (a socket, or a connection) with an
// identifier free there, so that many ports share a server; an answer is taken only when it is
// the server's to a request outstanding, checked with the request's authenticator and the
// server's secret. The transport (UDP or TLS) is the owner's, behind a function.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "dot1x/PaeStatus.h"
#include "dot1x/Radius.h"
#include "dot1x/RadiusServer.h"
#include "model/StoredKey.h"
#include "platform/IntfId.h"

namespace Dot1x {

// An answer for a port's request outstanding, checked.
struct RadiusDelivery {
  Lanx::IntfId port;
  RadiusPacket answer;
  RadiusAuthenticator requestAuthenticator{};
  Macsec::StoredKey secret;
};

class RadiusClient {
 public:
  // Sends one packet to a server on one of its channels.
  using Transmit = std::function<void(const std::string& server, uint32_t channel, std::string_view packet)>;

  RadiusClient(Zef::Ptr<PaeStatusDir> statusDir, std::function<RadiusAuthenticator()> random);

  void transmitIs(Transmit transmit) { transmit_ = std::move(transmit); }

  // Sends a port's request to the server, in place of any the port has outstanding. False if the
  // request cannot be written (too long for a packet, or MD5 refused).
  bool send(const Lanx::IntfId& port, const RadiusServerSettings& server, RadiusPacket request, double now);
  // Sends the port's request outstanding again, the same to the octet.
  void resend(const Lanx::IntfId& port);
  // The port's request went unanswered to the end: its server is down for its dead time.
  void timedOut(const Lanx::IntfId& port, double now);
  // Forgets the port's request outstanding.
  void cancel(const Lanx::IntfId& port);
  // Whether the server is up: it has not gone silent within its dead time.
  bool up(const std::string& server, double now) const;

  // Bytes that came from a server on a channel: the answer, checked, and the port it is for; none
  // if it answers no request outstanding or does not check, counted by reason.
  std::optional<RadiusDelivery> answerIs(const std::string& server, uint32_t channel, std::string_view bytes,
                                         double now);

 private:
  struct Outstanding {
    std::string server;
    uint32_t channel = 0;
    uint8_t identifier = 0;
    RadiusAuthenticator authenticator{};
    Macsec::StoredKey secret;
    uint32_t deadTime = 0;
    std::string bytes;
    double sentAt = 0;
    bool resent = false;
  };
  struct Channel {
    std::vector<bool> busy = std::vector<bool>(256);
    uint8_t next = 0;
  };

  // A free identifier on one of the server's channels, adding a channel when all are busy.
  std::pair<uint32_t, uint8_t> identifierFor(const std::string& server);
  void release(const Outstanding& request);
  Zef::Ptr<RadiusServerStatus> serverStatus(const std::string& server);
  void discarded(const std::string& server, const char* reason);

  Zef::Ptr<PaeStatusDir> statusDir_;
  std::function<RadiusAuthenticator()> random_;
  Transmit transmit_;
  std::map<std::string, std::vector<Channel>> channels_;
  std::map<Lanx::IntfId, Outstanding> outstanding_;
  // The port of each identifier in use, by server and channel.
  std::map<std::tuple<std::string, uint32_t, uint8_t>, Lanx::IntfId> ports_;
  std::map<std::string, double> downUntil_;
};

}  // namespace Dot1x
