// Two switches configured through their Config, as the daemon configures them: the link follows
// every change of the profile, shutdown takes everything down until it is cleared, and a second,
// lower source of configuration is merged with the operators' own.

#include <gtest/gtest.h>

#include <cctype>
#include <tuple>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kKey{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};
const Sim::Key k256{"7888f5d48ba8b24e96bb95bd8c7304ec",
                    "a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e"};

class ConfiguredLink : public Scenario {
 protected:
  ConfiguredLink() { configuredPairIs(a, b, kKey); }  // a is eth1, b eth2
  // Both ports run the key server's key (a has the lower address) of the configured CAK.
  bool secured() {
    const Zef::Ptr<MkaPortStatus> port = a.status()->portStatus(intf(a));
    const Zef::Ptr<IntfStatus> configured = a.status()->intfStatus(intf(a));
    const Zef::Ptr<MkaActorStatus> server = port && configured ? port->actorStatus(configured->key().ckn) : nullptr;
    return server && securedOn({&a, &b}, server->distSak());
  }
  // Runs until both ports are secured again, at most `seconds`; whether they were.
  bool securedWithin(double seconds) {
    const double until = sim.now() + seconds;
    while (sim.now() < until && !secured()) sim.runFor(0.5);
    return secured();
  }

  // The CKN of the key that an agent's interface runs, empty if it runs none.
  Ckn runningCkn(Sim::Agent& agent) {
    const Zef::Ptr<IntfStatus> configured = agent.status()->intfStatus(intf(agent));
    return configured ? configured->key().ckn : Ckn();
  }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
};

TEST_F(ConfiguredLink, TheLinkFollowsItsProfileAndShutdownTakesEverythingDown) {
  // (A change of cipher suite is the cipher suites' test.)
  ASSERT_TRUE(securedWithin(30));

  // Shutdown: no port, no status (the root's test); cleared, the link is secured again.
  a.engine().config()->shutdownIs(true);
  EXPECT_FALSE(a.status()->macsecEnabled());
  EXPECT_FALSE(a.port(intf(a)));
  a.engine().config()->shutdownIs(false);
  EXPECT_TRUE(a.port(intf(a)));
  EXPECT_TRUE(securedWithin(30));

  // The key removed from b's profile: b's interface has nothing left to protect.
  b.keyIs(intf(b), Sim::Key{});
  EXPECT_FALSE(b.status()->intfStatus(intf(b)));
  EXPECT_FALSE(b.port(intf(b)));
}

TEST_F(ConfiguredLink, AnyCakLengthRunsWithAnyOfTheFourCipherSuitesAndANameInUpperCaseIsTheSameName) {
  // The ICK and KEK follow the CAK's length, the SAK's the cipher suite's.
  const Sim::Key k128{"abcdef0123456789", "135bd758b0ee5c11c55ff6ab19fdb199"};
  for (auto [key, suite, sakOctets] :
       {std::tuple{k128, cipherSuiteGcmAes256, size_t{32}}, std::tuple{k256, cipherSuiteGcmAes128, size_t{16}},
        std::tuple{k256, cipherSuiteGcmAesXpn128, size_t{16}}, std::tuple{k128, cipherSuiteGcmAesXpn256, size_t{32}}}) {
    SCOPED_TRACE(suite);
    for (Sim::Agent* agent : {&a, &b}) agent->profile(intf(*agent))->cipherSuiteIs(suite);
    std::string upper = key.ckn.stdString();
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    a.keyIs(intf(a), Sim::Key{Zef::String(upper), key.cak});
    b.keyIs(intf(b), key);
    ASSERT_TRUE(securedWithin(30));
    EXPECT_EQ(cp(a)->txSak().key.withClear([](const KeyBytes& sak) { return sak.size(); }), sakOctets);
    EXPECT_EQ(runningCkn(a), key.name());
    EXPECT_EQ(runningCkn(b), key.name());
  }
}

