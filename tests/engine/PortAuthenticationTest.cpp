// 802.1X in the engine, on virtual time: a supplicant and an authenticator, each an engine with a
// port access entity on a profile whose keys come from EAP, over a wire that loses, repeats and
// reorders frames. The exchange gives both ends the same EAP key, MKA secures the link from it,
// and each way an exchange can fail leaves the port closed with its reason.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "dot1x/PaeSettings.h"
#include "sim/Simulation.h"
#include "tests/dot1x/TestPki.h"
#include "tests/dot1x/TestRadiusServer.h"

namespace Macsec {
namespace {

using Dot1x::PaeRole;
using Dot1x::PaeSettings;
using Dot1x::PaeState;
using Dot1x::TlsContext;
using Dot1x::TlsCredentials;
using Dot1x::TlsVersion;
using Dot1x::Testing::TestPki;

const Lanx::IntfId kEth1("eth1");

// Two engines on one link: S, the supplicant, and A, the authenticator, each with the port of a
// profile whose keys come from EAP.
class PortAuthentication {
 public:
  explicit PortAuthentication(uint32_t seed) : sim_(0.0, seed, Sim::Wire::bytes) {
    for (auto [name, last] : {std::pair{"S", 1}, std::pair{"A", 2}}) {
      Sim::Agent& agent = sim_.agentIs(name);
      Sim::InterfaceConfig config;
      config.runPort = true;
      config.mac = Lanx::EthAddr({2, 0, 0, 0, 0, static_cast<uint8_t>(last)});
      agent.interfaceIs(kEth1, config);
      agent.engine().as([&] { agent.profile(kEth1)->eapIs("campus"); });
    }
    link_ = &sim_.linkIs(supplicant(), kEth1, authenticator(), kEth1);
  }

  Sim::Simulation& sim() { return sim_; }
  Sim::Link& link() { return *link_; }
  Sim::Agent& supplicant() { return sim_.agent("S"); }
  Sim::Agent& authenticator() { return sim_.agent("A"); }

  // The port access entities, the supplicant's with its credentials and the authenticator's with
  // its own.
  void authenticate(const TlsCredentials& supplicantCredentials, const TlsCredentials& authenticatorCredentials,
                    const PaeSettings& base = PaeSettings()) {
    PaeSettings s = base;
    s.role = PaeRole::supplicant;
    s.identity = "host.example";
    s.tls = TestPki::loaded(supplicantCredentials, TlsContext::Side::peer);
    PaeSettings a = base;
    a.role = PaeRole::authenticator;
    a.tls = TestPki::loaded(authenticatorCredentials, TlsContext::Side::server);
    EXPECT_TRUE(supplicant().engine().paeIs(kEth1, s));
    EXPECT_TRUE(authenticator().engine().paeIs(kEth1, a));
  }

  static Zef::Ptr<Dot1x::PaePortStatus> pae(Sim::Agent& agent) { return agent.engine().paeStatus()->port(kEth1); }
  static Dot1x::EapKey key(Sim::Agent& agent) { return agent.engine().eapKeyStatus()->key(kEth1); }
  static bool secured(Sim::Agent& agent) {
    const Zef::Ptr<CpStatus> cp = agent.status()->cpStatus(kEth1);
    return cp && cp->controlledPortEnabled() && (cp->oldSakContext().txInstalled || cp->latestSakContext().txInstalled);
  }

