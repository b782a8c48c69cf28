#pragma once

// The two sides of EAP (RFC 3748) over EAP-TLS: the authenticator, which here is its own EAP
// server, and the peer. Each takes the other's packets and says what to send back; neither keeps
// time, so that the state machines above them decide when a request is sent again and when an
// exchange has lasted too long.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "dot1x/Eap.h"
#include "dot1x/EapTlsMethod.h"

namespace Dot1x {

enum class EapOutcome { pending, success, failure };

// What one packet from the other side led to: the packet to send back, if any, and when the
// packet was discarded, why.
struct EapStep {
  std::string send;
  const char* discarded = nullptr;
};

class EapAuthenticator {
 public:
  EapAuthenticator(std::shared_ptr<const TlsContext> server, size_t fragmentOctets, uint8_t firstIdentifier);

  // Starts the exchange: the Request/Identity.
  std::string begin();
  // Takes a packet from the peer. A response to the outstanding request moves the exchange on;
  // anything else is discarded with the reason.
  EapStep receive(std::string_view packet);
  // The request outstanding, to be sent again when the peer does not answer; none once the
  // outcome is known.
  const std::string& outstanding() const noexcept { return outstanding_; }

  EapOutcome outcome() const noexcept { return outcome_; }
  const std::string& failure() const noexcept { return failure_; }
  const std::string& identity() const noexcept { return identity_; }
  const EapTlsMethod* method() const noexcept { return method_.get(); }

 private:
  std::string request(EapType type, std::string_view data);
  std::string finish(EapOutcome outcome, std::string reason = std::string());

  std::shared_ptr<const TlsContext> server_;
  size_t fragmentOctets_;
  uint8_t identifier_;
  std::string outstanding_;
  std::unique_ptr<EapTlsMethod> method_;
  EapOutcome outcome_ = EapOutcome::pending;
  std::string failure_;
  std::string identity_;
};

class EapPeer {
 public:
  EapPeer(std::shared_ptr<const TlsContext> peer, std::string identity, size_t fragmentOctets);

  // Takes a packet from the authenticator: a request is answered (a repeated one with the same
  // answer as before), a success or failure ends the exchange.
  EapStep receive(std::string_view packet);

  EapOutcome outcome() const noexcept { return outcome_; }
  const std::string& failure() const noexcept { return failure_; }
  const EapTlsMethod* method() const noexcept { return method_.get(); }

 private:
  std::string answer(const EapPacket& request);

  std::shared_ptr<const TlsContext> peer_;
  std::string identity_;
  size_t fragmentOctets_;
  std::string lastRequest_;
  std::string lastResponse_;
  std::unique_ptr<EapTlsMethod> method_;
  EapOutcome outcome_ = EapOutcome::pending;
  std::string failure_;
};

}  // namespace Dot1x
