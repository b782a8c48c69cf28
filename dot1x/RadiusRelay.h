#pragma once

// The authenticator's side of EAP when a RADIUS server is its EAP server (RFC 3579), for one port:
// each EAP response of the supplicant becomes an Access-Request with the port's NAS attributes,
// the supplicant's identity and the State of the server's last answer; each answer gives the EAP
// packet to send on to the supplicant, and an Access-Accept the keys of the exchange. Which server
// a request goes to, its identifier and its authenticators are the client's; when to send again
// is the state machine's.

#include <cstdint>
#include <string>
#include <string_view>

#include "dot1x/EapExchange.h"
#include "dot1x/Radius.h"
#include "model/Identifiers.h"
#include "model/StoredKey.h"
#include "platform/EthAddr.h"

namespace Dot1x {

// What the requests say of the port (RFC 3580).
struct RadiusNas {
  std::string identifier;  // NAS-Identifier
  uint32_t port = 0;       // NAS-Port
  std::string portName;    // NAS-Port-Id: the interface's name
  Lanx::EthAddr own;       // the port's address: Called-Station-Id
  Lanx::EthAddr peer;      // the supplicant's: Calling-Station-Id
  uint32_t framedMtu = 1400;
};

// What an Access-Accept gives the port.
struct RadiusGrant {
  Macsec::StoredKey msk;           // MS-MPPE-Recv-Key, then MS-MPPE-Send-Key
  Macsec::EapSessionId sessionId;  // EAP-Key-Name
  uint32_t sessionTimeout = 0;     // seconds until the port is authenticated anew; 0: the server gave none
};

class RadiusRelay {
 public:
  explicit RadiusRelay(RadiusNas nas) : nas_(std::move(nas)) {}

  // The Access-Request that carries an EAP response of the supplicant, to be given its identifier
  // and authenticators; a Response/Identity begins an exchange.
  RadiusPacket request(std::string_view eapResponse);
  // The last request, to go to another server when its own went silent.
  const RadiusPacket& lastRequest() const noexcept { return lastRequest_; }
  // Whether the exchange is the server's own: it gave a State, which no other server knows.
  bool serverHoldsState() const noexcept { return !state_.empty(); }
  // The server's answer to the last request, checked by the client against the request's
  // authenticator and the server's secret, which also hide the keys of an Accept. Returns the
  // EAP packet to send on to the supplicant, if the server gave one.
  std::string answer(const RadiusPacket& answer, const Macsec::StoredKey& secret,
                     const RadiusAuthenticator& requestAuthenticator);

  EapOutcome outcome() const noexcept { return outcome_; }
  // Why the exchange failed: the server's reject, or an Accept that cannot serve.
  const std::string& failure() const noexcept { return failure_; }
  const RadiusGrant& grant() const noexcept { return grant_; }
  const std::string& identity() const noexcept { return identity_; }

 private:
  void accepted(const RadiusPacket& accept, const Macsec::StoredKey& secret,
                const RadiusAuthenticator& requestAuthenticator);

  RadiusNas nas_;
  std::string identity_;
  std::string state_;
  RadiusPacket lastRequest_;
  EapOutcome outcome_ = EapOutcome::pending;
  std::string failure_;
  RadiusGrant grant_;
};

}  // namespace Dot1x