 private:
  Sim::Simulation sim_;
  Sim::Link* link_ = nullptr;
};

class PortAuthenticationVersions : public ::testing::TestWithParam<TlsVersion> {};

TEST_P(PortAuthenticationVersions, BothEndsTakeOneKeyFromTheExchangeAndSecureTheLinkWhateverTheWireDoes) {
  const TestPki pki;
  PortAuthentication world(7);
  // Loss, repeats and reordering, and fragments small enough that every certificate takes several.
  world.link().lossIs(0.2);
  world.link().duplicationIs(0.1);
  world.link().jitterIs(0.05);
  PaeSettings settings;
  settings.fragmentOctets = 300;
  settings.reauthPeriod = 120;
  world.authenticate(pki.client(GetParam()), pki.server(GetParam()), settings);
  world.sim().runFor(60);

  for (Sim::Agent* agent : {&world.supplicant(), &world.authenticator()}) {
    SCOPED_TRACE(agent->name());
    const Zef::Ptr<Dot1x::PaePortStatus> pae = PortAuthentication::pae(*agent);
    ASSERT_TRUE(pae);
    EXPECT_EQ(pae->state(), PaeState::authenticated) << pae->lastFailure();
    EXPECT_EQ(pae->tlsVersion(), GetParam());
    EXPECT_GT(pae->eapReceived(1) + pae->eapReceived(2), 5u);  // requests or responses, many fragments
    EXPECT_TRUE(PortAuthentication::secured(*agent));
  }
  const Dot1x::EapKey s = PortAuthentication::key(world.supplicant());
  const Dot1x::EapKey a = PortAuthentication::key(world.authenticator());
  EXPECT_EQ(s.dot1xType, Dot1x::dot1xTypeSupplicant);
  EXPECT_EQ(a.dot1xType, Dot1x::dot1xTypeAuthenticator);
  EXPECT_TRUE(s.key.sameKeyAs(a.key));
  EXPECT_EQ(s.sessionId, a.sessionId);
  EXPECT_EQ(s.myMac, a.peerMac);
  EXPECT_EQ(s.peerMac, a.myMac);
  EXPECT_NE(std::string(PortAuthentication::pae(world.supplicant())->peerSubject().view()).find("server.example"),
            std::string::npos);
  EXPECT_EQ(PortAuthentication::pae(world.authenticator())->peerIdentity(), Zef::String("host.example"));
  // Both ends derived one CAK: MKA found a peer on it.
  const Cak cak = world.supplicant().status()->intfStatus(kEth1)->key();
  EXPECT_TRUE(cak.sameKeyAs(world.authenticator().status()->intfStatus(kEth1)->key()));

  // The re-authentication period brings a new exchange, and a new key, to both ends.
  world.sim().runFor(180);
  const Dot1x::EapKey next = PortAuthentication::key(world.supplicant());
  EXPECT_NE(next.sessionId, s.sessionId);
  EXPECT_TRUE(next.key.sameKeyAs(PortAuthentication::key(world.authenticator()).key));
  EXPECT_EQ(PortAuthentication::pae(world.authenticator())->successes(), 2u);
}

TEST(PortAuthentication, ReauthenticationsBringNewKeysWhileBothPortsStaySecured) {
  const TestPki pki;
  PortAuthentication world(11);
  PaeSettings settings;
  settings.reauthPeriod = 60;
  world.authenticate(pki.client(), pki.server(), settings);
  world.sim().runFor(10);
  ASSERT_TRUE(PortAuthentication::secured(world.supplicant()));
  ASSERT_TRUE(PortAuthentication::secured(world.authenticator()));
  // From here on, after every frame and every timer, both ports pass traffic protected, and each
  // transmits on a key the other receives on: not a frame is lost to the new keys.
  std::string broken;
  world.sim().observerIs([&] {
    for (auto [from, to] : {std::pair{&world.supplicant(), &world.authenticator()},
                            std::pair{&world.authenticator(), &world.supplicant()}}) {
      const std::string when = " at " + std::to_string(world.sim().now());
      if (!broken.empty()) return;
      if (!PortAuthentication::secured(*from)) broken = from->name() + " not secured" + when;
      const SaStatus tx = from->hw(kEth1)->txSaStatus();
      const SaStatus rx = to->hw(kEth1)->rxSaStatus(tx.an);
      if (broken.empty() && (rx.mi != tx.mi || rx.keyNum != tx.keyNum)) {
        broken = from->name() + " transmits on a key " + to->name() + " does not receive on" + when;
      }
    }
  });
  const Ckn first = world.supplicant().status()->intfStatus(kEth1)->key().ckn;
  world.sim().runFor(130);
  world.sim().observerIs(nullptr);
  EXPECT_EQ(broken, "");
  EXPECT_EQ(PortAuthentication::pae(world.authenticator())->successes(), 3u);
  // The keys of the last exchange run both ends.
  const Cak last = world.supplicant().status()->intfStatus(kEth1)->key();
  EXPECT_NE(last.ckn, first);
  EXPECT_TRUE(last.sameKeyAs(world.authenticator().status()->intfStatus(kEth1)->key()));
}

TEST(PortAuthentication, EachFailureKeepsThePortClosedWithItsReasonOnBothSides) {
  const TestPki pki;
  TlsCredentials untrusting = pki.client();
  untrusting.caFile = pki.file("other-ca.pem");
  const struct {
    const char* name;
    TlsCredentials supplicant;
    TlsCredentials authenticator;
    const char* supplicantReason;
    const char* authenticatorReason;
  } cases[] = {
      {"an authority the supplicant does not trust", untrusting, pki.server(), "the peer's certificate",
       "tlsv1 alert unknown ca"},
      {"an expired certificate", pki.credentials("expired", "server.example"), pki.server(), "certificate expired",
       "certificate has expired"},
      {"a supplicant of another authority", pki.credentials("stranger", "server.example"), pki.server(), "alert",
       "unable to get local issuer certificate"},
      {"a server of another name", pki.credentials("client", "elsewhere.example"), pki.server(), "hostname mismatch",
       "bad certificate"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PortAuthentication world(3);
    world.authenticate(c.supplicant, c.authenticator);
    world.sim().runFor(90);
    for (auto [agent, reason] : {std::pair{&world.supplicant(), c.supplicantReason},
                                 std::pair{&world.authenticator(), c.authenticatorReason}}) {
      SCOPED_TRACE(agent->name());
      const Zef::Ptr<Dot1x::PaePortStatus> pae = PortAuthentication::pae(*agent);
      EXPECT_NE(pae->state(), PaeState::authenticated);
      EXPECT_NE(std::string(pae->lastFailure().view()).find(reason), std::string::npos) << pae->lastFailure();
      EXPECT_GE(pae->failures(pae->lastFailure()), 1u);
      EXPECT_EQ(PortAuthentication::key(*agent), Dot1x::EapKey());
      EXPECT_FALSE(PortAuthentication::secured(*agent));
      EXPECT_TRUE(agent->status()->intfStatus(kEth1)->key().empty());
    }
  }
}

TEST(PortAuthentication, LogoffAndALinkLostMidExchangeTakeTheKeyAwayUntilTheNextExchange) {
  const TestPki pki;
  PortAuthentication world(5);
  world.link().delayIs(0.2);
  world.authenticate(pki.client(), pki.server());
  // The supplicant's link goes down in the middle of the handshake, and comes back.
  world.sim().runFor(0.7);
  EXPECT_EQ(PortAuthentication::pae(world.authenticator())->state(), PaeState::authenticating);
  world.supplicant().engine().linkIs(kEth1, Interface::linkDown);
  EXPECT_EQ(PortAuthentication::pae(world.supplicant())->state(), PaeState::down);
  world.sim().runFor(5);
  world.supplicant().engine().linkIs(kEth1, Interface::linkUp);
  world.sim().runFor(30);
  for (Sim::Agent* agent : {&world.supplicant(), &world.authenticator()}) {
    SCOPED_TRACE(agent->name());
    EXPECT_EQ(PortAuthentication::pae(*agent)->state(), PaeState::authenticated);
    EXPECT_TRUE(PortAuthentication::secured(*agent));
  }

  // A logoff ends the authentication at both ends, and the supplicant's return begins another.
  const Dot1x::EapKey before = PortAuthentication::key(world.supplicant());
  EXPECT_TRUE(world.supplicant().engine().paeLoggedOffIs(kEth1, true));
  world.sim().runFor(1);
  EXPECT_EQ(PortAuthentication::pae(world.supplicant())->state(), PaeState::loggedOff);
  EXPECT_EQ(PortAuthentication::pae(world.authenticator())->state(), PaeState::loggedOff);
  for (Sim::Agent* agent : {&world.supplicant(), &world.authenticator()}) {
    EXPECT_EQ(PortAuthentication::key(*agent), Dot1x::EapKey()) << agent->name();
  }
  world.sim().runFor(60);
  EXPECT_EQ(PortAuthentication::pae(world.authenticator())->state(), PaeState::loggedOff);
  world.supplicant().engine().paeLoggedOffIs(kEth1, false);
  world.sim().runFor(5);
  const Dot1x::EapKey after = PortAuthentication::key(world.supplicant());
  EXPECT_EQ(PortAuthentication::pae(world.supplicant())->state(), PaeState::authenticated);
  EXPECT_NE(after.sessionId, before.sessionId);
  EXPECT_TRUE(after.key.sameKeyAs(PortAuthentication::key(world.authenticator()).key));
}

// The authenticator passes EAP through to two RADIUS servers, over a wire that loses frames: the
// first answers a few requests and then falls silent in the middle of the exchange, which starts
// over on the second; the keys of the second's Accept secure the link, and its Session-Timeout
// brings the next exchange.
TEST(PortAuthentication, PassedThroughToRadiusAPortMovesFromASilentServerToTheNextAndTakesItsKeys) {
  const TestPki pki;
  PortAuthentication world(5);
  world.link().lossIs(0.1);
  const std::string secret = "a shared secret";
  const Macsec::KeyBytes secretBytes(reinterpret_cast<const uint8_t*>(secret.data()), secret.size());
  Dot1x::Testing::TestRadiusServer aaa1(TestPki::loaded(pki.server(), TlsContext::Side::server), secretBytes);
  Dot1x::Testing::TestRadiusServer aaa2(TestPki::loaded(pki.server(), TlsContext::Side::server), secretBytes);
  aaa2.sessionTimeout = 90;
  Engine& engine = world.authenticator().engine();
  // When the silent server was asked, and when the next one first.
  std::vector<double> silentTries;
  double movedAt = 0;
  engine.radiusTransmitterIs([&](const std::string& server, uint32_t channel, std::string_view bytes) {
    if (server == "aaa1" && aaa1.requests >= 3) {
      silentTries.push_back(world.sim().now());
      return;
    }
    if (server == "aaa2" && movedAt == 0) movedAt = world.sim().now();
    const std::string answer = (server == "aaa1" ? aaa1 : aaa2).answer(std::string(bytes));
    world.sim().after(0.02, [&engine, server, channel, answer] { engine.radiusAnswerIs(server, channel, answer); });
  });
  PaeSettings s;
  s.role = PaeRole::supplicant;
  s.identity = "host.example";
  s.tls = TestPki::loaded(pki.client(), TlsContext::Side::peer);
  PaeSettings a;
  a.role = PaeRole::authenticator;
  a.nasIdentifier = "switch-7";
  for (const char* name : {"aaa1", "aaa2"}) {
    Dot1x::RadiusServerSettings server;
    server.name = name;
    server.secret = StoredKey::of(secretBytes);
    server.timeout = 1;
    server.retries = 1;
    a.radius.push_back(server);
  }
  EXPECT_TRUE(world.supplicant().engine().paeIs(kEth1, s));
  EXPECT_TRUE(engine.paeIs(kEth1, a));
  world.sim().runFor(60);

  for (Sim::Agent* agent : {&world.supplicant(), &world.authenticator()}) {
    SCOPED_TRACE(agent->name());
    EXPECT_EQ(PortAuthentication::pae(*agent)->state(), PaeState::authenticated)
        << PortAuthentication::pae(*agent)->lastFailure();
    EXPECT_TRUE(PortAuthentication::secured(*agent));
  }
  EXPECT_TRUE(
      PortAuthentication::key(world.supplicant()).key.sameKeyAs(PortAuthentication::key(world.authenticator()).key));
  const Zef::Ptr<Dot1x::PaePortStatus> pae = PortAuthentication::pae(world.authenticator());
  EXPECT_EQ(pae->radiusServer(), Zef::String("aaa2"));
  EXPECT_EQ(pae->peerIdentity(), Zef::String("host.example"));
  EXPECT_EQ(aaa2.lastNasPortId, "eth1");
  // A try, one more after a second, and the next server after two more, each wait twice the last
  // (and the supplicant's new identity between, a round trip of the link).
  ASSERT_GE(silentTries.size(), 2u);
  EXPECT_NEAR(silentTries[1] - silentTries[0], 1.0, 1e-6);
  EXPECT_NEAR(movedAt - silentTries[1], 2.0, 0.01);
  const Zef::Ptr<Dot1x::RadiusServerStatus> silent = engine.paeStatus()->radiusServer(Zef::String("aaa1"));
  EXPECT_EQ(silent->timeouts(), 1u);
  EXPECT_FALSE(silent->up());
  EXPECT_EQ(engine.paeStatus()->radiusServer(Zef::String("aaa2"))->accepts(), 1u);

  // The second server's Session-Timeout, not the port's hour, brings the next exchange.
  world.sim().runFor(120);
  EXPECT_EQ(pae->successes(), 2u);
  EXPECT_TRUE(PortAuthentication::secured(world.supplicant()));
}

INSTANTIATE_TEST_SUITE_P(Tls, PortAuthenticationVersions, ::testing::Values(TlsVersion::tls12, TlsVersion::tls13),
                         [](const auto& info) { return info.param == TlsVersion::tls12 ? "Tls12" : "Tls13"; });

}  // namespace
}  // namespace Macsec
