// Two or more actors on a wire: finding each other, electing a key server, keeping the session
// alive and losing it again.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

class PeerElection : public Scenario {};

TEST_F(PeerElection, WithinThreePeriodsBothSucceedAndTheLowerPriorityWinsThenTheLowerSci) {
  struct Case {
    uint8_t priorityA, priorityB, macA, macB;
    uint16_t portA, portB;
    int winner;  // 0: a, 1: b
  };
  const Case cases[] = {
      {20, 10, 0x01, 0x02, 1, 1, 1},    // the lower priority beats the lower address
      {255, 255, 0x02, 0x01, 1, 1, 1},  // equal priorities: the lower address
      {16, 16, 0x05, 0x05, 2, 1, 1},    // one station address: the lower port number
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "case with winner " << c.winner);
    Sim::Simulation local(0.0);
    Sim::Agent& a = local.agentIs("a");
    Sim::Agent& b = local.agentIs("b");
    local.linkIs(a, eth1, b, eth1);
    auto sa = join(a, c.macA, c.priorityA, Dot1x::dot1xTypePreSharedKey, kCkn, c.portA);
    auto sb = join(b, c.macB, c.priorityB, Dot1x::dot1xTypePreSharedKey, kCkn, c.portB);
    local.runFor(6);
    EXPECT_EQ(sa->livePeerSize(), 1u);
    EXPECT_EQ(sa->potentialPeerSize(), 0u);
    // A peer listed in a live list of the sender is only hearsay: the sender itself is live.
    EXPECT_TRUE(sb->livePeerHas(sa->msgId()));
    EXPECT_EQ(sa->electedSelf(), c.winner == 0);
    EXPECT_EQ(sb->electedSelf(), c.winner == 1);
    const Sci expected{mac(c.winner == 0 ? c.macA : c.macB), c.winner == 0 ? c.portA : c.portB};
    EXPECT_EQ(sa->keyServer(), expected);
    EXPECT_EQ(sb->keyServer(), expected);
    EXPECT_TRUE(sa->success());
    EXPECT_TRUE(sb->success());
  }
  EXPECT_EQ(logCount("MKA_SESSION_ESTABLISHED"), 6);
  EXPECT_EQ(logCount("MKA_STATE_CHG MKA using key " + std::string(kCkn) + " UP on interface eth1"), 6);
}

TEST_F(PeerElection, ASilentPeerAgesOutWithinOnePeriodAfterTheLifeTimeAndTheSessionGoesDown) {
  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  sim.linkIs(a, eth1, b, eth1);
  auto sa = join(a, 0x01);
  join(b, 0x02);
  sim.runFor(10);  // a has made its first key by now, not yet in use
  ASSERT_TRUE(sa->success());
  ASSERT_FALSE(sa->distSak().empty());

  b.mutedIs(true);
  sim.runFor(0.01);  // what b sent before it fell silent is still on the wire
  const double lastRefresh = sa->livePeer(sa->livePeerIter().key())->timeStamp();
  double* gone = firstTime([&] { return sa->livePeerSize() == 0; });
  sim.runFor(20);
  ASSERT_GT(*gone, 0);
  EXPECT_GT(*gone - lastRefresh, 6.0);
  EXPECT_LE(*gone - lastRefresh, 6.0 + 2.0);
  EXPECT_FALSE(sa->success());
  EXPECT_FALSE(sa->electedSelf());
  EXPECT_TRUE(sa->keyServer().isZero());
  EXPECT_TRUE(sa->distSak().empty());  // the unused key is withdrawn
  // The muted side goes down too: no longer listed by a, it ages a out in turn.
  EXPECT_EQ(logCount("MKA_STATE_CHG MKA using key " + std::string(kCkn) + " DOWN on interface eth1"), 2);
}

TEST_F(PeerElection, NoSessionAcrossDifferentCknsAndASupplicantNeverStands) {
  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  sim.linkIs(a, eth1, b, eth1);
  auto sa = join(a, 0x01, 16, Dot1x::dot1xTypeSupplicant);
  auto sb = join(b, 0x02, 16, Dot1x::dot1xTypePreSharedKey, "abcdef01");
  std::vector<bool> aOffers;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) {
    if (&from == &a) aOffers.push_back(m.baseInfo.keyServer);
  });
  sim.runFor(20);
  EXPECT_EQ(sa->livePeerSize() + sa->potentialPeerSize() + sb->livePeerSize() + sb->potentialPeerSize(), 0u);
  ASSERT_FALSE(aOffers.empty());
  for (bool offer : aOffers) EXPECT_FALSE(offer);  // a supplicant never offers itself

  // With the key in common, the other side is elected; with two supplicants nobody is.
  auto pairOf = [&](uint8_t priorityC, Dot1x::Dot1xType typeC, uint8_t priorityD, Dot1x::Dot1xType typeD) {
    Sim::Simulation local(0.0);
    Sim::Agent& c = local.agentIs("c");
    Sim::Agent& d = local.agentIs("d");
    local.linkIs(c, eth1, d, eth1);
    auto sc = join(c, 0x01, priorityC, typeC);
    auto sd = join(d, 0x02, priorityD, typeD);
    local.runFor(20);
    return std::pair{sc, sd};
  };
  auto [sc, sd] = pairOf(0, Dot1x::dot1xTypeSupplicant, 200, Dot1x::dot1xTypeAuthenticator);
  EXPECT_FALSE(sc->electedSelf());
  EXPECT_TRUE(sd->electedSelf());
  EXPECT_EQ(sc->keyServer(), (Sci{mac(0x02), 1}));

  auto [se, sf] = pairOf(16, Dot1x::dot1xTypeSupplicant, 16, Dot1x::dot1xTypeSupplicant);
  EXPECT_EQ(se->livePeerSize(), 1u);
  EXPECT_TRUE(se->keyServer().isZero());
  EXPECT_FALSE(se->success());
  EXPECT_FALSE(sf->success());
}

