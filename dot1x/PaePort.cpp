#include "dot1x/PaePort.h"

#include "dot1x/Eap.h"
#include "model/LogMessages.h"
#include "model/PaeAddress.h"

namespace Dot1x {

std::string paeFrame(const Lanx::EthAddr& source, EapolType type, std::string_view body) {
  return encodeEapol(EapolFrame{kPaeGroupAddress, source, kEapolVersion, type, body});
}

namespace {

// The code of an EAP packet, if the body holds one's header.
bool eapCodeOf(std::string_view body, uint8_t& code) {
  if (body.empty()) return false;
  code = static_cast<uint8_t>(body[0]);
  return true;
}

}  // namespace

void countReceived(PaePortStatus& status, const EapolFrame& frame) {
  const auto type = static_cast<uint8_t>(frame.type);
  status.eapolReceivedIs(type, status.eapolReceived(type) + 1);
  uint8_t code = 0;
  if (frame.type == EapolType::eapPacket && eapCodeOf(frame.body, code)) {
    status.eapReceivedIs(code, status.eapReceived(code) + 1);
  }
}

void countSent(PaePortStatus& status, EapolType type, std::string_view body) {
  const auto number = static_cast<uint8_t>(type);
  status.eapolSentIs(number, status.eapolSent(number) + 1);
  uint8_t code = 0;
  if (type == EapolType::eapPacket && eapCodeOf(body, code)) status.eapSentIs(code, status.eapSent(code) + 1);
}

void countDiscarded(PaePortStatus& status, const char* reason) {
  const Zef::String key(reason);
  status.discardedIs(key, status.discarded(key) + 1);
}

void authenticated(EapKeyStatus& keys, PaePortStatus& status, Dot1xType side, const TlsSession& session,
                   const Lanx::EthAddr& myMac, const Lanx::EthAddr& peerMac, double now, double nextReauthAt) {
  status.peerSubjectIs(Zef::String(session.peerSubject()));
  status.tlsVersionIs(session.version());
  authenticated(keys, status, EapKey{side, session.msk(), session.sessionId(), myMac, peerMac}, now, nextReauthAt);
}

void authenticated(EapKeyStatus& keys, PaePortStatus& status, const EapKey& key, double now, double nextReauthAt) {
  // The status first: whoever reacts to the key finds it authenticated.
  status.authenticatedAtIs(now);
  status.nextReauthAtIs(nextReauthAt);
  status.reauthenticatingIs(false);
  status.stateIs(PaeState::authenticated);
  status.successesInc();
  keys.keyIs(status.intfId(), key);
}

void failureIs(PaePortStatus& status, const std::string& reason, double now) {
  Zef::log(Macsec::DOT1X_AUTH_FAILED, status.intfId(), reason);
  const Zef::String key(reason);
  status.lastFailureIs(key);
  status.lastFailureAtIs(now);
  status.failuresIs(key, status.failures(key) + 1);
}

}  // namespace Dot1x
