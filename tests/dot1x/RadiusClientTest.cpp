// The authenticator's RADIUS client and its relay, against a server made here of the codec and the
// local EAP server (the engine's port authentication test runs whole exchanges through them): an
// Accept without keys and a reject leave the port without, and answers that are not the server's
// to a request outstanding are refused and counted. Many ports share a server's identifiers, and a
// server that stays silent is down for its dead time.

#include "dot1x/RadiusClient.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>

#include "dot1x/RadiusRelay.h"
#include "tests/dot1x/TestPki.h"
#include "tests/dot1x/TestRadiusServer.h"

namespace Dot1x {
namespace {

using Testing::TestPki;
using Testing::TestRadiusServer;

Macsec::KeyBytes text(std::string_view t) {
  return Macsec::KeyBytes(reinterpret_cast<const uint8_t*>(t.data()), t.size());
}

// Request authenticators that differ from one request to the next, as random ones do.
RadiusAuthenticator nextAuthenticator() {
  static uint8_t draws = 0;
  RadiusAuthenticator a{};
  a.fill(++draws);
  return a;
}

const char kSecret[] = "a shared secret";

RadiusServerSettings serverSettings(const std::string& name) {
  RadiusServerSettings settings;
  settings.name = name;
  settings.secret = Macsec::StoredKey::of(text(kSecret));
  return settings;
}

RadiusNas nas() {
  return {"switch-7", 12, "eth7", Lanx::EthAddr({2, 0, 0, 0, 0, 2}), Lanx::EthAddr({2, 0, 0, 0, 0, 1})};
}

// A client whose transport keeps what it sends.
struct Client {
  Zef::Ptr<PaeStatusDir> status = PaeStatusDir::PaeStatusDirIs("paes");
  RadiusClient client{status, nextAuthenticator};
  struct Sent {
    std::string server;
    uint32_t channel;
    std::string bytes;
  };
  std::vector<Sent> sent;
  Client() {
    client.transmitIs([this](const std::string& server, uint32_t channel, std::string_view bytes) {
      sent.push_back({server, channel, std::string(bytes)});
    });
  }
  Zef::Ptr<RadiusServerStatus const> server(const std::string& name) const {
    return status->radiusServer(Zef::String(name));
  }
  uint64_t discarded(const std::string& name, const std::string& reason) const {
    return server(name)->discarded(Zef::String(reason));
  }
};

const Lanx::IntfId kPort("eth7");

std::string identityRequest() { return encodeEap(EapPacket{EapCode::request, 1, EapType::identity, {}}); }

// Runs an exchange of a peer through the client, the relay and the server; returns the peer's
// outcome.
EapOutcome exchange(EapPeer& peer, Client& client, RadiusRelay& relay, TestRadiusServer& server) {
  // The port asks for the identity; the rest passes through.
  std::string toPeer = identityRequest();
  for (int round = 0; round < 100 && peer.outcome() == EapOutcome::pending; ++round) {
    const EapStep step = peer.receive(toPeer);
    if (step.send.empty()) break;
    EXPECT_TRUE(client.client.send(kPort, serverSettings("aaa"), relay.request(step.send), round));
    const std::optional<RadiusDelivery> delivery =
        client.client.answerIs("aaa", client.sent.back().channel, server.answer(client.sent.back().bytes), round);
    if (!delivery) {
      ADD_FAILURE() << "the server's answer was refused";
      break;
    }
    EXPECT_EQ(delivery->port, kPort);
    toPeer = relay.answer(delivery->answer, delivery->secret, delivery->requestAuthenticator);
    if (relay.outcome() != EapOutcome::pending) {
      peer.receive(toPeer);
      break;
    }
  }
  return peer.outcome();
}

TEST(RadiusClient, AnAcceptWithoutKeysARejectAndAnswersNotToTheRequestLeaveThePortWithout) {
  const TestPki pki;
  const struct {
    const char* name;
    bool withKeys;
    bool withKeyName;
    TlsCredentials peer;
    const char* failure;
  } cases[] = {
      {"an Accept without keys", false, true, pki.client(), "gave no keys (MS-MPPE-Recv-Key and -Send-Key)"},
      {"an Accept without a key name", true, false, pki.client(), "gave no session identifier (EAP-Key-Name)"},
      {"a reject", true, true, pki.credentials("expired", "server.example"), "rejected the supplicant"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TestRadiusServer server(TestPki::loaded(pki.server(), TlsContext::Side::server), text(kSecret));
    server.withKeys = c.withKeys;
    server.withKeyName = c.withKeyName;
    Client client;
    RadiusRelay relay(nas());
    EapPeer peer(TestPki::loaded(c.peer, TlsContext::Side::peer), "host.example", 1000);
    exchange(peer, client, relay, server);
    EXPECT_EQ(relay.outcome(), EapOutcome::failure);
    EXPECT_NE(relay.failure().find(c.failure), std::string::npos) << relay.failure();
    EXPECT_EQ(client.server("aaa")->rejects(), c.withKeys && c.withKeyName ? 1u : 0u);
  }

  // Answers that are not the server's to the request outstanding are refused and counted, and
  // leave it outstanding: from the wrong channel, to another identifier, forged without the
  // secret, or cut short.
  TestRadiusServer server(TestPki::loaded(pki.server(), TlsContext::Side::server), text(kSecret));
  Client client;
  RadiusRelay relay(nas());
  EapPeer peer(TestPki::loaded(pki.client(), TlsContext::Side::peer), "host.example", 1000);
  ASSERT_TRUE(client.client.send(kPort, serverSettings("aaa"), relay.request(peer.receive(identityRequest()).send), 0));
  const std::string answer = server.answer(client.sent.back().bytes);
  std::string otherIdentifier = answer;
  otherIdentifier[1] ^= 1;
  std::string forged = answer;
  forged.back() ^= 1;
  EXPECT_FALSE(client.client.answerIs("aaa", 1, answer, 0));
  EXPECT_FALSE(client.client.answerIs("aaa", 0, otherIdentifier, 0));
  EXPECT_EQ(client.discarded("aaa", "answers no request outstanding"), 2u);
  EXPECT_FALSE(client.client.answerIs("aaa", 0, forged, 0));
  EXPECT_FALSE(client.client.answerIs("aaa", 0, answer.substr(0, answer.size() - 3), 0));
  EXPECT_EQ(client.discarded("aaa", radiusRefusalText(RadiusRefusal::badAuthenticator)), 1u);
  EXPECT_EQ(client.discarded("aaa", radiusRefusalText(RadiusRefusal::badLength)), 1u);
  EXPECT_TRUE(client.client.answerIs("aaa", 0, answer, 0.25));
  EXPECT_DOUBLE_EQ(client.server("aaa")->roundTrip(), 0.25);
  // Answered, the request is no longer outstanding: the same answer again is refused.
  EXPECT_FALSE(client.client.answerIs("aaa", 0, answer, 0));
}

TEST(RadiusClient, PortsShareAServersIdentifiersAndASilentServerIsDownForItsDeadTime) {
  Client client;
  RadiusPacket request;
  request.addEapMessage(std::string("\x02\x01\x00\x05\x01", 5));
  // A channel has 256 identifiers: the 257th port outstanding opens a second channel.
  std::set<std::pair<uint32_t, uint8_t>> used;
  for (uint32_t port = 0; port < 257; ++port) {
    ASSERT_TRUE(client.client.send(Lanx::IntfId("eth" + std::to_string(port)), serverSettings("aaa"), request, 0));
    used.insert({client.sent.back().channel, static_cast<uint8_t>(client.sent.back().bytes[1])});
  }
  EXPECT_EQ(used.size(), 257u);
  EXPECT_EQ(client.sent.back().channel, 1u);
  // A port's request sent again goes the same to the octet, on the same channel.
  client.client.resend(Lanx::IntfId("eth3"));
  EXPECT_EQ(client.sent.back().bytes, client.sent[3].bytes);
  EXPECT_EQ(client.server("aaa")->retransmissions(), 1u);

  RadiusServerSettings settings = serverSettings("aaa");
  EXPECT_TRUE(client.client.up("aaa", 100));
  client.client.timedOut(Lanx::IntfId("eth3"), 100);
  EXPECT_FALSE(client.server("aaa")->up());
  EXPECT_EQ(client.server("aaa")->timeouts(), 1u);
  EXPECT_FALSE(client.client.up("aaa", 100 + settings.deadTime - 1));
  EXPECT_TRUE(client.client.up("aaa", 100 + settings.deadTime));
  // The request that timed out is forgotten: a late answer to it finds nothing outstanding.
  RadiusPacket late;
  late.code = RadiusCode::accessChallenge;
  late.identifier = static_cast<uint8_t>(client.sent[3].bytes[1]);
  EXPECT_FALSE(client.client.answerIs("aaa", 0, encodeRadiusAnswer(late, {}, text(kSecret)), 101));
  EXPECT_EQ(client.discarded("aaa", "answers no request outstanding"), 1u);
}

}  // namespace
}  // namespace Dot1x
