// Configuration to status: a Config's profiles in, one IntfStatus per interface with something to
// protect out; and the root, which runs configuration and device while MACsec is enabled.

#include "config/ConfigSm.h"

#include <gtest/gtest.h>

#include <vector>

#include "mka/MkaRootSm.h"
#include "model/CryptoMode.h"
#include "platform/Clock.h"
#include "platform/Log.h"

namespace Macsec {
namespace {

const Lanx::IntfId eth1("eth1");
const Lanx::IntfId eth2("eth2");

Cak key(const char* ckn, const char* cak) { return Cak{Ckn::fromHex(ckn), StoredKey::ofHex(cak)}; }

// The crypto library's FIPS switch replaced for the life of the object.
struct FipsSwitch {
  explicit FipsSwitch(std::function<bool(bool)> fipsSwitch) { fipsModeSwitchIs(std::move(fipsSwitch)); }
  ~FipsSwitch() { fipsModeSwitchIs(nullptr); }
};

// Counts the writes of one IntfStatus's key.
class KeyWatch : public IntfStatus::NotifieeConst {
 public:
  explicit KeyWatch(const Zef::Ptr<IntfStatus>& intf) : NotifieeConst(intf) { hasNotificationActiveIs(true); }
  void onKey() override { ++writes; }
  int writes = 0;
};

class Configuration : public ::testing::Test {
 protected:
  Zef::Ptr<Profile> profileOf(const char* name, std::initializer_list<Lanx::IntfId> intfs) {
    const Zef::Ptr<Profile> profile = config->profileIs(Zef::Name(name));
    for (const Lanx::IntfId& intf : intfs) {
      profile->intfIs(intf, true);
      config->intfConfigIs(intf)->profileNameIs(name);
    }
    return profile;
  }