TEST_F(ConfiguredLink, EachKeyGoesAtTheKeyServersOffsetWhereEveryDataPlaneOffersIt) {
  // The key server (a) announces confidentiality with the offset of each key: 1 for offset 0, 2
  // for 30; never 0, which would tell its peers to protect integrity only. Each port takes the
  // offset with the key.
  std::vector<uint8_t> announced;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) {
    if (&from == &a && m.sakDistInfo.keyNumber != 0) announced.push_back(m.sakDistInfo.confidentialityOffset);
  });
  auto keyedAt = [&](uint8_t code, uint8_t offset) {
    ASSERT_FALSE(announced.empty());
    EXPECT_EQ(announced.back(), code);
    EXPECT_EQ(cp(a)->confidentialityOffset(), offset);
    EXPECT_EQ(cp(b)->confidentialityOffset(), offset);
    announced.clear();
  };
  ASSERT_TRUE(securedWithin(30));
  keyedAt(1, 0);
  a.profile(intf(a))->confidentialityOffsetIs(30);
  a.profile(intf(a))->sessionReKeyPeriodIs(5);
  sim.runFor(10);
  keyedAt(2, 30);
  // b's data plane now encrypts from the first octet only, as the kernel's does, and says so: the
  // next key goes with no offset.
  b.engine().hardware()->macsecCapabilityIs(macsecConfidentialityAtZero);
  sim.runFor(5);
  ASSERT_TRUE(securedWithin(10));
  keyedAt(1, 0);
}

