#pragma once

// The authenticator's side of EAP when a RADIUS server is its EAP server (RFC 3579): each EAP
// response of the supplicant goes to the server in an Access-Request, with the port's NAS
// attributes, the supplicant's identity and the State of the server's last answer; each answer
// gives the EAP packet to send on to the supplicant, and an Access-Accept the keys of the
// exchange. Like the local EAP server it keeps no time: the state machine above sends a request
// again, and moves to another server.

#include <cstdint>
#include <functional>
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
  Lanx::EthAddr own;       // the port's address: Called-Station-Id
  Lanx::EthAddr peer;      // the supplicant's: Calling-Station-Id
  uint32_t framedMtu = 1400;
};

// What an Access-Accept gives the port.
struct RadiusGrant {
  Macsec::StoredKey msk;           // MS-MPPE-Recv-Key, then MS-MPPE-Send-Key
  Macsec::EapSessionId sessionId;  // EAP-Key-Name
  uint32_t sessionTimeout = 0;     // seconds; 0: the server gave none
  bool reauthenticate = false;     // Termination-Action RADIUS-Request: authenticate anew at its end
};

// What one answer of the server led to.
struct RadiusStep {
  std::string eap;  // the EAP packet to send on to the supplicant, if any
  const char* discarded = nullptr;
};

class RadiusRelay {
 public:
  // `random` gives each new request its authenticator.
  RadiusRelay(RadiusNas nas, Macsec::KeyBytes secret, std::function<RadiusAuthenticator()> random,
              uint8_t firstIdentifier);

  // The Access-Request that carries an EAP response of the supplicant; a Response/Identity begins
  // an exchange. Empty if it does not fit in a request.
  std::string request(std::string_view eapResponse);
  // The request outstanding, the same to the octet, to send again; empty once answered.
  const std::string& outstanding() const noexcept { return outstanding_; }
  // An answer of the server to the request outstanding.
  RadiusStep answer(std::string_view bytes);

  EapOutcome outcome() const noexcept { return outcome_; }
  // Why the exchange failed: the server's reject, or an Accept that cannot serve.
  const std::string& failure() const noexcept { return failure_; }
  const RadiusGrant& grant() const noexcept { return grant_; }

 private:
  RadiusStep accepted(const RadiusPacket& accept);

  RadiusNas nas_;
  Macsec::KeyBytes secret_;
  std::function<RadiusAuthenticator()> random_;
  uint8_t nextIdentifier_;
  std::string identity_;
  std::string state_;
  std::string outstanding_;
  RadiusAuthenticator outstandingAuthenticator_{};
  EapOutcome outcome_ = EapOutcome::pending;
  std::string failure_;
  RadiusGrant grant_;
};

}  // namespace Dot1x
