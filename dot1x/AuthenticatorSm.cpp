#include "dot1x/AuthenticatorSm.h"

#include "dot1x/Eap.h"
#include "dot1x/PaePort.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Dot1x::AuthenticatorSm")

namespace Dot1x {

void AuthenticatorSm::handleInitialized() {
  TRACE(8, ": intf " << intfId());
  requestTimerIs(timerWheel());
  reauthTimerIs(timerWheel());
  serverTimerIs(timerWheel());
  status()->roleIs(PaeRole::authenticator);
  // One server for the life of the port, so that each exchange's identifiers follow the last's.
  if (!settings().passThrough()) {
    server_ = std::make_unique<EapAuthenticator>(settings().tls, settings().fragmentOctets, firstIdentifier());
  }
  identifierIs(firstIdentifier());
  // The link is looked at first when the owner has given the transmitter.
  initializedIs(true);
}

void AuthenticatorSm::handleCleanUp() {
  // A port that authenticates no more keeps no key of it, and waits for no server.
  if (initialized()) eapKeyStatus()->keyDel(intfId());
  if (radius()) radius()->cancel(intfId());
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
  if (server_) {
    request(server_->begin());
    return;
  }
  // Passing through, the port asks for the identity itself, and the exchange goes to the first
  // server that is up (the first of all when none is: being down is a guess that may be stale).
  stopPassingThrough();
  serverIndexIs(serverUp(0).value_or(0));
  identifierIs(static_cast<uint8_t>(identifier() + 1));
  passedRequestIs(encodeEap(EapPacket{EapCode::request, identifier(), EapType::identity, {}}));
  request(passedRequest());
}

const std::string& AuthenticatorSm::requestOutstanding() const {
  return server_ ? server_->outstanding() : passedRequest();
}

bool AuthenticatorSm::identityGiven() const { return server_ ? !server_->identity().empty() : relay_ != nullptr; }

std::optional<uint32_t> AuthenticatorSm::serverUp(uint32_t first) const {
  const double now = Zef::System::currentTime();
  for (uint32_t i = first; i < settings().radius.size(); ++i) {
    if (radius() && radius()->up(settings().radius[i].name, now)) return i;
  }
  return std::nullopt;
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
  if (!exchanging() || requestOutstanding().empty()) return;
  if (retransmissions() >= settings().maxRetransmissions) {
    failed("the supplicant went silent");
    return;
  }
  retransmissionsInc(1);
  TRACE(5, ": " << intfId() << " request sent again (" << retransmissions() << ")");
  request(requestOutstanding());
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
      } else if (exchanging() && !identityGiven() && !requestOutstanding().empty()) {
        request(requestOutstanding());
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
  if (!server_) {
    passThrough(frame);
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

void AuthenticatorSm::passThrough(const EapolFrame& frame) {
  // Only the response to the request outstanding goes to the server, and only once: the server
  // keeps no count of the supplicant's repeats.
  if (awaitingServer()) {
    countDiscarded(*status(), "the RADIUS server has not answered yet");
    return;
  }
  EapPacket response;
  EapPacket outstanding;
  if (const EapRefusal refusal = decodeEap(frame.body, response); refusal != EapRefusal::none) {
    countDiscarded(*status(), eapRefusalText(refusal));
    return;
  }
  if (response.code != EapCode::response || decodeEap(passedRequest(), outstanding) != EapRefusal::none ||
      response.identifier != outstanding.identifier) {
    countDiscarded(*status(), "answers no request outstanding");
    return;
  }
  supplicantIs(frame.source);
  requestTimer()->timeMinIs(Orb::never);
  if (!relay_) {
    const RadiusNas nas{settings().nasIdentifier, ethIntfStatus()->portId(), intfId().stringValue(),
                        ethIntfStatus()->addr(), frame.source};
    relay_ = std::make_unique<RadiusRelay>(nas);
  }
  serverTriesIs(0);
  forward(relay_->request(frame.body));
}

void AuthenticatorSm::forward(const RadiusPacket& packet) {
  const RadiusServerSettings& server = settings().radius[serverIndex()];
  const double now = Zef::System::currentTime();
  if (!radius() || !radius()->send(intfId(), server, packet, now)) {
    failed("the response does not fit a RADIUS request");
    return;
  }
  awaitingServerIs(true);
  serverTimer()->timeMinIs(now + server.timeout);
}

void AuthenticatorSm::handleServerTimer() {
  if (!awaitingServer()) return;
  const RadiusServerSettings& server = settings().radius[serverIndex()];
  const double now = Zef::System::currentTime();
  // A request over UDP may be lost, and goes again, each time waiting twice as long as the last, so
  // that a server slow under load is not asked more the slower it gets; over TLS a request cannot
  // be lost, and is not sent again.
  if (server.transport == RadiusTransport::udp && serverTries() < server.retries) {
    serverTriesInc(1);
    TRACE(5, ": " << intfId() << " request to " << server.name << " sent again (" << serverTries() << ")");
    radius()->resend(intfId());
    serverTimer()->timeMinIs(now + server.timeout * double(1u << serverTries()));
    return;
  }
  radius()->timedOut(intfId(), now);
  awaitingServerIs(false);
  const std::optional<uint32_t> next = serverUp(serverIndex() + 1);
  if (!next) {
    failed("no RADIUS server answered");
    return;
  }
  TRACE(1, ": " << intfId() << " " << server.name << " is silent: on to " << settings().radius[*next].name);
  if (relay_->serverHoldsState()) {
    // The exchange is the silent server's own: it starts over, on the next (even when a dead time
    // of 0 has the silent one up again).
    begin();
    serverIndexIs(*next);
    return;
  }
  serverIndexIs(*next);
  serverTriesIs(0);
  forward(relay_->lastRequest());
}

void AuthenticatorSm::radiusAnswerIs(const RadiusDelivery& delivery) {
  if (!awaitingServer() || !relay_) return;
  awaitingServerIs(false);
  serverTimer()->timeMinIs(Orb::never);
  status()->radiusServerIs(Zef::String(settings().radius[serverIndex()].name));
  const std::string eap = relay_->answer(delivery.answer, delivery.secret, delivery.requestAuthenticator);
  if (!serverAnswered(eap)) return;
  retransmissionsIs(0);
  passedRequestIs(eap);
  request(eap);
}

bool AuthenticatorSm::serverAnswered(const std::string& eap) {
  // The server's EAP goes on to the supplicant; an outcome without its own EAP packet is told
  // with one the port makes.
  const EapOutcome outcome = relay_->outcome();
  if (outcome == EapOutcome::pending) {
    if (!eap.empty()) return true;
    failed("the RADIUS server sent no EAP request");
    return false;
  }
  EapPacket outstanding;
  const uint8_t answered = decodeEap(passedRequest(), outstanding) == EapRefusal::none ? outstanding.identifier : 0;
  const EapCode code = outcome == EapOutcome::success ? EapCode::success : EapCode::failure;
  send(EapolType::eapPacket, eap.empty() ? encodeEap(EapPacket{code, answered, EapType::identity, {}}) : eap);
  passedRequestIs(std::string());
  if (outcome == EapOutcome::success) {
    granted();
  } else {
    failed(std::string(relay_->failure()));
  }
  return false;
}

void AuthenticatorSm::granted() {
  const RadiusGrant& grant = relay_->grant();
  TRACE(1, ": " << intfId() << " authenticated " << supplicant() << " by " << status()->radiusServer());
  requestTimer()->timeMinIs(Orb::never);
  const double now = Zef::System::currentTime();
  // The server's session timeout, where it gives one, is the port's re-authentication period.
  const uint32_t period = grant.sessionTimeout > 0 ? grant.sessionTimeout : settings().reauthPeriod;
  const double next = period > 0 ? now + period : 0.0;
  status()->peerIdentityIs(Zef::String(relay_->identity()));
  status()->peerSubjectIs(Zef::String());
  authenticated(*eapKeyStatus(), *status(),
                EapKey{dot1xTypeAuthenticator, grant.msk, grant.sessionId, ethIntfStatus()->addr(), supplicant()}, now,
                next);
  if (next > 0) reauthTimer()->timeMinIs(next);
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
  stopPassingThrough();
  eapKeyStatus()->keyDel(intfId());
  reauthTimer()->timeMinIs(Orb::never);
  status()->reauthenticatingIs(false);
  status()->nextReauthAtIs(0);
  status()->stateIs(PaeState::held);
  requestTimer()->timeMinIs(Zef::System::currentTime() + settings().quietPeriod);
}

void AuthenticatorSm::disconnect(PaeState state) {
  TRACE(3, ": " << intfId() << " " << paeStateText(state));
  stopPassingThrough();
  eapKeyStatus()->keyDel(intfId());
  requestTimer()->timeMinIs(Orb::never);
  reauthTimer()->timeMinIs(Orb::never);
  supplicantIs(Lanx::EthAddr());
  status()->reauthenticatingIs(false);
  status()->nextReauthAtIs(0);
  status()->stateIs(state);
}

void AuthenticatorSm::stopPassingThrough() {
  if (server_) return;
  if (radius()) radius()->cancel(intfId());
  relay_.reset();
  passedRequestIs(std::string());
  awaitingServerIs(false);
  serverTimer()->timeMinIs(Orb::never);
}

void AuthenticatorSm::send(EapolType type, std::string_view body) {
  if (!transmit() || !ethIntfStatus()) return;
  countSent(*status(), type, body);
  transmit()(paeFrame(ethIntfStatus()->addr(), type, body));
}

}  // namespace Dot1x
