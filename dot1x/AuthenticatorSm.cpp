#include "dot1x/AuthenticatorSm.h"

#include "dot1x/PaePort.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Dot1x::AuthenticatorSm")

namespace Dot1x {

void AuthenticatorSm::handleInitialized() {
  TRACE(8, ": intf " << intfId());
  requestTimerIs(timerWheel());
  reauthTimerIs(timerWheel());
  status()->roleIs(PaeRole::authenticator);
  // One server for the life of the port, so that each exchange's identifiers follow the last's.
  server_ = std::make_unique<EapAuthenticator>(settings().tls, settings().fragmentOctets, firstIdentifier());
  // The link is looked at first when the owner has given the transmitter.
  initializedIs(true);
}

void AuthenticatorSm::handleCleanUp() {
  // A port that authenticates no more keeps no key of it.
  if (initialized()) eapKeyStatus()->keyDel(intfId());
}

bool AuthenticatorSm::linkUp() const { return ethIntfStatus() && ethIntfStatus()->linkStatus() == Interface::linkUp; }

void AuthenticatorSm::handleLinkStatus() {
  if (!initialized()) return;
  const bool up = linkUp();
  TRACE(3, ": " << intfId() << " link " << (up ? "up" : "down"));
  if (up && status()->state() == PaeState::down) {
    begin();
  } else if (!up && status()->state() != PaeState::down) {
    disconnect(PaeState::down);
  }
}

void AuthenticatorSm::begin() {
  // A new exchange: the port's first, or one beside the key of the last.
  TRACE(3, ": " << intfId() << " asking for the identity");
  if (status()->state() == PaeState::authenticated) {
    status()->reauthenticatingIs(true);
  } else {
    status()->stateIs(PaeState::authenticating);
  }
  reauthTimer()->timeMinIs(Orb::never);
  retransmissionsIs(0);
  request(server_->begin());
}

void AuthenticatorSm::request(const std::string& packet) {
  send(EapolType::eapPacket, packet);
  requestTimer()->timeMinIs(Zef::System::currentTime() + settings().retransmitPeriod);
}

void AuthenticatorSm::handleRequestTimer() {
  if (status()->state() == PaeState::held) {
    // The quiet period is over: the port is asked again.
    begin();
    return;
  }
  if (!exchanging() || server_->outstanding().empty()) return;
  if (retransmissions() >= settings().maxRetransmissions) {
    failed("the supplicant went silent");
    return;
  }
  retransmissionsInc(1);
  TRACE(5, ": " << intfId() << " request sent again (" << retransmissions() << ")");
  request(server_->outstanding());
}

void AuthenticatorSm::handleReauthTimer() {
  if (status()->state() == PaeState::authenticated && !status()->reauthenticating()) begin();
}

void AuthenticatorSm::reauthenticate() {
  if (!initialized() || status()->state() == PaeState::down || status()->state() == PaeState::loggedOff) return;
  begin();
}

void AuthenticatorSm::frameIs(const EapolFrame& frame) {
  if (!initialized()) return;
  countReceived(*status(), frame);
  const PaeState state = status()->state();
  if (state == PaeState::down) {
    countDiscarded(*status(), "not connected");
    return;
  }
  switch (frame.type) {
    case EapolType::start:
      // A supplicant that asks is asked for its identity, unless in the quiet period. While the
      // identity request is outstanding it goes again; later in an exchange, the supplicant
      // started over, and so does the exchange.
      if (state == PaeState::held) {
        countDiscarded(*status(), "quiet after a failure");
      } else if (exchanging() && server_->identity().empty() && !server_->outstanding().empty()) {
        request(server_->outstanding());
      } else {
        begin();
      }
      return;
    case EapolType::logoff:
      TRACE(1, ": " << intfId() << " the supplicant logged off");
      disconnect(PaeState::loggedOff);
      return;
    case EapolType::eapPacket:
      respond(frame);
      return;
    default:
      countDiscarded(*status(), "not for an authenticator");
      return;
  }
}

bool AuthenticatorSm::exchanging() const {
  return status()->state() == PaeState::authenticating || status()->reauthenticating();
}

void AuthenticatorSm::respond(const EapolFrame& frame) {
  if (!exchanging()) {
    countDiscarded(*status(), "no exchange");
    return;
  }
  const EapStep step = server_->receive(frame.body);
  if (step.discarded) {
    TRACE(5, ": " << intfId() << " discarded: " << step.discarded);
    countDiscarded(*status(), step.discarded);
    return;
  }
  supplicantIs(frame.source);
  switch (server_->outcome()) {
    case EapOutcome::success:
      if (!step.send.empty()) send(EapolType::eapPacket, step.send);
      succeeded();
      return;
    case EapOutcome::failure:
      if (!step.send.empty()) send(EapolType::eapPacket, step.send);
      failed(server_->failure());
      return;
    case EapOutcome::pending:
      break;
  }
  retransmissionsIs(0);
  if (!step.send.empty()) request(step.send);
}

void AuthenticatorSm::succeeded() {
  const TlsSession& session = server_->method()->session();
  TRACE(1, ": " << intfId() << " authenticated " << supplicant() << " with " << tlsVersionText(session.version()));
  requestTimer()->timeMinIs(Orb::never);
  const double now = Zef::System::currentTime();
  const double next = settings().reauthPeriod > 0 ? now + settings().reauthPeriod : 0.0;
  status()->peerIdentityIs(Zef::String(server_->identity()));
  authenticated(*eapKeyStatus(), *status(), dot1xTypeAuthenticator, session, ethIntfStatus()->addr(), supplicant(), now,
                next);
  if (next > 0) reauthTimer()->timeMinIs(next);
}

void AuthenticatorSm::failed(const std::string& reason) {
  TRACE(1, ": " << intfId() << " authentication failed: " << reason);
  failureIs(*status(), reason, Zef::System::currentTime());
  eapKeyStatus()->keyDel(intfId());
  reauthTimer()->timeMinIs(Orb::never);
  status()->reauthenticatingIs(false);
  status()->nextReauthAtIs(0);
  status()->stateIs(PaeState::held);
  requestTimer()->timeMinIs(Zef::System::currentTime() + settings().quietPeriod);
}

void AuthenticatorSm::disconnect(PaeState state) {
  TRACE(3, ": " << intfId() << " " << paeStateText(state));
  eapKeyStatus()->keyDel(intfId());
  requestTimer()->timeMinIs(Orb::never);
  reauthTimer()->timeMinIs(Orb::never);
  supplicantIs(Lanx::EthAddr());
  status()->reauthenticatingIs(false);
  status()->nextReauthAtIs(0);
  status()->stateIs(state);
}

void AuthenticatorSm::send(EapolType type, std::string_view body) {
  if (!transmit() || !ethIntfStatus()) return;
  countSent(*status(), type, body);
  transmit()(paeFrame(ethIntfStatus()->addr(), type, body));
}

}  // namespace Dot1x
