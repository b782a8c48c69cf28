// Two configured switches through silences and restarts: a follower that hears its key server
// again takes its port back, and a restart in the middle of a key change still retires the old key.

#include <gtest/gtest.h>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kKey{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};

class LossRecovery : public Scenario {
 protected:
  LossRecovery() {
    const Lanx::IntfId& first = intf(a);  // a, the lower address, is the key server
    sim.linkIs(a, first, b, intf(b));
    for (auto [agent, last] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
      Sim::PortConfig config;
      config.mac = mac(static_cast<uint8_t>(last));
      config.runPort = true;
      agent->portIs(intf(*agent), config);
      agent->keyIs(intf(*agent), kKey);
    }
  }
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

}  // namespace
}  // namespace Macsec::Testing
