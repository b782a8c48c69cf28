// The key server on the harness: when SAKs are made, how changes of the peer set are batched, and
// when a key is withdrawn.

#include <gtest/gtest.h>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

class KeyServer : public Scenario {
 protected:
  // a and b on a segment that others may join later; a (lower address) is elected. The keys a
  // makes are counted, with the time of each.
  KeyServer() {
    sa = join(a, 0x01);
    sb = join(b, 0x02);
    watches.push_back([this] {
      if (sa->keyNum() != lastKeyNum) {
        lastKeyNum = sa->keyNum();
        keyTimes.push_back(sim.now());
      }
    });
  }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  Sim::Link& segment = sim.linkIs(a, eth1, b, eth1);
  Zef::Ptr<MkaActorStatus> sa;
  Zef::Ptr<MkaActorStatus> sb;
  uint32_t lastKeyNum = 0;
  std::vector<double> keyTimes;
};

TEST_F(KeyServer, PeersJoiningAreBatchedIntoOneKeyWhileTheRateLimiterRunsAndKeyedAtOnceAfter) {
  for (int step = 0; step < 200 && keyTimes.empty(); ++step) sim.runFor(0.1);
  ASSERT_EQ(keyTimes.size(), 1u);
  const double firstKey = keyTimes[0];

  // c joins while the rate limiter runs: the key in use stays and one new key is owed.
  Sim::Agent& c = sim.agentIs("c");
  segment.endIs(c, eth1);
  auto sc = join(c, 0x03);
  double* cLive = firstTime([&] { return sa->livePeerSize() == 2; });
  sim.runUntil(firstKey + 6.0 - 0.001);
  ASSERT_GT(*cLive, 0);
  EXPECT_EQ(keyTimes.size(), 1u);
  EXPECT_TRUE(sa->newSak());
  EXPECT_EQ(sa->distSak().keyNum, 1u);

  sim.runFor(20);
  EXPECT_EQ(keyTimes.size(), 2u);  // one key for the change, not one per event
  EXPECT_DOUBLE_EQ(keyTimes[1], firstKey + 6.0);
  EXPECT_EQ(sa->distSak().keyNum, 2u);
  EXPECT_EQ(sc->distSak().keyNum, 2u);
  EXPECT_EQ(sb->distSak().keyNum, 2u);
  EXPECT_FALSE(sa->newSak());

  // d joins the settled key server (its rate limiter has run out): d's key comes as d becomes live.
  std::vector<Sim::Message> sent;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) {
    if (&from == &a) sent.push_back(m);
  });
  Sim::Agent& d = sim.agentIs("d");
  segment.endIs(d, eth1);
  auto sd = join(d, 0x04);
  double* dLive = firstTime([&] { return sa->livePeerSize() == 3; });
  double* thirdKey = firstTime([&] { return sa->keyNum() == 3; });
  sim.runFor(10);
  ASSERT_GT(*dLive, 0);
  EXPECT_DOUBLE_EQ(*thirdKey, *dLive);
  EXPECT_EQ(sd->distSak().keyNum, 3u);

  // Each MKPDU lists each peer once, never with a message number it did not send.
  const MemberId dId = sd->msgId();
  bool keyCarried = false;
  for (const Sim::Message& m : sent) {
    for (const auto& [id, number] : m.livePeers) {
      EXPECT_NE(number, 0u) << id;
      for (const auto& potential : m.potentialPeers) EXPECT_NE(potential.first, id);
      if (id == dId && m.sakDistInfo.keyNumber == 3) keyCarried = true;
    }
  }
  EXPECT_TRUE(keyCarried);
}

TEST_F(KeyServer, LosingTheElectionWithdrawsTheKeyAtOnce) {
  // A better candidate appears as soon as a has made its first key, before anybody transmits on
  // it: a is no longer key server at b's next MKPDU, and says that its key went unused.
  bool better = false;
  watches.push_back([&] {
    if (better || sa->distSak().empty()) return;
    better = true;
    b.status()->intfStatus(eth1)->keyServerPriorityIs(1);
  });
  ASSERT_TRUE(heldWithin(6, [&] { return better && !sa->electedSelf(); }));
  EXPECT_FALSE(sa->newSak());
  EXPECT_EQ(logCount("MKA_SAK_DROPPED_UNUSED SAK with key id ending in " + keyServerTail(sa->msgId()) +
                     ":1 dropped unused on interface eth1: another member is key server"),
            1);
  // b, now key server, makes its own key one life time after its election.
  EXPECT_NE(sa->distSak().mi, sa->msgId());
  sim.runFor(8);
  EXPECT_EQ(sa->distSak().mi, sb->msgId());
  EXPECT_EQ(sb->keyNum(), 1u);
}

}  // namespace
}  // namespace Macsec::Testing
