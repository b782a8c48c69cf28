// Ports on the harness: actors made from configured keys, the principal actor, key changes on a
// running link, the fallback key, static SAKs and unprotected traffic.

#include <gtest/gtest.h>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kPrimary{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};
const Sim::Key kOther{"0202020202020202", "00112233445566778899aabbccddeeff"};
const Sim::Key kFallback{"0f0f0f0f0f0f0f0f", "8f1c5cb1c8ed2e5f047906e0473aad4d"};

class Port : public Scenario {
 protected:
  // Two switches whose interfaces run a port state machine, with no key yet (a is eth1, b eth2).
  void twoSwitches() { configuredPairIs(a, b, Sim::Key{}); }

  // The same with each interface's status written directly, below the configuration: for what
  // no configuration gives, such as a port without key material.
  void twoSwitchesBelowConfiguration() {
    const Lanx::IntfId& intfA = intf(a);
    sim.linkIs(a, intfA, b, intf(b));
    for (auto [agent, last] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
      InterfaceSettings settings;
      settings.mac = mac(static_cast<uint8_t>(last));
      agent->engine().interfaceIs(intf(*agent), settings);
    }
  }

  Zef::Ptr<MkaPortSm> port(Sim::Agent& agent) { return agent.port(intf(agent)); }
  Zef::Ptr<MkaPortStatus> portStatus(Sim::Agent& agent) { return agent.status()->portStatus(intf(agent)); }
  Zef::Ptr<MkaActorStatus> actor(Sim::Agent& agent, const Sim::Key& key) {
    return portStatus(agent)->actorStatus(key.name());
  }
  Zef::Ptr<IntfStatus> intfStatus(Sim::Agent& agent) { return agent.status()->intfStatus(intf(agent)); }
  int principals(Sim::Agent& agent) {
    int count = 0;
    for (auto it = portStatus(agent)->actorStatusIter(); it; ++it) count += it->principal() ? 1 : 0;
    return count;
  }
  // The key server's key (a is the key server: lower address) runs on both ports.
  bool running(const Sim::Key& key) {
    const Zef::Ptr<MkaActorStatus> server = actor(a, key);
    return server && securedOn({&a, &b}, server->distSak());
  }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
};

class KeyChange : public Port, public ::testing::WithParamInterface<bool> {};

TEST_P(KeyChange, ANewPrimaryKeyTakesOverWithoutDroppingTraffic) {
  twoSwitches();
  for (Sim::Agent* agent : {&a, &b}) {
    agent->hardwareLatencyIs(0.05);
    agent->profile(intf(*agent))->keyRetireIs(GetParam());
    agent->keyIs(intf(*agent), kPrimary);
  }
  sim.runFor(30);
  ASSERT_TRUE(running(kPrimary));
  guard({&a, &b});

  // The operator changes the key on both switches, one after the other.
  a.keyIs(intf(a), kOther);
  sim.runFor(0.5);
  b.keyIs(intf(b), kOther);
  double* newKey = firstTime([&] { return actor(a, kOther) && !actor(a, kOther)->distSak().empty(); });
  double* oldGone = firstTime([&] { return !actor(a, kPrimary) && !actor(b, kPrimary); });
  sim.runFor(40);
  ASSERT_GT(*newKey, 0);
  ASSERT_GT(*oldGone, 0);
  EXPECT_TRUE(running(kOther));
  if (GetParam()) {
    // Retiring keys: the old actors go as soon as the key changes.
    EXPECT_LT(*oldGone, *newKey);
  } else {
    // The old actor carried the session until a new key was distributed, and went one deletion
    // period after that.
    EXPECT_GT(*oldGone, *newKey);
    EXPECT_LE(*oldGone - *newKey, 8.0 + 0.1);
  }
  EXPECT_EQ(port(a)->principalActorCkn(), kOther.name());
  EXPECT_EQ(port(b)->principalActorCkn(), kOther.name());
  EXPECT_EQ(principals(a), 1);
  EXPECT_EQ(principals(b), 1);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutKeyRetire, KeyChange, ::testing::Bool());

TEST_F(Port, AFallbackKeyRunsWhenThePrimaryKeysDoNotMatchAndYieldsToOnePrincipalActorWhenTheyDo) {
  twoSwitches();
  // On a fresh port the fallback key is taken at once.
  a.keyIs(intf(a), kPrimary);
  b.keyIs(intf(b), kOther);
  a.defaultKeyIs(intf(a), kFallback);
  b.defaultKeyIs(intf(b), kFallback);
  ASSERT_TRUE(heldWithin(30, [&] { return running(kFallback); }));
  EXPECT_EQ(port(a)->principalActorCkn(), kFallback.name());
  EXPECT_EQ(port(b)->principalActorCkn(), kFallback.name());
  EXPECT_EQ(logCount("MKA_FALLBACK_KEY_IN_USE"), 2);
  EXPECT_EQ(logCount("MKA_KEY_IN_USE"), 0);

  // Fixing the primary key moves both ports back to it.
  b.keyIs(intf(b), kPrimary);
  ASSERT_TRUE(heldWithin(30, [&] { return running(kPrimary); }));
  for (Sim::Agent* agent : {&a, &b}) {
    EXPECT_EQ(port(*agent)->principalActorCkn(), kPrimary.name());
    EXPECT_EQ(principals(*agent), 1);
  }
  EXPECT_EQ(logCount("MKA_KEY_IN_USE"), 2);
  // Each new key moved the next association number on.
  EXPECT_EQ(portStatus(a)->anOfNextKey(), AssociationNumber((actor(a, kPrimary)->distSak().an + 1) % 4));

  // Configuring the same key again keeps the actor and says nothing.
  const int created = logCount("MKA_CA_CREATED");
  a.keyIs(intf(a), kPrimary);
  EXPECT_EQ(logCount("MKA_CA_CREATED"), created);
  // Asking the port for the actor of a CKN it has gives that actor, whatever else is asked for:
  // the key's stored form differs at every encoding.
  const Zef::Ptr<MkaActorSm> actorSm = port(a)->mkaActorSm(kPrimary.name());
  EXPECT_EQ(port(a)->mkaActorSmIs(kPrimary.name(), StoredKey::ofHex(kOther.cak.view()), intf(a), a.status(),
                                  a.pamManager(), a.hwStatus(), a.wheel()),
            actorSm);
  sim.runFor(10);
  EXPECT_TRUE(running(kPrimary));
}

