#include "dot1x/SupplicantSm.h"

#include "dot1x/PaePort.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Dot1x::SupplicantSm")

namespace Dot1x {

void SupplicantSm::handleInitialized() {
  TRACE(8, ": intf " << intfId());
  startTimerIs(timerWheel());
  authTimerIs(timerWheel());
  status()->roleIs(PaeRole::supplicant);
  // The link is looked at first when the owner has given the transmitter.
  initializedIs(true);
}

void SupplicantSm::handleCleanUp() {
  // A port that authenticates no more keeps no key of it.
  if (initialized()) eapKeyStatus()->keyDel(intfId());
}

bool SupplicantSm::linkUp() const { return ethIntfStatus() && ethIntfStatus()->linkStatus() == Interface::linkUp; }

void SupplicantSm::handleLinkStatus() {
  if (!initialized()) return;
  const bool up = linkUp();
  TRACE(3, ": " << intfId() << " link " << (up ? "up" : "down"));
  if (up && status()->state() == PaeState::down) {
    connect();
  } else if (!up && status()->state() != PaeState::down) {
    disconnect(PaeState::down);
  }
}

void SupplicantSm::handleLoggedOff() {
  if (!initialized() || !linkUp()) return;
  if (loggedOff()) {
    TRACE(1, ": " << intfId() << " logging off");
    send(EapolType::logoff, {});
    disconnect(PaeState::loggedOff);
    return;
  }
  connect();
}

void SupplicantSm::connect() {
  if (loggedOff()) return;
  TRACE(3, ": " << intfId() << " connecting");
  peer_ = std::make_unique<EapPeer>(settings().tls, settings().identity, settings().fragmentOctets);
  startsSentIs(0);
  status()->stateIs(PaeState::connecting);
  sendStart();
}

void SupplicantSm::sendStart() {
  if (startsSent() >= settings().maxStart) {
    failed("no authenticator answered");
    return;
  }
  send(EapolType::start, {});
  startsSentInc(1);
  startTimer()->timeMinIs(Zef::System::currentTime() + settings().startPeriod);
}

void SupplicantSm::handleStartTimer() {
  switch (status()->state()) {
    case PaeState::connecting:
      sendStart();
      return;
    case PaeState::held:
      connect();
      return;
    default:
      return;
  }
}

void SupplicantSm::reauthenticate() {
  if (!initialized() || !linkUp() || loggedOff()) return;
  if (status()->state() == PaeState::held) {
    connect();
    return;
  }
  // The authenticator begins every exchange; an EAPOL-Start asks it to.
  send(EapolType::start, {});
}

void SupplicantSm::frameIs(const EapolFrame& frame) {
  if (!initialized()) return;
  countReceived(*status(), frame);
  if (frame.type != EapolType::eapPacket) {
    countDiscarded(*status(), "not for a supplicant");
    return;
  }
  const PaeState state = status()->state();
  if (state == PaeState::down || state == PaeState::loggedOff || !peer_) {
    countDiscarded(*status(), "not connected");
    return;
  }
  answer(frame);
}

void SupplicantSm::answer(const EapolFrame& frame) {
  // The authenticator leads: a request is answered in every state of a connected port, and the
  // held period holds back only the supplicant's own EAPOL-Starts.
  const EapStep step = peer_->receive(frame.body);
  if (step.discarded) {
    // Nothing of the exchange changed.
    TRACE(5, ": " << intfId() << " discarded: " << step.discarded);
    countDiscarded(*status(), step.discarded);
    return;
  }
  if (!step.send.empty()) send(EapolType::eapPacket, step.send);
  switch (peer_->outcome()) {
    case EapOutcome::success:
      // A success that comes after it was taken as given changes nothing.
      if (status()->state() != PaeState::authenticated || status()->reauthenticating()) {
        authenticatorIs(frame.source);
        succeeded();
      }
      return;
    case EapOutcome::failure:
      failed(peer_->failure());
      return;
    case EapOutcome::pending:
      break;
  }
  if (step.send.empty()) return;
  // An exchange runs: the first of the link, or a new one beside the key of the last.
  authenticatorIs(frame.source);
  startTimer()->timeMinIs(Orb::never);
  authTimer()->timeMinIs(Zef::System::currentTime() + settings().authPeriod);
  if (status()->state() == PaeState::authenticated) {
    status()->reauthenticatingIs(true);
  } else {
    status()->stateIs(PaeState::authenticating);
  }
}

void SupplicantSm::succeeded() {
  const TlsSession& session = peer_->method()->session();
  TRACE(1,
        ": " << intfId() << " authenticated by " << authenticator() << " with " << tlsVersionText(session.version()));
  authTimer()->timeMinIs(Orb::never);
  startTimer()->timeMinIs(Orb::never);
  authenticated(*eapKeyStatus(), *status(), dot1xTypeSupplicant, session, ethIntfStatus()->addr(), authenticator(),
                Zef::System::currentTime(), 0);
}

void SupplicantSm::failed(const std::string& reason) {
  TRACE(1, ": " << intfId() << " authentication failed: " << reason);
  failureIs(*status(), reason, Zef::System::currentTime());
  eapKeyStatus()->keyDel(intfId());
  authTimer()->timeMinIs(Orb::never);
  status()->reauthenticatingIs(false);
  status()->stateIs(PaeState::held);
  startTimer()->timeMinIs(Zef::System::currentTime() + settings().heldPeriod);
}

void SupplicantSm::handleAuthTimer() {
  // The authenticator sends its EAP-Success once and never again. When the method has ended on
  // this side, the server has already proved itself and accepted this side's certificate (its last
  // flight comes after both), so a success that does not come was lost: it is taken as given.
  const EapTlsMethod* method = peer_ ? peer_->method() : nullptr;
  if (method && method->finished() && peer_->outcome() == EapOutcome::pending) {
    TRACE(3, ": " << intfId() << " the method ended and no success came: taken as given");
    succeeded();
    return;
  }
  if (status()->reauthenticating()) {
    // The authenticator went silent in a new exchange: the key it gave last is still the port's,
    // until it says otherwise.
    TRACE(3, ": " << intfId() << " re-authentication abandoned by the authenticator");
    failureIs(*status(), "the authenticator went silent", Zef::System::currentTime());
    status()->reauthenticatingIs(false);
    return;
  }
  if (status()->state() == PaeState::authenticating) failed("the authenticator went silent");
}

void SupplicantSm::disconnect(PaeState state) {
  TRACE(3, ": " << intfId() << " " << paeStateText(state));
  eapKeyStatus()->keyDel(intfId());
  peer_.reset();
  startTimer()->timeMinIs(Orb::never);
  authTimer()->timeMinIs(Orb::never);
  status()->reauthenticatingIs(false);
  status()->stateIs(state);
}

void SupplicantSm::send(EapolType type, std::string_view body) {
  if (!transmit() || !ethIntfStatus()) return;
  countSent(*status(), type, body);
  transmit()(paeFrame(ethIntfStatus()->addr(), type, body));
}

}  // namespace Dot1x