TEST_F(PeerElection, DelayProtectionSendsAtOnceAndEveryHalfSecond) {
  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  sim.linkIs(a, eth1, b, eth1);
  for (Sim::Agent* agent : {&a, &b}) {
    agent->status()->delayProtectionIs(true);
    agent->status()->mkpduPeriodIs(0.5);
  }
  std::vector<double> sentAt;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message&) {
    if (&from == &a) sentAt.push_back(sim.now());
  });
  auto sa = join(a, 0x01);
  join(b, 0x02);
  sim.runFor(2.4);
  // Every half second an MKPDU, the first at once; immediate ones (a new key) come on top.
  for (int i = 0; i < 5; ++i) {
    const double due = 100.0 + 0.5 * i;
    EXPECT_TRUE(std::any_of(sentAt.begin(), sentAt.end(), [&](double t) { return std::abs(t - due) < 1e-9; })) << due;
  }
  EXPECT_TRUE(sa->success());
}

// One actor fed by hand, for the rules of the message number window and of identity.
class PeerRules : public Scenario {
 protected:
  PeerRules() {
    status = join(agent, 0x01);
    sim.tapIs([this](const Sim::Agent&, const Sim::Message& m) { sent.push_back(m); });
  }

  // An MKPDU of a peer with its own identifier, listing the actor (or not) with a number.
  Sim::Message from(const char* peerId, uint8_t macByte, int listsMeWith = -1) {
    Sim::Message m;
    m.intfId = eth1;
    // The peers win the election, so that the actor makes no key and sends only when told to.
    m.baseInfo.keyServerPriority = 0;
    m.baseInfo.keyServer = true;
    m.baseInfo.sci = Sci{mac(macByte), 1};
    m.baseInfo.msgId = peerId;
    m.baseInfo.msgNum = 1;
    m.baseInfo.ckn = kCkn;
    if (listsMeWith >= 0) m.livePeers.emplace_back(status->msgId(), static_cast<uint32_t>(listsMeWith));
    return m;
  }

  Sim::Agent& agent = sim.agentIs("a");
  Zef::Ptr<MkaActorStatus> status;
  std::vector<Sim::Message> sent;
};

TEST_F(PeerRules, OnlyOneOfTheLastThreeMessageNumbersPromotesAPeer) {
  status->msgNumIs(10);
  const char* ids[] = {"00000000000000000000000007", "00000000000000000000000008", "00000000000000000000000009",
                       "00000000000000000000000010", "00000000000000000000000011"};
  for (int n = 7; n <= 11; ++n) agent.deliver(from(ids[n - 7], static_cast<uint8_t>(0x10 + n), n));
  for (int n = 7; n <= 11; ++n) {
    const bool promoted = n >= 8 && n <= 10;
    EXPECT_EQ(status->livePeerHas(ids[n - 7]), promoted) << n;
    EXPECT_EQ(status->potentialPeerHas(ids[n - 7]), !promoted) << n;
  }
  // While the actor's own number is small, the window reaches down to zero.
  status->msgNumIs(0);
  agent.deliver(from("0000000000000000000000000a", 0x30, 0));
  agent.deliver(from("0000000000000000000000000b", 0x31, 1));
  EXPECT_TRUE(status->livePeerHas("0000000000000000000000000a"));
  EXPECT_FALSE(status->livePeerHas("0000000000000000000000000b"));
}

TEST_F(PeerRules, CollisionsHearsayAndOwnMessagesChangeWhatTheyShould) {
  // The actor's own SCI: the message is dropped whole.
  Sim::Message own = from("0000000000000000000000000c", 0x01);
  own.livePeers.emplace_back("0000000000000000000000000d", 4);
  agent.deliver(own);
  EXPECT_EQ(status->potentialPeerSize(), 0u);

  // A sender with the actor's own identifier: the actor takes a new one, the sender is potential.
  status->msgNumIs(5);
  const Zef::String before = status->msgId();
  agent.deliver(from(before.charPtr(), 0x02));
  EXPECT_NE(status->msgId(), before);
  EXPECT_EQ(status->msgNum(), 0u);
  EXPECT_TRUE(status->potentialPeerHas(before));

  // Hearsay: a peer in the sender's live list is potential, without an SCI.
  Sim::Message hearsay = from("0000000000000000000000000e", 0x03);
  hearsay.livePeers.emplace_back("0000000000000000000000000f", 77);
  hearsay.livePeers.emplace_back(status->msgId(), 99);  // ourselves, out of the window: skipped
  agent.deliver(hearsay);
  Zef::Ptr<MkaPeer> heard = status->potentialPeer("0000000000000000000000000f");
  ASSERT_TRUE(heard);
  EXPECT_TRUE(heard->baseInfo().sci.isZero());
  EXPECT_EQ(heard->baseInfo().msgNum, 77u);
  EXPECT_FALSE(status->potentialPeerHas(status->msgId()));
}

TEST_F(PeerRules, TheLastMessageNumberIsFollowedByANewIdentity) {
  sim.runFor(0.0);
  sent.clear();
  status->msgNumIs(0xFFFFFFFF);
  const Zef::String before = status->msgId();
  sim.runFor(3);
  ASSERT_FALSE(sent.empty());
  EXPECT_NE(sent[0].baseInfo.msgId, before);
  EXPECT_EQ(sent[0].baseInfo.msgId, status->msgId());
  EXPECT_EQ(sent[0].baseInfo.msgNum, 1u);
  EXPECT_TRUE(sent[0].baseInfo.keyServer);  // no key server known: it offers itself
}

}  // namespace
}  // namespace Macsec::Testing
