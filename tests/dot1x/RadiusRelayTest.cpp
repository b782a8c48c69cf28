// The authenticator's relay to a RADIUS server, against a server made here of the codec and the
// local EAP server: a whole EAP-TLS exchange passes through it, the keys the server hides in its
// Accept are the peer's own, and an Accept without keys, a reject, and answers that are not the
// server's to the request outstanding leave the port without keys.

#include "dot1x/RadiusRelay.h"

#include <gtest/gtest.h>

#include <optional>

#include "tests/dot1x/TestPki.h"

namespace Dot1x {
namespace {

using Testing::TestPki;

Macsec::KeyBytes text(std::string_view t) {
  return Macsec::KeyBytes(reinterpret_cast<const uint8_t*>(t.data()), t.size());
}

// A RADIUS server around the local EAP server: each request's EAP goes to it, and its answer
// comes back as a Challenge, or as an Accept with the keys of the exchange, or a Reject.
class TestServer {
 public:
  TestServer(std::shared_ptr<const TlsContext> tls, Macsec::KeyBytes secret)
      : eap_(std::move(tls), 1000, 90), secret_(std::move(secret)) {}

  // Leaves the keys or the key name out of its Accept.
  bool withKeys = true;
  bool withKeyName = true;
  std::string lastUserName;

  // The identity request, which the port sends itself and the server's exchange goes on from.
  std::string begin() { return eap_.begin(); }

  std::string answer(const std::string& bytes) {
    RadiusPacket request;
    EXPECT_EQ(decodeRadius(bytes, request), RadiusRefusal::none);
    lastUserName = *request.attribute(RadiusType::userName);
    const std::string out = eap_.receive(request.eapMessage()).send;
    RadiusPacket answer;
    answer.identifier = request.identifier;
    answer.addEapMessage(out);
    switch (eap_.outcome()) {
      case EapOutcome::pending:
        answer.code = RadiusCode::accessChallenge;
        answer.add(RadiusType::state, "round " + std::to_string(++rounds_));
        break;
      case EapOutcome::failure:
        answer.code = RadiusCode::accessReject;
        break;
      case EapOutcome::success: {
        answer.code = RadiusCode::accessAccept;
        const TlsSession& session = eap_.method()->session();
        session.msk().withClear([&](const Macsec::KeyBytes& msk) {
          if (!withKeys) return 0;
          for (const auto& [type, offset] : {std::pair{kMsMppeRecvKey, 0}, std::pair{kMsMppeSendKey, 32}}) {
            const std::string hidden =
                hideMppeKey(Macsec::KeyBytes(msk.data() + offset, 32), 0x1234, secret_, request.authenticator);
            answer.add(RadiusType::vendorSpecific, std::string("\x00\x00\x01\x37", 4) + static_cast<char>(type) +
                                                       static_cast<char>(hidden.size() + 2) + hidden);
          }
          return 0;
        });
        if (withKeyName) {
          answer.add(RadiusType::eapKeyName, std::string(reinterpret_cast<const char*>(session.sessionId().data()),
                                                         session.sessionId().size()));
        }
        answer.addInteger(RadiusType::sessionTimeout, 3600);
        answer.addInteger(RadiusType::terminationAction, 1);  // RADIUS-Request
        break;
      }
    }
    return encodeRadiusAnswer(answer, request.authenticator, secret_);
  }

