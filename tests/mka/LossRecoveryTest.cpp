// Two configured switches and forged MKPDUs: a key its key server never had leaves the follower
// again, and a key held back goes in as soon as its number is free. (Silences and restarts in the
// middle of key changes are the fault program's.)

#include <gtest/gtest.h>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kKey{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};

class LossRecovery : public Scenario {
 protected:
  // a is the key server; its last MKPDU is kept, for forgeries in its name.
  LossRecovery() {
    configuredPairIs(a, b, kKey);
    sim.tapIs([this](const Sim::Agent& from, const Sim::Message& m) {
      if (&from == &a) last = m;
    });
  }
  Zef::Ptr<MkaActorStatus> actor(Sim::Agent& agent) { return agent.actorStatus(intf(agent), kKey.ckn); }
  bool secured() { return securedOn({&a, &b}, actor(a)->distSak()); }
  // a's last MKPDU, delivered to b as it stands unless changed.
  Sim::Message lastOfA() {
    Sim::Message message = last;
    message.intfId = intf(b);
    return message;
  }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  Sim::Message last;
};

TEST_F(LossRecovery, AKeyThatItsKeyServerNeverHadLeavesTheFollower) {
  sim.runFor(10);
  ASSERT_TRUE(secured());
  const Sak key = actor(a)->distSak();

  // An insider with the CAK sends the follower a key in the key server's name, with the next key
  // number and association number: the follower takes it on its way in.
  Sim::Message forged = lastOfA();
  forged.baseInfo.msgNum += 1;
  forged.sakDistInfo = SakDistInfo{static_cast<uint8_t>((key.an + 1) % 4), offsetCodeOf(0), key.keyNum + 1,
                                   cipherSuiteGcmAes128, key.key};
  b.deliver(forged);
  ASSERT_EQ(cp(b)->latestSakContext().sak.keyNum, key.keyNum + 1);
  ASSERT_TRUE(cp(b)->rxSakHas(AssociationNumber(forged.sakDistInfo.distributedAN)));

  // The key server's next MKPDUs do not list it (the first is refused, as the forgery took its
  // number, and only a set sent after the key came counts): it leaves the latest slot, and a
  // retirement later the follower receives on the key in service only. Nothing else moved.
  sim.runFor(4 * a.status()->mkpduPeriod() + a.status()->oldKeyRetirementPeriod());
  EXPECT_EQ(cp(b)->latestSakContext(), SakContext());
  EXPECT_EQ(cp(b)->rxSakSize(), 1u);
  EXPECT_TRUE(cp(b)->rxSakHas(AssociationNumber(key.an)));
  EXPECT_EQ(actor(a)->distSak().keyNum, key.keyNum);
  EXPECT_TRUE(secured());
}

// A key held back while a live peer may still transmit on the key its number holds goes in with
// the first repeat of its key server's MKPDU once that peer has moved on, not a life time later.
TEST_F(LossRecovery, AHeldKeyGoesInWithTheNextRepeatOnceItsNumberIsFree) {
  sim.runFor(10);
  ASSERT_TRUE(secured());
  const Sak running = actor(a)->distSak();
  a.mutedIs(true);

  // A member of better priority that lists b is elected b's key server at once, with a key on the
  // number a transmits on: b holds it back.
  Sim::Message better = lastOfA();
  better.baseInfo.msgId = "0000000000000000000000f1"_mi;
  better.baseInfo.msgNum = 1;
  better.baseInfo.sci = Sci{mac(9), 1};
  better.baseInfo.keyServerPriority = 0;
  better.livePeers = {{actor(b)->msgId(), actor(b)->msgNum()}};
  better.potentialPeers.clear();
  better.sakUseInfo = SakUseInfo();
  better.sakDistInfo = SakDistInfo{running.an, offsetCodeOf(0), 1, cipherSuiteGcmAes128, running.key};
  b.deliver(better);
  ASSERT_EQ(actor(b)->distSak().mi, better.baseInfo.msgId);
  ASSERT_NE(cp(b)->latestSakContext().sak.mi, better.baseInfo.msgId);

  // a, no longer key server, says it has moved on to its next key; the new key server repeats
  // its own.
  Sim::Message movedOn = lastOfA();
  movedOn.baseInfo.msgNum += 1;
  movedOn.baseInfo.keyServer = false;
  movedOn.livePeers = {{actor(b)->msgId(), actor(b)->msgNum()}};
  movedOn.sakDistInfo = SakDistInfo();
  movedOn.sakUseInfo.oldKey = movedOn.sakUseInfo.latestKey;
  movedOn.sakUseInfo.oldKey.tx = false;
  movedOn.sakUseInfo.latestKey.an = static_cast<uint8_t>((running.an + 1) % 4);
  movedOn.sakUseInfo.latestKey.keyNum = running.keyNum + 1;
  b.deliver(movedOn);
  better.baseInfo.msgNum += 1;
  better.livePeers = {{actor(b)->msgId(), actor(b)->msgNum()}};
  b.deliver(better);
  EXPECT_EQ(cp(b)->latestSakContext().sak.mi, better.baseInfo.msgId);
}

}  // namespace
}  // namespace Macsec::Testing
