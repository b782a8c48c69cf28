#include "mka/MkaActorSm.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "model/CloakLib.h"
#include "platform/Clock.h"
#include "platform/Trace.h"

namespace Macsec {
namespace {

// The published 128-bit vector: this CAK and CKN give this ICK and KEK on every MKA peer.
constexpr const char* kCak = "135bd758b0ee5c11c55ff6ab19fdb199";
constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";
constexpr const char* kIck = "8f1c5cb1c8ed2e5f047906e0473aad4d";
constexpr const char* kKek = "8f5a384c15d6ae9302b462e363d03ca6";

// Watches an actor's status and counts every notification.
class StatusWatch : public MkaActorStatus::NotifieeConst {
 public:
  explicit StatusWatch(const Zef::Ptr<MkaActorStatus>& s) : NotifieeConst(s) { hasNotificationActiveIs(true); }
  int heard = 0;
  void onMsgId() override { ++heard; }
  void onMsgNum() override { ++heard; }
  void onLivePeer(const Zef::String&) override { ++heard; }
  void onPotentialPeer(const Zef::String&) override { ++heard; }
  void onElectedSelf() override { ++heard; }
  void onSuccess() override { ++heard; }
};

class MkaActorSmTest : public ::testing::Test {
 protected:
  MkaActorSmTest() {
    status->intfStatusIs(eth1, MacsecParams());
    status->cpStatusIs(eth1, MacsecParams());
    status->portStatusIs(eth1)->actorStatusIs(kCkn);
  }

  Zef::Ptr<MkaActorSm> makeActor() {
    return MkaActorSm::MkaActorSmIs(kCkn, storedCak, eth1, status, pamManager, hwStatus, wheel);
  }
  Zef::Ptr<MkaActorStatus> actorStatus() { return status->portStatus(eth1)->actorStatus(kCkn); }

  // Puts a decoded MKPDU into the hand-off object, as the codec does.
  void receive(const Lanx::IntfId& intf, const char* ckn) {
    Zef::Ptr<MkaMessageInfo> rx = pamManager->rxMessageInfo();
    rx->intfIdIs(intf);
    BasicInfo basic;
    basic.ckn = ckn;
    basic.msgId = "0102030405060708090a0b0c";
    basic.msgNum = 1;
    rx->mkaInfoIs()->baseInfoIs(basic);
    pamManager->rxMessageDeliver();
  }