TEST_F(Port, AfterAnElectionTheFallbackKeyWaitsItsActivationPeriod) {
  configuredPairIs(a, b, kPrimary);
  sim.runFor(30);
  ASSERT_TRUE(running(kPrimary));
  // The primary keys stop matching and b retires its old actor: the session ends, and a's election
  // finds nobody.
  b.profile(intf(b))->keyRetireIs(true);
  b.keyIs(intf(b), kOther);
  sim.runFor(20);
  EXPECT_TRUE(port(a)->principalActorCkn().empty());
  // A fallback key that then succeeds waits for the primary key to come back.
  a.defaultKeyIs(intf(a), kFallback);
  b.defaultKeyIs(intf(b), kFallback);
  double* succeeded = firstTime([&] { return actor(a, kFallback) && actor(a, kFallback)->success(); });
  double* principal = firstTime([&] { return actor(a, kFallback) && actor(a, kFallback)->principal(); });
  sim.runFor(60);
  ASSERT_GT(*succeeded, 0);
  ASSERT_GT(*principal, 0);
  EXPECT_DOUBLE_EQ(*principal - *succeeded, 30.0);
  EXPECT_EQ(logCount("MKA_FALLBACK_KEY_IN_USE"), 2);
}

TEST_F(Port, UnprotectedTrafficUntilAKeyArrivesAndStaticKeysOnTheirOwnNumbers) {
  twoSwitchesBelowConfiguration();
  // No actor has succeeded: the port opens in the clear.
  intfStatus(a)->allowUnprotectedIs(true);
  EXPECT_TRUE(cp(a)->controlledPortEnabled());
  EXPECT_TRUE(cp(a)->unprotectedTraffic());
  EXPECT_EQ(logCount("MKA_UNPROTECTED_TRAFFIC MACSec protection is disabled on interface " + intf(a).stringValue()), 1);

  // A key ends unprotected operation; the port stays open throughout.
  a.keyIs(intf(a), kPrimary);
  b.keyIs(intf(b), kPrimary);
  guard({&a});
  sim.runFor(30);
  EXPECT_FALSE(cp(a)->unprotectedTraffic());
  EXPECT_TRUE(running(kPrimary));

  // Static keys on b: each new key takes the next association number, the first one 1.
  intfStatus(b)->staticSakInUseIs(true);
  Sak staticKey;
  staticKey.key = StoredKey::ofHex("01010101010101010101010101010101");
  intfStatus(b)->txStaticSakIs(staticKey);
  EXPECT_EQ(cp(b)->txSak().an, 1);
  EXPECT_EQ(cp(b)->txSak().key, staticKey.key);
  staticKey.key = StoredKey::ofHex("02020202020202020202020202020202");
  intfStatus(b)->txStaticSakIs(staticKey);
  EXPECT_EQ(cp(b)->txSak().an, 2);
  intfStatus(b)->rxStaticSakIs(staticKey);
  EXPECT_EQ(portStatus(b)->rxStaticAn(), AssociationNumber(1));
  EXPECT_EQ(cp(b)->rxSak(AssociationNumber(1)).key, staticKey.key);
  // A static key changed while static keys are not in use is ignored.
  intfStatus(b)->staticSakInUseIs(false);
  staticKey.key = StoredKey::ofHex("03030303030303030303030303030303");
  intfStatus(b)->txStaticSakIs(staticKey);
  EXPECT_EQ(cp(b)->txSak().an, 2);
}

TEST_F(Port, RemovingThePortWipesEveryKeyAndEmptiesTheControlledPort) {
  configuredPairIs(a, b, kPrimary);
  sim.runFor(30);
  ASSERT_TRUE(running(kPrimary));
  const Sak distributed = actor(a, kPrimary)->distSak();
  ASSERT_FALSE(distributed.key.empty());

  a.portDel(intf(a));
  EXPECT_EQ(portStatus(a)->actorStatusSize(), 0u);
  EXPECT_EQ(portStatus(a)->numSuccessActors(), 0);
  EXPECT_EQ(cp(a)->oldSakContext(), SakContext());
  EXPECT_EQ(cp(a)->latestSakContext(), SakContext());
  EXPECT_TRUE(cp(a)->txSak().empty());
  EXPECT_EQ(cp(a)->rxSakSize(), 0u);
  EXPECT_FALSE(cp(a)->controlledPortEnabled());
  for (char c : distributed.key.storedText()) EXPECT_EQ(c, '\0');  // the stored key is wiped in place
}

}  // namespace
}  // namespace Macsec::Testing