TEST_F(ConfiguredLink, TwoSourcesMergePerProfileAndPerInterfaceByPriority) {
  ASSERT_TRUE(securedWithin(30));
  const Zef::Ptr<Config>& merged = a.engine().mergedConfig();
  const Zef::Name own("intf eth1");  // a's interface profile, in its operators' source
  const Zef::Name base("base");

  // A low source with a profile nobody else has, which also names the interface: the profile is
  // merged, the interface stays with the operators' source, which had it first, and the port
  // runs on untouched.
  const Zef::Ptr<MkaPortSm> port = a.port(intf(a));
  const Zef::Ptr<Config> file = a.engine().configSourceIs("file", 10);
  const Zef::Ptr<Profile> fileBase = file->profileIs(base);
  fileBase->keyIs(k256.stored());
  fileBase->cipherSuiteIs(cipherSuiteGcmAes256);
  file->intfConfigIs(intf(a))->profileNameIs("base");
  ASSERT_TRUE(merged->profileHas(base));
  EXPECT_EQ(merged->profile(base)->cipherSuite(), cipherSuiteGcmAes256);
  EXPECT_EQ(merged->intfConfig(intf(a))->profileName(), own);
  EXPECT_FALSE(merged->profile(base)->intfHas(intf(a)));
  EXPECT_EQ(a.port(intf(a)), port);
  EXPECT_EQ(runningCkn(a), kKey.name());

  // A change of the low source's interface, which it does not win, is not merged; one of its
  // own profile is.
  file->intfConfig(intf(a))->profileNameIs("elsewhere");
  fileBase->keyServerPriorityIs(7);
  EXPECT_EQ(merged->intfConfig(intf(a))->profileName(), own);
  EXPECT_EQ(merged->profile(base)->keyServerPriority(), 7);
  file->intfConfig(intf(a))->profileNameIs("base");

  // The operators' source lets the interface go: the low source takes it over, and the link runs
  // the low source's key once the other end has it too.
  a.engine().config()->intfConfigDel(intf(a));
  EXPECT_EQ(merged->intfConfig(intf(a))->profileName(), base);
  EXPECT_TRUE(merged->profile(base)->intfHas(intf(a)));
  EXPECT_FALSE(merged->profile(own)->intfHas(intf(a)));
  EXPECT_EQ(runningCkn(a), k256.name());
  b.profile(intf(b))->cipherSuiteIs(cipherSuiteGcmAes256);
  b.keyIs(intf(b), k256);
  ASSERT_TRUE(securedWithin(30));

  // The operators' source names the interface again, with the profile it runs: the port runs on
  // undisturbed, and the operators' next change of profile takes effect.
  const Zef::Ptr<MkaPortSm> onBase = a.port(intf(a));
  a.engine().config()->intfConfigIs(intf(a))->profileNameIs("base");
  EXPECT_EQ(merged->intfConfig(intf(a))->profileName(), base);
  EXPECT_EQ(a.port(intf(a)), onBase);
  a.engine().config()->intfConfig(intf(a))->profileNameIs(own);
  EXPECT_EQ(merged->intfConfig(intf(a))->profileName(), own);
  EXPECT_TRUE(merged->profile(own)->intfHas(intf(a)));
  EXPECT_EQ(runningCkn(a), kKey.name());

  // The high source offers the low source's profile: it wins it, and the merged profile is built
  // anew from it; when it lets it go, the low source's comes back.
  a.engine().config()->profileIs(base)->keyServerPriorityIs(3);
  EXPECT_EQ(merged->profile(base)->keyServerPriority(), 3);
  EXPECT_EQ(merged->profile(base)->cipherSuite(), cipherSuiteGcmAes128);
  fileBase->keyServerPriorityIs(9);
  EXPECT_EQ(merged->profile(base)->keyServerPriority(), 3);
  a.engine().config()->profileDel(base);
  EXPECT_EQ(merged->profile(base)->keyServerPriority(), 9);
  EXPECT_EQ(merged->profile(base)->cipherSuite(), cipherSuiteGcmAes256);

  // The low source drops its profile and its interface: both leave the merged configuration,
  // and the interface it no longer names runs on.
  file->intfConfigDel(intf(a));
  file->profileDel(base);
  EXPECT_FALSE(merged->profileHas(base));
  EXPECT_EQ(merged->intfConfig(intf(a))->profileName(), own);
  EXPECT_EQ(runningCkn(a), kKey.name());

  // Only the operators' source sets the switch-wide settings.
  file->delayProtectionIs(true);
  EXPECT_FALSE(merged->delayProtection());
  EXPECT_FALSE(a.status()->delayProtection());

  // A source of priority 0 never wins: the profile it alone offers is made at its first offer,
  // but none of its changes reach it, and it stays when that source lets it go.
  const Zef::Ptr<Config> never = a.engine().configSourceIs("never", 0);
  never->profileIs(Zef::Name("zero"))->keyServerPriorityIs(1);
  ASSERT_TRUE(merged->profileHas(Zef::Name("zero")));
  never->profile(Zef::Name("zero"))->keyServerPriorityIs(2);
  EXPECT_NE(merged->profile(Zef::Name("zero"))->keyServerPriority(), 2);
  never->profileDel(Zef::Name("zero"));
  EXPECT_TRUE(merged->profileHas(Zef::Name("zero")));

  // Of two sources of one priority, the one met first in the sources' own order wins, whichever
  // offered first. A whole source that goes leaves what it supplied as it stands: withdrawing a
  // source is not emptying it.
  const Zef::Name shared("shared");
  auto winnerOfferingFirst = [&](const char* first, const char* second) {
    a.engine().configSourceIs(first, 10)->profileIs(shared)->keyServerPriorityIs(first[0] == 'f' ? 10 : 20);
    a.engine().configSourceIs(second, 10)->profileIs(shared)->keyServerPriorityIs(second[0] == 'f' ? 10 : 20);
    const uint8_t winner = merged->profile(shared)->keyServerPriority();
    for (const char* source : {first, second}) a.engine().configSourceIs(source, 10)->profileDel(shared);
    return winner;
  };
  const uint8_t winner = winnerOfferingFirst("file", "tie");
  EXPECT_EQ(winnerOfferingFirst("tie", "file"), winner);
  EXPECT_FALSE(merged->profileHas(shared));
  file->profileIs(shared)->keyServerPriorityIs(10);
  a.engine().configSourceIs("tie", 10)->profileIs(shared)->keyServerPriorityIs(20);
  a.engine().configSourceDel(winner == 10 ? "file" : "tie");
  EXPECT_EQ(merged->profile(shared)->keyServerPriority(), winner);
}

}  // namespace
}  // namespace Macsec::Testing
