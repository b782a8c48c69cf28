// A switch's process stops and starts again while its peer keeps running, at every step of a key
// change: the interface goes on from the saved state and the SAs its data plane kept. Neither side
// ever transmits on a key the other cannot receive, the peer's port never closes, no message number
// is sent twice under one member identifier, and the keys end fresh with no stale one left.

#include <gtest/gtest.h>

#include <map>

#include "engine/SavedState.h"
#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kKey{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};

// Two configured switches, a the key server, each keeping a saved state, with hardware that takes
// a while to confirm, so that each step of a key change is an event of its own.
class RestartedPair : public Scenario {
 protected:
  RestartedPair() {
    configuredPairIs(a, b, kKey);
    for (Sim::Agent* agent : {&a, &b}) {
      agent->hardwareLatencyIs(0.3);
      agent->savedStateKept();
    }
    sim.tapIs([this](const Sim::Agent&, const Sim::Message& m) {
      uint32_t& highest = sent[m.baseInfo.msgId];
      EXPECT_GT(m.baseInfo.msgNum, highest) << "message number sent twice at " << sim.now();
      highest = m.baseInfo.msgNum;
    });
  }
  Zef::Ptr<MkaActorStatus> actor(Sim::Agent& agent) { return agent.actorStatus(intf(agent), kKey.ckn); }
  void rekeyPeriodIs(uint32_t seconds) {
    a.engine().as([&] { a.profile(intf(a))->sessionReKeyPeriodIs(seconds); });
  }

  // What the data planes hold, checked after every event, whether or not a process runs: each
  // side receives on what the other transmits on; and the peer never notices, its port open and
  // the restarting member live to it all along.
  void guardDataPlanes(Sim::Agent& peer, const MemberId& restarting) {
    watches.push_back([this, &peer, restarting] {
      EXPECT_TRUE(actor(peer)->livePeerHas(restarting)) << peer.name() << " lost its live peer at " << sim.now();
      for (auto [from, to] : {std::pair{&a, &b}, std::pair{&b, &a}}) {
        const SaStatus tx = hw(*from)->txSaStatus();
        if (tx.empty()) continue;
        const bool receives = hw(*to)->rxSaStatusHas(tx.an) && hw(*to)->rxSaStatus(tx.an).mi == tx.mi &&
                              hw(*to)->rxSaStatus(tx.an).keyNum == tx.keyNum;
        EXPECT_TRUE(receives) << from->name() << " transmits on a key " << to->name() << " lacks at " << sim.now();
      }
      if (cp(peer)) {
        EXPECT_TRUE(cp(peer)->controlledPortEnabled()) << peer.name() << " closed at " << sim.now();
      }
    });
  }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  std::map<MemberId, uint32_t> sent;
};

// A saved state that no longer fits is not used: the interface starts afresh, under a new member
// identifier, and is secured again; the reason is given. The key changed under its name, the
// parameters of the profile changed, the document is another version, or not a saved state at all.
TEST_F(RestartedPair, AStateThatNoLongerFitsStartsAfresh) {
  ASSERT_TRUE(heldWithin(20, [&] { return securedOn({&a, &b}, actor(a)->distSak()); }));
  const auto restartWith = [&](std::function<void()> whileStopped, const std::string& reason) {
    SCOPED_TRACE(reason);
    const MemberId before = actor(b)->msgId();
    b.processStop(true);
    whileStopped();
    const std::vector<std::string> afresh = b.processStart();
    ASSERT_EQ(afresh.size(), 1u);
    EXPECT_NE(afresh[0].find(reason), std::string::npos) << afresh[0];
    EXPECT_NE(actor(b)->msgId(), before);
    EXPECT_TRUE(heldWithin(30, [&] { return securedOn({&a, &b}, actor(a)->distSak()); }));
  };
  const Sim::Key changed{kKey.ckn, "00112233445566778899aabbccddeeff"};
  restartWith(
      [&] {
        for (Sim::Agent* agent : {&a, &b}) agent->keyIs(intf(*agent), changed);
      },
      "eth2: the key 0101010101010101 changed");
  restartWith(
      [&] {
        for (Sim::Agent* agent : {&a, &b}) agent->profile(intf(*agent))->cipherSuiteIs(cipherSuiteGcmAes256);
      },
      "eth2: the parameters of its profile changed");
  restartWith([&] { b.savedStateIs("{\"version\": 2, \"interfaces\": {}}"); },
              "the saved state is not used: it is of another version (2, this engine reads 1)");
  restartWith([&] { b.savedStateIs("{\"version\": 1, \"interf"); },
              "the saved state is not used: it is not a saved state");
}

struct Restart {
  bool keyServer;
  bool graceful;
  double at;  // seconds after a key change started
};

class AtEveryStep : public RestartedPair, public ::testing::WithParamInterface<Restart> {};

TEST_P(AtEveryStep, NoFrameIsLostAndTheKeysEndFresh) {
  const Restart restart = GetParam();
  Sim::Agent& restarting = restart.keyServer ? a : b;
  Sim::Agent& peer = restart.keyServer ? b : a;
  ASSERT_TRUE(heldWithin(20, [&] { return securedOn({&a, &b}, actor(a)->distSak()); }));
  guardDataPlanes(peer, actor(restarting)->msgId());

  // A key change starts, and the process stops in the middle of it.
  rekeyPeriodIs(1);
  const double* keyChange = firstTime([&] { return actor(a)->distSak().keyNum > 1; });
  sim.runFor(1.5);
  ASSERT_GT(*keyChange, 0);
  rekeyPeriodIs(30);
  sim.runUntil(*keyChange + restart.at);
  restarting.processStop(restart.graceful);
  sim.runFor(0.2);
  EXPECT_EQ(restarting.processStart(), std::vector<std::string>());

  // It goes on as it stood; its next key is made under the usual rules, and the rekey period
  // makes another, so that no key is left whose octets are in the data plane alone.
  sim.runFor(40);
  rekeyPeriodIs(0);
  sim.runFor(20);
  const Sak key = actor(a)->distSak();
  EXPECT_TRUE(securedOn({&a, &b}, key));
  for (Sim::Agent* agent : {&a, &b}) {
    EXPECT_FALSE(actor(*agent)->distSak().key.empty()) << agent->name();
    EXPECT_EQ(cp(*agent)->rxSakSize(), 1u) << agent->name() << " receives on a stale key";
    EXPECT_EQ(actor(*agent)->livePeerSize(), 1u) << agent->name();
  }
}

std::vector<Restart> everyStep() {
  std::vector<Restart> restarts;
  for (const bool keyServer : {true, false}) {
    for (const bool graceful : {true, false}) {
      // The key change takes the hardware's confirmations (0.3 s each) and the old key's
      // retirement (3 s): every tenth of a second meets each step. Long after it, the saved state
      // lists the peers with message numbers many MKPDUs old.
      for (int tenth = 0; tenth <= 45; ++tenth) restarts.push_back({keyServer, graceful, tenth / 10.0});
      for (const double later : {10.0, 21.0}) restarts.push_back({keyServer, graceful, later});
    }
  }
  return restarts;
}

INSTANTIATE_TEST_SUITE_P(ProcessRestart, AtEveryStep, ::testing::ValuesIn(everyStep()),
                         [](const ::testing::TestParamInfo<Restart>& info) {
                           return std::string(info.param.keyServer ? "KeyServer" : "Follower") +
                                  (info.param.graceful ? "Stopped" : "Crashed") + "At" +
                                  std::to_string(static_cast<int>(info.param.at * 10)) + "Tenths";
                         });

}  // namespace
}  // namespace Macsec::Testing