  Zef::System::VirtualClock clock{1000.0};
  Zef::System::ScopedClock scoped{clock};
  const Lanx::IntfId eth1{"eth1"};
  const StoredKey storedCak = StoredKey::ofHex(kCak);
  Zef::Ptr<Status> status = Status::StatusIs();
  Zef::Ptr<MkaPamManager> pamManager = MkaPamManager::MkaPamManagerIs(nullptr);
  Zef::Ptr<MacSecIntfStatusPtrDir const> hwStatus = MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs();
  Zef::Ptr<Orb::TimerWheel> wheel = Orb::TimerWheel::TimerWheelIs();
};

TEST_F(MkaActorSmTest, ANewActorGetsAnIdentityAndDerivesItsKeysOnce) {
  Zef::Ptr<MkaActorSm> actor = makeActor();
  Zef::Ptr<MkaActorStatus> s = actorStatus();
  EXPECT_TRUE(actor->initialized());
  EXPECT_EQ(s->msgId().size(), 24u);
  EXPECT_EQ(s->msgNum(), 0u);
  EXPECT_EQ(s->cak(), storedCak);
  EXPECT_EQ(CloakLib::doDecodeKey(s->ick().storedText()), kIck);
  EXPECT_EQ(CloakLib::doDecodeKey(s->kek().storedText()), kKek);
  EXPECT_NE(s->ick().storedText(), kIck);  // held in stored form only
  EXPECT_EQ(actor->intfStatus(), status->intfStatus(eth1));
  EXPECT_EQ(actor->cpStatus(), status->cpStatus(eth1));

  // Rebuilt over the same status, the actor keeps identity and keys and derives nothing: a new
  // derivation would have given new stored text.
  const Zef::String id = s->msgId();
  const StoredKey ick = s->ick();
  const StoredKey kek = s->kek();
  s->msgNumIs(41);
  actor = nullptr;
  actor = makeActor();
  EXPECT_EQ(s->msgId(), id);
  EXPECT_EQ(s->msgNum(), 41u);
  EXPECT_EQ(s->ick(), ick);
  EXPECT_EQ(s->kek(), kek);
}

TEST_F(MkaActorSmTest, TheFirstMkpduLeavesAtOnceWithDelayProtectionAndWithinAPeriodWithout) {
  status->delayProtectionIs(true);
  status->mkpduPeriodIs(0.5);
  Zef::Ptr<MkaActorSm> actor = makeActor();
  EXPECT_EQ(actor->mkpduTimer()->timeMin(), 1000.0);

  status->delayProtectionIs(false);
  status->mkpduPeriodIs(2.0);
  bool sawZero = false;
  bool sawOne = false;
  for (int i = 0; i < 40; ++i) {
    actor = nullptr;
    actorStatus()->msgIdIs("");
    actor = makeActor();
    const double delay = actor->mkpduTimer()->timeMin() - 1000.0;
    EXPECT_TRUE(delay == 0.0 || delay == 1.0) << delay;
    sawZero |= delay == 0.0;
    sawOne |= delay == 1.0;
  }
  EXPECT_TRUE(sawZero && sawOne);
}

TEST_F(MkaActorSmTest, OnlyMessagesForItsInterfaceAndCknReachTheActor) {
  status->intfStatusIs(Lanx::IntfId("eth2"), MacsecParams());
  Zef::Ptr<MkaActorSm> actor = makeActor();
  Zef::Ptr<StatusWatch> watch(new StatusWatch(actorStatus()));
  std::vector<std::string> entries;
  Zef::traceSettingsIs("Macsec::MkaActorSm=8");
  Zef::traceSinkIs([&](const Zef::TraceRecord& r) { entries.emplace_back(r.text); });
  receive(Lanx::IntfId("eth2"), kCkn);
  receive(eth1, "ffff");
  EXPECT_TRUE(entries.empty());  // not even a trace line
  receive(eth1, kCkn);
  ASSERT_FALSE(entries.empty());
  EXPECT_EQ(entries[0].rfind("void Macsec::MkaActorSm::handleRxMessage(): Actor " + std::string(kCkn) + " on eth1", 0),
            0u);
  EXPECT_EQ(watch->heard, 0);

  // An actor rebuilt over the same key takes the messages as soon as it is made, and the one it
  // replaces does not take them away on its way out; once both are gone, nobody takes them.
  Zef::Ptr<MkaActorSm> rebuilt = makeActor();
  actor = nullptr;
  entries.clear();
  receive(eth1, kCkn);
  EXPECT_FALSE(entries.empty());
  rebuilt = nullptr;
  entries.clear();
  receive(eth1, kCkn);
  EXPECT_TRUE(entries.empty());
  Zef::traceSinkIs(nullptr);
  Zef::traceSettingsIs("Macsec::MkaActorSm=off");
}

TEST_F(MkaActorSmTest, ThePrincipalActorAloneHasAKeyServerAndAControlledPort) {
  Zef::Ptr<MkaActorSm> actor = makeActor();
  EXPECT_FALSE(actor->keyServerSm());
  EXPECT_FALSE(actor->cpSm());
  actorStatus()->principalIs(true);
  Zef::Ptr<MkaKeyServerSm> keyServer = actor->keyServerSm();
  ASSERT_TRUE(keyServer);
  ASSERT_TRUE(actor->cpSm());
  EXPECT_EQ(keyServer->ckn(), kCkn);
  EXPECT_EQ(actor->cpSm()->hwStatus(), hwStatus);
  actorStatus()->principalIs(false);
  EXPECT_FALSE(actor->keyServerSm());
  EXPECT_FALSE(actor->cpSm());
  EXPECT_FALSE(keyServer->hasNotificationActive());
  actorStatus()->principalIs(true);
  EXPECT_NE(actor->keyServerSm(), keyServer);

  // An actor built over a status that is principal already has its children from the start.
  actor = nullptr;
  actor = makeActor();
  EXPECT_TRUE(actor->keyServerSm());
  EXPECT_TRUE(actor->cpSm());
}

TEST_F(MkaActorSmTest, CleanUpStopsTheTimerAndLeavesTheStatusToThePort) {
  Zef::Ptr<MkaActorSm> actor = makeActor();
  actorStatus()->principalIs(true);
  EXPECT_EQ(wheel->armedTimers(), 1u);
  actor = nullptr;
  EXPECT_EQ(wheel->armedTimers(), 0u);
  EXPECT_TRUE(actorStatus());
  EXPECT_EQ(actorStatus()->msgId().size(), 24u);
}

}  // namespace
}  // namespace Macsec