 private:
  EapAuthenticator eap_;
  Macsec::KeyBytes secret_;
  int rounds_ = 0;
};

// Runs an exchange of a peer through the relay and the server; returns the peer's outcome.
EapOutcome exchange(EapPeer& peer, RadiusRelay& relay, TestServer& server) {
  // The port asks for the identity; the rest passes through.
  std::string toPeer = server.begin();
  for (int round = 0; round < 100 && peer.outcome() == EapOutcome::pending; ++round) {
    const EapStep step = peer.receive(toPeer);
    if (step.send.empty()) break;
    const RadiusStep answer = relay.answer(server.answer(relay.request(step.send)));
    EXPECT_EQ(answer.discarded, nullptr) << answer.discarded;
    toPeer = answer.eap;
    if (relay.outcome() != EapOutcome::pending) {
      peer.receive(toPeer);
      break;
    }
  }
  return peer.outcome();
}

// Request authenticators that differ from one request to the next, as random ones do.
std::function<RadiusAuthenticator()> nextAuthenticator = [draws = uint8_t{0}]() mutable {
  RadiusAuthenticator a{};
  a.fill(++draws);
  return a;
};

RadiusNas nas() { return {"switch-7", 12, Lanx::EthAddr({2, 0, 0, 0, 0, 2}), Lanx::EthAddr({2, 0, 0, 0, 0, 1})}; }

TEST(RadiusRelay, AnExchangeThroughTheServerGivesThePortThePeersKeys) {
  const TestPki pki;
  for (const TlsVersion version : {TlsVersion::tls12, TlsVersion::tls13}) {
    SCOPED_TRACE(tlsVersionText(version));
    TestServer server(TestPki::loaded(pki.server(), TlsContext::Side::server), text("a shared secret"));
    RadiusRelay relay(nas(), text("a shared secret"), nextAuthenticator, 200);
    EapPeer peer(TestPki::loaded(pki.client(version), TlsContext::Side::peer), "host.example", 1000);
    ASSERT_EQ(exchange(peer, relay, server), EapOutcome::success) << peer.failure() << relay.failure();
    EXPECT_EQ(relay.outcome(), EapOutcome::success);
    EXPECT_EQ(server.lastUserName, "host.example");
    const TlsSession& session = peer.method()->session();
    EXPECT_EQ(session.version(), version);
    EXPECT_TRUE(relay.grant().msk.sameKeyAs(session.msk()));
    EXPECT_EQ(relay.grant().sessionId, session.sessionId());
    EXPECT_EQ(relay.grant().sessionTimeout, 3600u);
    EXPECT_TRUE(relay.grant().reauthenticate);
    EXPECT_TRUE(relay.outstanding().empty());
  }
}

TEST(RadiusRelay, AnAcceptWithoutKeysARejectAndAnswersToOtherRequestsLeaveThePortWithout) {
  const TestPki pki;
  {
    TestServer server(TestPki::loaded(pki.server(), TlsContext::Side::server), text("a shared secret"));
    server.withKeys = false;
    RadiusRelay relay(nas(), text("a shared secret"), nextAuthenticator, 1);
    EapPeer peer(TestPki::loaded(pki.client(), TlsContext::Side::peer), "host.example", 1000);
    exchange(peer, relay, server);
    EXPECT_EQ(relay.outcome(), EapOutcome::failure);
    EXPECT_NE(relay.failure().find("gave no keys"), std::string::npos) << relay.failure();
  }
  {
    TestServer server(TestPki::loaded(pki.server(), TlsContext::Side::server), text("a shared secret"));
    server.withKeyName = false;
    RadiusRelay relay(nas(), text("a shared secret"), nextAuthenticator, 1);
    EapPeer peer(TestPki::loaded(pki.client(), TlsContext::Side::peer), "host.example", 1000);
    exchange(peer, relay, server);
    EXPECT_NE(relay.failure().find("EAP-Key-Name"), std::string::npos) << relay.failure();
  }
  {
    TestServer server(TestPki::loaded(pki.server(), TlsContext::Side::server), text("a shared secret"));
    RadiusRelay relay(nas(), text("a shared secret"), nextAuthenticator, 1);
    EapPeer peer(TestPki::loaded(pki.credentials("expired", "server.example"), TlsContext::Side::peer), "host.example",
                 1000);
    EXPECT_EQ(exchange(peer, relay, server), EapOutcome::failure);
    EXPECT_EQ(relay.outcome(), EapOutcome::failure);
    EXPECT_EQ(relay.failure(), "the server rejected the supplicant");
  }

  // Answers that are not the server's to the request outstanding change nothing.
  TestServer server(TestPki::loaded(pki.server(), TlsContext::Side::server), text("a shared secret"));
  RadiusRelay relay(nas(), text("a shared secret"), nextAuthenticator, 1);
  EXPECT_STREQ(relay.answer("").discarded, "no request outstanding");
  EapPeer peer(TestPki::loaded(pki.client(), TlsContext::Side::peer), "host.example", 1000);
  const std::string identity = peer.receive(server.begin()).send;
  const std::string request = relay.request(identity);
  const std::string answer = server.answer(request);
  std::string otherIdentifier = answer;
  otherIdentifier[1] ^= 1;
  EXPECT_STREQ(relay.answer(otherIdentifier).discarded, "answers another request");
  EXPECT_EQ(relay.outstanding(), request);  // still outstanding, to send again
  EXPECT_EQ(relay.answer(answer).discarded, nullptr);
  EXPECT_TRUE(relay.outstanding().empty());
}

}  // namespace
}  // namespace Dot1x
