// Two or more actors on a wire: finding each other, electing a key server, keeping the session
// alive and losing it again.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

class PeerElection : public Scenario {};

TEST_F(PeerElection, WithinThreePeriodsTheLowerPriorityWinsThenTheLowerSciAndASupplicantNeverStands) {
  const auto psk = Dot1x::dot1xTypePreSharedKey;
  const auto supplicant = Dot1x::dot1xTypeSupplicant;
  struct Case {
    uint8_t priorityA, priorityB, macA, macB;
    uint16_t portA, portB;
    Dot1x::Dot1xType typeA, typeB;
    int winner;  // 0: a, 1: b, -1: nobody
  };
  const Case cases[] = {
      {20, 10, 0x01, 0x02, 1, 1, psk, psk, 1},    // the lower priority beats the lower address
      {255, 255, 0x02, 0x01, 1, 1, psk, psk, 1},  // equal priorities: the lower address
      {16, 16, 0x05, 0x05, 2, 1, psk, psk, 1},    // one station address: the lower port number
      {0, 200, 0x01, 0x02, 1, 1, supplicant, Dot1x::dot1xTypeAuthenticator, 1},
      {16, 16, 0x01, 0x02, 1, 1, supplicant, supplicant, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "case with winner " << c.winner);
    Sim::Simulation local(0.0);
    Sim::Agent& a = local.agentIs("a");
    Sim::Agent& b = local.agentIs("b");
    local.linkIs(a, eth1, b, eth1);
    auto sa = join(a, c.macA, c.priorityA, c.typeA, kCkn, c.portA);
    auto sb = join(b, c.macB, c.priorityB, c.typeB, kCkn, c.portB);
    local.runFor(6);
    EXPECT_EQ(sa->livePeerSize(), 1u);
    EXPECT_EQ(sa->potentialPeerSize(), 0u);
    // A peer listed in a live list of the sender is only hearsay: the sender itself is live.
    EXPECT_TRUE(sb->livePeerHas(sa->msgId()));
    EXPECT_EQ(sa->electedSelf(), c.winner == 0);
    EXPECT_EQ(sb->electedSelf(), c.winner == 1);
    const Sci expected =
        c.winner < 0 ? Sci() : Sci{mac(c.winner == 0 ? c.macA : c.macB), c.winner == 0 ? c.portA : c.portB};
    EXPECT_EQ(sa->keyServer(), expected);
    EXPECT_EQ(sb->keyServer(), expected);
    EXPECT_EQ(sa->success(), c.winner >= 0);
    EXPECT_EQ(sb->success(), c.winner >= 0);
  }
  EXPECT_EQ(logCount("MKA_STATE_CHG MKA using key " + std::string(kCkn) + " UP on interface eth1"), 8);
}

TEST_F(PeerElection, NoSessionAcrossDifferentCknsAndASupplicantNeverOffersItself) {
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
  for (bool offer : aOffers) EXPECT_FALSE(offer);
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
  Sim::Message from(const MemberId& peerId, uint8_t macByte, int listsMeWith = -1) {
    Sim::Message m;
    m.intfId = eth1;
    // The peers win the election, so that the actor makes no key and sends only when told to.
    m.baseInfo.keyServerPriority = 0;
    m.baseInfo.keyServer = true;
    m.baseInfo.sci = Sci{mac(macByte), 1};
    m.baseInfo.msgId = peerId;
    m.baseInfo.msgNum = 1;
    m.baseInfo.ckn = Ckn::fromHex(kCkn);
    if (listsMeWith >= 0) m.livePeers.emplace_back(status->msgId(), static_cast<uint32_t>(listsMeWith));
    return m;
  }

  Sim::Agent& agent = sim.agentIs("a");
  Zef::Ptr<MkaActorStatus> status;
  std::vector<Sim::Message> sent;
};

TEST_F(PeerRules, OnlyOneOfTheLastThreeMessageNumbersPromotesAPeer) {
  status->msgNumIs(10);
  const MemberId ids[] = {"000000000000000000000007"_mi, "000000000000000000000008"_mi, "000000000000000000000009"_mi,
                          "000000000000000000000010"_mi, "000000000000000000000011"_mi};
  for (int n = 7; n <= 11; ++n) agent.deliver(from(ids[n - 7], static_cast<uint8_t>(0x10 + n), n));
  for (int n = 7; n <= 11; ++n) {
    const bool promoted = n >= 8 && n <= 10;
    EXPECT_EQ(status->livePeerHas(ids[n - 7]), promoted) << n;
    EXPECT_EQ(status->potentialPeerHas(ids[n - 7]), !promoted) << n;
  }
  // While the actor's own number is small, the window reaches down to zero.
  status->msgNumIs(0);
  agent.deliver(from("00000000000000000000000a"_mi, 0x30, 0));
  agent.deliver(from("00000000000000000000000b"_mi, 0x31, 1));
  EXPECT_TRUE(status->livePeerHas("00000000000000000000000a"_mi));
  EXPECT_FALSE(status->livePeerHas("00000000000000000000000b"_mi));
}

TEST_F(PeerRules, CollisionsHearsayAndOwnMessagesChangeWhatTheyShould) {
  // The actor's own SCI: the message is dropped whole.
  Sim::Message own = from("00000000000000000000000c"_mi, 0x01);
  own.livePeers.emplace_back("00000000000000000000000d"_mi, 4);
  agent.deliver(own);
  EXPECT_EQ(status->potentialPeerSize(), 0u);

  // A sender with the actor's own identifier: the actor takes a new one, the sender is potential.
  status->msgNumIs(5);
  const MemberId before = status->msgId();
  agent.deliver(from(before, 0x02));
  EXPECT_NE(status->msgId(), before);
  EXPECT_EQ(status->msgNum(), 0u);
  EXPECT_TRUE(status->potentialPeerHas(before));

  // Hearsay: a peer in the sender's live list is potential, without an SCI.
  Sim::Message hearsay = from("00000000000000000000000e"_mi, 0x03);
  hearsay.livePeers.emplace_back("00000000000000000000000f"_mi, 77);
  hearsay.livePeers.emplace_back(status->msgId(), 99);  // ourselves, out of the window: skipped
  agent.deliver(hearsay);
  Zef::Ptr<MkaPeer> heard = status->potentialPeer("00000000000000000000000f"_mi);
  ASSERT_TRUE(heard);
  EXPECT_TRUE(heard->baseInfo().sci.isZero());
  EXPECT_EQ(heard->baseInfo().msgNum, 77u);
  EXPECT_FALSE(status->potentialPeerHas(status->msgId()));
}

TEST_F(PeerRules, TheLastMessageNumberIsFollowedByANewIdentity) {
  sim.runFor(0.0);
  sent.clear();
  status->msgNumIs(0xFFFFFFFF);
  const MemberId before = status->msgId();
  sim.runFor(3);
  ASSERT_FALSE(sent.empty());
  EXPECT_NE(sent[0].baseInfo.msgId, before);
  EXPECT_EQ(sent[0].baseInfo.msgId, status->msgId());
  EXPECT_EQ(sent[0].baseInfo.msgNum, 1u);
  EXPECT_TRUE(sent[0].baseInfo.keyServer);  // no key server known: it offers itself
}

}  // namespace
}  // namespace Macsec::Testing
