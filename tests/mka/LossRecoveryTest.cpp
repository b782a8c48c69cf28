// Two configured switches through silences, restarts and a forged key: a follower that hears its
// key server again takes its port back, a restart in the middle of a key change still retires the
// old key, and a key its key server never had leaves the follower again.

#include <gtest/gtest.h>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kKey{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};

class LossRecovery : public Scenario {
 protected:
  LossRecovery() { configuredPairIs(a, b, kKey); }  // a is the key server
  Zef::Ptr<MkaActorStatus> actor(Sim::Agent& agent) { return agent.actorStatus(intf(agent), kKey.ckn); }
  bool secured() { return securedOn({&a, &b}, actor(a)->distSak()); }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
};

TEST_F(LossRecovery, AFollowerThatHearsItsKeyServerAgainTakesItsPortBack) {
  sim.runFor(10);
  ASSERT_TRUE(secured());
  const Sak key = actor(a)->distSak();

  // The key server falls silent for longer than a life time: the follower lets it go, and its
  // actor stops being principal. The key server still hears the follower, so it keeps its key.
  a.mutedIs(true);
  sim.runFor(a.status()->mkaLifeTime() + 2.0);
  ASSERT_FALSE(actor(b)->success());
  EXPECT_FALSE(actor(b)->principal());

  // Heard again, with the same key: the follower is principal again at once, its port on that key.
  a.mutedIs(false);
  sim.runFor(3);
  EXPECT_TRUE(actor(b)->success());
  EXPECT_TRUE(actor(b)->principal());
  EXPECT_EQ(actor(a)->distSak().keyNum, key.keyNum);
  EXPECT_TRUE(secured());
}

TEST_F(LossRecovery, ARestartWhileTheOldKeyRetiresStillRetiresIt) {
  sim.runFor(10);
  ASSERT_TRUE(secured());
  const Sak first = actor(a)->distSak();

  // A rekey; the moment the new key transmits, the key server's state machines are rebuilt over
  // their status, while the old key waits out its retirement period.
  a.engine().as([&] { a.profile(intf(a))->sessionReKeyPeriodIs(5); });
  double restartedAt = -1;
  watches.push_back([&] {
    if (restartedAt >= 0 || !cp(a)->latestSakContext().txInstalled) return;
    restartedAt = sim.now();
    sim.after(0.0, [&] {
      a.engine().as([&] {
        a.profile(intf(a))->sessionReKeyPeriodIs(0);
        a.engine().stateMachinesStop();
        a.engine().stateMachinesStart();
      });
    });
  });
  sim.runFor(6);
  ASSERT_GE(restartedAt, 0);
  const Sak second = actor(a)->distSak();
  ASSERT_NE(second.keyNum, first.keyNum);

  // One retirement period later, and before the rebuilt key server makes a key of its own, the
  // key server receives on the new key only: the old key went at the end of its period.
  sim.runUntil(restartedAt + a.status()->oldKeyRetirementPeriod() + 0.5);
  EXPECT_EQ(actor(a)->distSak().keyNum, second.keyNum);
  EXPECT_TRUE(securedOn({&a, &b}, second));
  EXPECT_EQ(cp(a)->rxSakSize(), 1u);
  EXPECT_FALSE(cp(a)->rxSakHas(AssociationNumber(first.an)));
}

TEST_F(LossRecovery, AKeyThatItsKeyServerNeverHadLeavesTheFollower) {
  Sim::Message last;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) {
    if (&from == &a) last = m;
  });
  sim.runFor(10);
  ASSERT_TRUE(secured());
  const Sak key = actor(a)->distSak();

  // An insider with the CAK sends the follower a key in the key server's name, with the next key
  // number and association number: the follower takes it on its way in.
  Sim::Message forged = last;
  forged.intfId = intf(b);
  forged.baseInfo.msgNum += 1;
  forged.sakDistInfo =
      SakDistInfo{static_cast<uint8_t>((key.an + 1) % 4), 0, key.keyNum + 1, cipherSuiteGcmAes128, key.key};
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

}  // namespace
}  // namespace Macsec::Testing
