// EAP over EAP-TLS between an authenticator and a peer, packet by packet: what each side takes and
// what it refuses. Whole exchanges, over a wire that loses, repeats and reorders, and the ways they
// fail, are the port access entities' scenarios (tests/engine/PortAuthenticationTest.cpp).

#include "dot1x/EapExchange.h"

#include <gtest/gtest.h>

#include "dot1x/Eap.h"
#include "tests/dot1x/TestPki.h"

namespace Dot1x {
namespace {

using Testing::TestPki;

// Small fragments, so that both sides' flights go in several.
constexpr size_t kFragmentOctets = 400;

TEST(EapExchange, APeerRefusesOtherMethodsAndEarlySuccessesAndTheAuthenticatorTakesOnlyItsAnswer) {
  const TestPki pki;
  EapPeer peer(TestPki::loaded(pki.client(), TlsContext::Side::peer), "host", kFragmentOctets);
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

  EapAuthenticator authenticator(TestPki::loaded(pki.server(), TlsContext::Side::server), kFragmentOctets, 40);
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
