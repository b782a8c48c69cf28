// EAP over EAP-TLS between an authenticator and a peer, packet by packet, on a wire that loses and
// repeats packets: both sides end with the same keys whatever is lost, and every way an exchange
// can fail ends it on both sides with the reason.

#include "dot1x/EapExchange.h"

#include <gtest/gtest.h>

#include <random>

#include "dot1x/Eap.h"
#include "tests/dot1x/TestPki.h"

namespace Dot1x {
namespace {

using Testing::TestPki;

// Small fragments, so that both sides' flights go in several.
constexpr size_t kFragmentOctets = 400;

std::shared_ptr<const TlsContext> loaded(const TlsCredentials& credentials, TlsContext::Side side) {
  std::string error;
  std::shared_ptr<const TlsContext> context = TlsContext::load(credentials, side, error);
  EXPECT_TRUE(context) << error;
  return context;
}

// Runs the exchange on a wire that loses each packet with probability `loss` and delivers each
// with probability `repeat` a second time, until both sides know its outcome. A lost request is
// sent again (as the authenticator's timer would); a lost answer leads to the same. The outcome
// itself is never lost here: its loss is the state machines' to handle. Returns the packets sent.
int run(EapAuthenticator& authenticator, EapPeer& peer, double loss, double repeat, uint32_t seed) {
  std::mt19937 random(seed);
  std::bernoulli_distribution lost(loss), repeated(repeat);
  std::string toPeer = authenticator.begin();
  int packets = 1;
  for (int step = 0; step < 1000; ++step) {
    const bool final = authenticator.outcome() != EapOutcome::pending;
    if (!final && lost(random)) {
      toPeer = authenticator.outstanding();
      ++packets;
      continue;
    }
    EapStep answer = peer.receive(toPeer);
    if (repeated(random)) answer = peer.receive(toPeer);
    if (final) return packets;
    ++packets;
    if (answer.send.empty() || lost(random)) {
      toPeer = authenticator.outstanding();
      ++packets;
      continue;
    }
    EapStep next = authenticator.receive(answer.send);
    // A repeated answer is one the authenticator has moved past.
    if (repeated(random)) {
      EXPECT_STREQ(authenticator.receive(answer.send).discarded, "answers another request");
    }
    toPeer = next.send.empty() ? authenticator.outstanding() : next.send;
    ++packets;
  }
  ADD_FAILURE() << "the exchange does not end";
  return packets;
}

TEST(EapExchange, BothSidesEndWithTheSameKeysWhateverTheWireLoses) {
  const TestPki pki;
  const auto server = loaded(pki.server(), TlsContext::Side::server);
  for (const TlsVersion version : {TlsVersion::tls12, TlsVersion::tls13}) {
    const auto client = loaded(pki.client(version), TlsContext::Side::peer);
    for (const double loss : {0.0, 0.2}) {
      for (const uint32_t seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(testing::Message() << tlsVersionText(version) << ", loss " << loss << ", seed " << seed);
        EapAuthenticator authenticator(server, kFragmentOctets, static_cast<uint8_t>(250 + seed));
        EapPeer peer(client, "host-7.example", kFragmentOctets);
        const int packets = run(authenticator, peer, loss, loss, seed);
        ASSERT_EQ(authenticator.outcome(), EapOutcome::success) << authenticator.failure();
        ASSERT_EQ(peer.outcome(), EapOutcome::success) << peer.failure();
        EXPECT_EQ(authenticator.identity(), "host-7.example");
        const TlsSession& ours = authenticator.method()->session();
        const TlsSession& theirs = peer.method()->session();
        EXPECT_EQ(ours.version(), version);
        EXPECT_TRUE(ours.msk().sameKeyAs(theirs.msk()));
        EXPECT_EQ(ours.sessionId(), theirs.sessionId());
        // The server's certificate alone needs several fragments, each acknowledged.
        if (loss == 0.0) {
          EXPECT_GT(packets, 20);
        }
        // Nothing is outstanding once the outcome is sent, and later packets change nothing.
        EXPECT_TRUE(authenticator.outstanding().empty());
        EXPECT_STREQ(authenticator.receive(encodeEap({EapCode::response, 0, EapType::tls, {}})).discarded,
                     "no request outstanding");
      }
    }
  }
}

TEST(EapExchange, EveryFailureEndsBothSidesWithItsReason) {
  const TestPki pki;
  const auto server = loaded(pki.server(), TlsContext::Side::server);
  const TlsCredentials stranger = pki.credentials("stranger", "server.example");
  TlsCredentials wrongAuthority = pki.client();
  wrongAuthority.caFile = pki.file("other-ca.pem");
  struct Case {
    const char* what;
    TlsCredentials peer;
    const char* authenticatorFailure;
    const char* peerFailure;
  };
  const std::vector<Case> cases = {
      {"a peer of another authority", stranger, "unable to get local issuer certificate", "alert"},
      {"a server the peer does not trust", wrongAuthority, "alert", "the peer's certificate: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EapAuthenticator authenticator(server, kFragmentOctets, 1);
    EapPeer peer(loaded(c.peer, TlsContext::Side::peer), "host", kFragmentOctets);
    run(authenticator, peer, 0.0, 0.0, 1);
    EXPECT_EQ(authenticator.outcome(), EapOutcome::failure);
    EXPECT_EQ(peer.outcome(), EapOutcome::failure);
    EXPECT_NE(authenticator.failure().find(c.authenticatorFailure), std::string::npos) << authenticator.failure();
    EXPECT_NE(peer.failure().find(c.peerFailure), std::string::npos) << peer.failure();
  }
}

TEST(EapExchange, APeerRefusesOtherMethodsAndEarlySuccessesAndTheAuthenticatorTakesOnlyItsAnswer) {
  const TestPki pki;
  EapPeer peer(loaded(pki.client(), TlsContext::Side::peer), "host", kFragmentOctets);
  // An MD5 challenge is refused with a Nak that asks for EAP-TLS.
  const std::string md5 = encodeEap({EapCode::request, 7, EapType::md5Challenge, "\x10"});
  EXPECT_EQ(peer.receive(md5).send, encodeEap({EapCode::response, 7, EapType::nak, "\x0d"}));
  // The same request again is a retransmission; another with the same identifier is a new one, from
  // an authenticator that started over.
  EXPECT_EQ(peer.receive(md5).send, encodeEap({EapCode::response, 7, EapType::nak, "\x0d"}));
  EXPECT_EQ(peer.receive(encodeEap({EapCode::request, 7, EapType::identity, {}})).send,
            encodeEap({EapCode::response, 7, EapType::identity, "host"}));
  // A success before the method has finished proves nothing.
  EXPECT_STREQ(peer.receive(encodeEap({EapCode::success, 8, EapType::identity, {}})).discarded,
               "success before the method");
  EXPECT_EQ(peer.outcome(), EapOutcome::pending);
  EXPECT_STREQ(peer.receive("\x01\x02").discarded, "malformed");

  EapAuthenticator authenticator(loaded(pki.server(), TlsContext::Side::server), kFragmentOctets, 40);
  const std::string identityRequest = authenticator.begin();
  EXPECT_EQ(identityRequest, encodeEap({EapCode::request, 41, EapType::identity, {}}));
  EXPECT_STREQ(authenticator.receive(encodeEap({EapCode::response, 40, EapType::identity, "host"})).discarded,
               "answers another request");
  EXPECT_STREQ(authenticator.receive(identityRequest).discarded, "not a response");
  const EapStep start = authenticator.receive(encodeEap({EapCode::response, 41, EapType::identity, "host"}));
  EXPECT_EQ(start.send, encodeEap({EapCode::request, 42, EapType::tls, "\x20"}));
  // A peer that will not speak EAP-TLS fails the exchange; the failure answers its Nak.
  const EapStep refused = authenticator.receive(encodeEap({EapCode::response, 42, EapType::nak, "\x04"}));
  EXPECT_EQ(refused.send, encodeEap({EapCode::failure, 42, EapType::identity, {}}));
  EXPECT_EQ(authenticator.outcome(), EapOutcome::failure);
  EXPECT_EQ(authenticator.failure(), "the peer does not take EAP-TLS");
}

}  // namespace
}  // namespace Dot1x