  Zef::System::VirtualClock clock{0.0};
  Zef::System::ScopedClock scoped{clock};
  Zef::Ptr<Config> config = Config::ConfigIs(Zef::Name("config"));
  Zef::Ptr<Status> status = Status::StatusIs();
  Zef::Ptr<Dot1x::EapKeyStatus> eapKeys = Dot1x::EapKeyStatus::EapKeyStatusIs();
  Zef::Ptr<Interface::EthIntfStatusDir> links = Interface::EthIntfStatusDir::EthIntfStatusDirIs("links");
  Zef::Ptr<Memtab::MessageCounters> counters = Memtab::MessageCounters::MessageCountersIs();
  Zef::Ptr<ConfigSm> configSm() { return ConfigSm::ConfigSmIs(config, status, eapKeys, links, counters); }
};

TEST_F(Configuration, AProfileWithAKeyGivesItsInterfacesTheirStatusAndFollowsEveryChange) {
  const Zef::Ptr<Profile> a = profileOf("a", {eth1, eth2});
  a->keyServerPriorityIs(7);
  a->sessionReKeyPeriodIs(60);
  const Zef::Ptr<ConfigSm> sm = configSm();

  // Interfaces, but nothing to protect: no status. A fallback key alone is not enough.
  a->defaultKeyIs(key("0f", "8f1c5cb1c8ed2e5f047906e0473aad4d"));
  EXPECT_EQ(status->intfStatusSize(), 0u);

  // A key: every interface of the profile gets its status, with the profile's settings.
  a->keyIs(key("01", "135bd758b0ee5c11c55ff6ab19fdb199"));
  ASSERT_EQ(status->intfStatusSize(), 2u);
  const Zef::Ptr<IntfStatus> one = status->intfStatus(eth1);
  EXPECT_EQ(one->profileName(), "a");
  EXPECT_EQ(one->keyServerPriority(), 7);
  EXPECT_EQ(one->sessionReKeyPeriod(), 60u);
  EXPECT_EQ(one->key().ckn, "01"_ckn);
  EXPECT_EQ(one->defaultKey().ckn, "0f"_ckn);
  EXPECT_EQ(one->dot1xType(), Dot1x::dot1xTypePreSharedKey);

  // The same key in a new stored form is no change; another key is.
  const Zef::Ptr<KeyWatch> watch(new KeyWatch(one));
  a->keyIs(key("01", "135bd758b0ee5c11c55ff6ab19fdb199"));
  EXPECT_EQ(watch->writes, 0);
  a->keyIs(key("01", "00112233445566778899aabbccddeeff"));
  EXPECT_EQ(watch->writes, 1);

  // Another cipher suite builds every interface's status anew; other settings change in place.
  a->cipherSuiteIs(cipherSuiteGcmAes256);
  ASSERT_TRUE(status->intfStatus(eth1));
  EXPECT_NE(status->intfStatus(eth1), one);
  EXPECT_EQ(status->intfStatus(eth1)->cipherSuite(), cipherSuiteGcmAes256);
  const Zef::Ptr<IntfStatus> rebuilt = status->intfStatus(eth1);
  a->keyServerPriorityIs(9);
  EXPECT_EQ(status->intfStatus(eth1), rebuilt);
  EXPECT_EQ(rebuilt->keyServerPriority(), 9);

  // An interface set to false loses its status; one moved to a profile with the same parameters
  // keeps the object under the new name.
  a->intfIs(eth2, false);
  EXPECT_FALSE(status->intfStatus(eth2));
  const Zef::Ptr<Profile> b = profileOf("b", {});
  b->cipherSuiteIs(cipherSuiteGcmAes256);
  b->keyIs(key("02", "00112233445566778899aabbccddeeff"));
  b->intfIs(eth1, true);
  EXPECT_EQ(status->intfStatus(eth1), rebuilt);
  EXPECT_EQ(rebuilt->profileName(), "b");
  EXPECT_EQ(rebuilt->key().ckn, "02"_ckn);
  a->intfDel(eth1);  // a no longer owns it: b's status stays
  EXPECT_EQ(status->intfStatus(eth1), rebuilt);

  // A static SAK alone protects too, and rules out unprotected traffic; the key's removal ends it.
  b->allowUnprotectedIs(true);
  EXPECT_TRUE(rebuilt->allowUnprotected());
  Sak staticSak;
  staticSak.key = StoredKey::ofHex("01010101010101010101010101010101");
  b->txStaticSakIs(staticSak);
  EXPECT_FALSE(rebuilt->staticSakInUse());  // a key is there
  b->keyIs(Cak());
  ASSERT_EQ(status->intfStatus(eth1), rebuilt);
  EXPECT_TRUE(rebuilt->staticSakInUse());
  EXPECT_FALSE(rebuilt->allowUnprotected());
  // Without it the status stays, out of use, until the next change of keys finds nothing left.
  b->txStaticSakIs(Sak());
  ASSERT_EQ(status->intfStatus(eth1), rebuilt);
  EXPECT_FALSE(rebuilt->staticSakInUse());
  b->defaultKeyIs(key("0f", "8f1c5cb1c8ed2e5f047906e0473aad4d"));
  EXPECT_FALSE(status->intfStatus(eth1));

  // Delay protection sets the MKPDU period.
  EXPECT_EQ(status->mkpduPeriod(), 2.0);
  config->delayProtectionIs(true);
  EXPECT_EQ(status->mkpduPeriod(), 0.5);
  EXPECT_TRUE(status->delayProtection());
}

TEST_F(Configuration, AProfileThatGoesTakesItsInterfacesAndARestartDropsWhatIsNoLongerConfigured) {
  const Zef::Ptr<Profile> a = profileOf("a", {eth1});
  a->keyIs(key("01", "135bd758b0ee5c11c55ff6ab19fdb199"));
  const Zef::Ptr<Profile> b = profileOf("b", {eth2});
  b->keyIs(key("02", "135bd758b0ee5c11c55ff6ab19fdb199"));
  Zef::Ptr<ConfigSm> sm = configSm();
  ASSERT_EQ(status->intfStatusSize(), 2u);
  const Zef::Ptr<IntfStatus> kept = status->intfStatus(eth2);

  config->profileDel(Zef::Name("a"));
  EXPECT_FALSE(status->intfStatus(eth1));

  // Down, then up over the status it left, with b's key gone meanwhile: its status is stale.
  sm = nullptr;
  status->intfStatusIs(eth1, MacsecParams())->profileNameIs("gone");
  b->keyIs(Cak());
  sm = configSm();
  EXPECT_EQ(status->intfStatusSize(), 0u);

  // b gets its key back: a status again, for the same interface.
  b->keyIs(key("02", "135bd758b0ee5c11c55ff6ab19fdb199"));
  ASSERT_TRUE(status->intfStatus(eth2));
  EXPECT_NE(status->intfStatus(eth2), kept);
}

TEST_F(Configuration, AProfileWithDot1xTakesTheKeyDerivedFromEachInterfacesEapExchange) {
  // The published vector: this master session key, these two addresses and this session
  // identifier give the CAK 135b... and the CKN 9643... at both ends.
  const char* msk = "e68a1ab90313024fda7a04a03fea010f";
  const EapSessionId session = EapSessionId::fromHex(
      "0dd075693f54b2b2eb01da61f0af5d429b65b1ebcaf536fba350777598571728f630c5c8da5475489ad47b6e3489a97372e5a8fd5506179"
      "72c020d42a3b13a4eae");
  const Lanx::EthAddr low({0x00, 0x1b, 0x63, 0x93, 0xfc, 0xbc});
  const Lanx::EthAddr high({0x00, 0xd0, 0xb7, 0x1a, 0x77, 0x17});
  eapKeys->keyIs(eth1, Dot1x::EapKey{Dot1x::dot1xTypeSupplicant, StoredKey::ofHex(msk), session, high, low});
  const Zef::Ptr<Profile> a = profileOf("a", {eth1, eth2});
  a->eapIs("campus");
  const Zef::Ptr<ConfigSm> sm = configSm();

  const Zef::Ptr<IntfStatus> intf = status->intfStatus(eth1);
  ASSERT_TRUE(intf);
  EXPECT_EQ(intf->key().ckn, "96437a93ccf10d9dfe347846cce52c7d"_ckn);
  EXPECT_TRUE(intf->key().sameKeyAs(key("96437a93ccf10d9dfe347846cce52c7d", "135bd758b0ee5c11c55ff6ab19fdb199")));
  EXPECT_EQ(intf->dot1xType(), Dot1x::dot1xTypeSupplicant);
  // eth2 has no exchange yet: its status waits without a key.
  ASSERT_TRUE(status->intfStatus(eth2));
  EXPECT_TRUE(status->intfStatus(eth2)->key().empty());

  // The other end of the link, with the addresses the other way round, derives the same key; a
  // new session gives a new name to the same secret.
  const Zef::Ptr<KeyWatch> watch(new KeyWatch(intf));
  eapKeys->keyIs(eth1, Dot1x::EapKey{Dot1x::dot1xTypeSupplicant, StoredKey::ofHex(msk), session, low, high});
  EXPECT_EQ(watch->writes, 0);
  eapKeys->keyIs(eth1, Dot1x::EapKey{Dot1x::dot1xTypeAuthenticator, StoredKey::ofHex(msk), EapSessionId::fromHex("00"),
                                     low, high});
  EXPECT_EQ(watch->writes, 1);
  EXPECT_NE(intf->key().ckn, "96437a93ccf10d9dfe347846cce52c7d"_ckn);
  EXPECT_EQ(intf->dot1xType(), Dot1x::dot1xTypeAuthenticator);

  // The 802.1X agent withdrawing the key leaves it in use; the link going down ends it.
  eapKeys->keyDel(eth1);
  EXPECT_FALSE(intf->key().empty());
  const Zef::Ptr<Interface::EthIntfStatus> link = links->intfStatusIs(eth1);
  link->linkStatusIs(Interface::linkUp);
  EXPECT_FALSE(intf->key().empty());
  link->linkStatusIs(Interface::linkDown);
  EXPECT_TRUE(intf->key().empty());
  EXPECT_EQ(status->intfStatus(eth1), intf);

  // What derives nothing is refused, logged with the interface and the reason, and counted.
  std::vector<std::string> logged;
  Zef::logSinkIs([&](const Zef::LogRecord& r) { logged.push_back(r.text); });
  eapKeys->keyIs(eth2, Dot1x::EapKey{Dot1x::dot1xTypeAuthenticator, StoredKey::ofHex(msk), session, low, low});
  eapKeys->keyIs(eth2, Dot1x::EapKey{Dot1x::dot1xTypeAuthenticator, StoredKey::ofHex(msk), {}, low, high});
  eapKeys->keyIs(eth2, Dot1x::EapKey{Dot1x::dot1xTypeAuthenticator, StoredKey::ofHex("e68a"), session, low, high});
  Zef::logSinkIs(nullptr);
  EXPECT_TRUE(status->intfStatus(eth2)->key().empty());
  EXPECT_EQ(logged, (std::vector<std::string>{
                        "No key from the EAP exchange on interface eth2: this interface and its peer have the same "
                        "MAC address",
                        "No key from the EAP exchange on interface eth2: the exchange gave no session identifier",
                        "No key from the EAP exchange on interface eth2: the master session key is too short for the "
                        "cipher suite"}));
  EXPECT_EQ(counters->row(eth2).eapKeysRefused, 3u);
}

TEST_F(Configuration, FipsRestrictionsSwitchTheCryptoLibraryOnceAndAChangeTearsEverythingDown) {
  std::vector<bool> switched;
  const FipsSwitch recorded([&](bool on) {
    switched.push_back(on);
    return true;
  });
  config->fipsRestrictionsIs(true);
  const Zef::Ptr<Profile> a = profileOf("a", {eth1});
  a->keyIs(key("01", "135bd758b0ee5c11c55ff6ab19fdb199"));
  status->cpStatusIs(eth1, MacsecParams());
  Zef::Ptr<ConfigSm> sm = configSm();
  EXPECT_EQ(switched, std::vector<bool>{true});
  EXPECT_EQ(status->fipsStatus(), (FipsStatus{true, true}));
  ASSERT_TRUE(status->intfStatus(eth1));

  // A change while it runs empties the status and leaves the library as it is.
  config->fipsRestrictionsIs(false);
  EXPECT_EQ(switched.size(), 1u);
  EXPECT_EQ(status->intfStatusSize(), 0u);
  EXPECT_EQ(status->cpStatusSize(), 0u);
  EXPECT_EQ(status->fipsStatus(), (FipsStatus{false, false}));

  // The next one applies it; going away in FIPS mode takes the status along.
  sm = nullptr;
  config->fipsRestrictionsIs(true);
  sm = configSm();
  EXPECT_EQ(switched, (std::vector<bool>{true, true}));
  ASSERT_TRUE(status->intfStatus(eth1));
  sm = nullptr;
  EXPECT_EQ(status->intfStatusSize(), 0u);
  EXPECT_EQ(status->fipsStatus(), (FipsStatus{false, false}));

  // A library that cannot enter FIPS mode ends the process, saying why.
  const FipsSwitch failing([](bool) { return false; });
  EXPECT_EXIT(configSm(), ::testing::ExitedWithCode(0), "FIPS provider is not available");
}

TEST_F(Configuration, TheRootRunsConfigurationThenTheDeviceWhileMacsecIsEnabled) {
  const Zef::Ptr<Profile> a = profileOf("a", {eth1});
  a->keyIs(key("01", "135bd758b0ee5c11c55ff6ab19fdb199"));
  const auto eth = Interface::EthIntfStatusDir::EthIntfStatusDirIs("eth");
  const Zef::Ptr<Interface::EthIntfStatus> link = eth->intfStatusIs(eth1);
  link->addrIs(Lanx::EthAddr({2, 0, 0, 0, 0, 1}));
  link->linkStatusIs(Interface::linkUp);
  const auto device = Interface::DeviceIntfStatusDir::DeviceIntfStatusDirIs("device");
  const auto pamManager = MkaPamManager::MkaPamManagerIs(nullptr);
  const auto hw = MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs();
  const auto slice = MacSecStatus::MacSecStatusIs(Zef::Name("slice"));
  hw->statusIs(slice->statusIs(eth1));
  const auto wheel = Orb::TimerWheel::TimerWheelIs();

  // Shut down from the start: no children, and nothing in the status.
  status->macsecEnabledIs(false);
  status->cpStatusIs(eth1, MacsecParams());  // left by an earlier run
  const Zef::Ptr<MkaRootSm> root =
      MkaRootSm::MkaRootSmIs(config, status, eapKeys, eth, device, pamManager, hw, wheel, counters);
  EXPECT_FALSE(root->configSm());
  EXPECT_FALSE(root->mkaSm());
  EXPECT_EQ(status->cpStatusSize(), 0u);

  // Enabled: the device finds the interface's status that configuration made, and runs its port.
  status->macsecEnabledIs(true);
  ASSERT_TRUE(root->configSm());
  ASSERT_TRUE(root->mkaSm());
  EXPECT_TRUE(root->mkaSm()->mkaPortSm(eth1));
  EXPECT_EQ(status->portStatus(eth1)->mySci(), (Sci{Lanx::EthAddr({2, 0, 0, 0, 0, 1}), 1}));

  // Disabled again: everything goes.
  status->macsecEnabledIs(false);
  EXPECT_FALSE(root->mkaSm());
  EXPECT_EQ(status->intfStatusSize(), 0u);
  EXPECT_EQ(status->cpStatusSize(), 0u);
  EXPECT_EQ(status->portStatusSize(), 0u);
}

}  // namespace
}  // namespace Macsec
