// A SAK from the key server to the hardware and back: both controlled ports program receive, then
// transmit, open, and later keys replace earlier ones without a side ever transmitting on a key
// that its peer cannot receive.

#include <gtest/gtest.h>

#include <map>
#include <utility>
#include <vector>

#include "model/Crypto.h"
#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

class ControlledPort : public Scenario, public ::testing::WithParamInterface<double> {
 protected:
  ControlledPort() { portStandIn = true; }

  void segmentOf(std::initializer_list<Sim::Agent*> agents) {
    auto it = agents.begin();
    Sim::Agent* first = *it++;
    Sim::Agent* second = *it++;
    segment = &sim.linkIs(*first, intf(*first), *second, intf(*second));
    for (; it != agents.end(); ++it) segment->endIs(**it, intf(**it));
    for (Sim::Agent* agent : agents) add(*agent);
  }

  void add(Sim::Agent& agent) {
    agent.hardwareLatencyIs(GetParam());
    actors[&agent] =
        join(agent, static_cast<uint8_t>(members.size() + 1), 16, Dot1x::dot1xTypePreSharedKey, kCkn, 1, &intf(agent));
    members.push_back(&agent);
  }

  // Every member's port transmits and receives on the key server's current key.
  bool secured(Sim::Agent& keyServer) { return securedOn(members, actors[&keyServer]->distSak()); }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  std::map<Sim::Agent*, Zef::Ptr<MkaActorStatus>> actors;
  std::vector<Sim::Agent*> members;
  Sim::Link* segment = nullptr;
};

TEST_P(ControlledPort, FromColdStartBothSidesRunTheSameKeyAndOpenTheirPorts) {
  segmentOf({&a, &b});
  double* open = firstTime([&] { return secured(a); });
  double* elected = firstTime([&] { return actors[&a]->electedSelf(); });
  double* firstKey = firstTime([&] { return !actors[&a]->distSak().empty(); });
  double* inUse = firstTime([&] { return actors[&a]->sakTransmit(); });
  std::vector<std::pair<double, SakDistInfo>> carried;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) {
    if (&from == &a) carried.emplace_back(sim.now(), m.sakDistInfo);
  });
  sim.runFor(30);
  ASSERT_GT(*open, 0);
  EXPECT_LT(*open - 100.0, 15.0);
  // The first key comes at the election: it does not wait for the rate limiter.
  EXPECT_DOUBLE_EQ(*firstKey, *elected);
  const Sak key = actors[&a]->distSak();
  EXPECT_EQ(key.keyNum, 1u);
  EXPECT_EQ(key.mi, actors[&a]->msgId());
  for (Sim::Agent* agent : {&a, &b}) {
    SCOPED_TRACE(agent->name());
    const Zef::Ptr<CpStatus> c = cp(*agent);
    EXPECT_TRUE(c->controlledPortEnabled());
    EXPECT_EQ(c->oldSakContext().sak.mi, key.mi);
    EXPECT_EQ(c->oldSakContext().sak.keyNum, key.keyNum);
    EXPECT_EQ(c->oldSakContext().sak.an, key.an);
    EXPECT_TRUE(c->oldSakContext().txInstalled && c->oldSakContext().rxInstalled);
    EXPECT_EQ(c->latestSakContext(), SakContext());
    EXPECT_TRUE(c->oldSakContext().sak.salt.empty());  // only the hardware copies carry a salt
    EXPECT_EQ(c->txSak().salt, saltOf(c->txSak().mi, c->txSak().keyNum));
  }
  // The greater SCI takes 1.
  EXPECT_EQ(cp(a)->mySsci().ssci, 2u);
  EXPECT_EQ(cp(a)->peerSsci().ssci, 1u);
  EXPECT_EQ(cp(b)->mySsci().ssci, 1u);
  EXPECT_EQ(cp(b)->peerSsci().ssci, 2u);
  EXPECT_EQ(cp(b)->peerSsci().sci, (Sci{mac(1), 1}));
  const std::string tail = keyServerTail(key.mi);
  EXPECT_EQ(logCount("MKA_SAK_CREATED"), 1);
  EXPECT_EQ(logCount("MKA_SAK_CREATED New SAK created with key id ending in " + tail + ":1 on interface " +
                     intf(a).stringValue()),
            1);
  EXPECT_EQ(logCount("MKA_SAK_ACTIVATED"), 2);
  // The follower transmits because its key server does; the key server, once the follower
  // receives, whichever slot its own copy is in (hardware that answers at once has moved a first
  // key on to the old slot by then).
  EXPECT_TRUE(actors[&b]->sakTransmit());
  EXPECT_TRUE(actors[&a]->sakTransmit());
  // The MKPDUs carry the key from the moment it is made until it is in use, and none after.
  size_t withKey = 0;
  for (const auto& [time, d] : carried) {
    if (time < *firstKey) continue;
    if (time <= *inUse) {
      withKey += d.keyNumber == 1 && !d.wrappedSak.empty() ? 1 : 0;
    } else {
      EXPECT_EQ(d, SakDistInfo()) << time;
    }
  }
  EXPECT_GE(withKey, 1u);
  EXPECT_GT(carried.back().first, *inUse);
}

TEST_P(ControlledPort, NewKeysByPeriodAndByPacketNumbersKeepTrafficFlowingAndRetireTheOldKey) {
  segmentOf({&a, &b});
  a.status()->intfStatus(intf(a))->sessionReKeyPeriodIs(40);  // armed from the election on
  b.status()->intfStatus(intf(b))->sessionReKeyPeriodIs(5);   // a follower's period is not its business
  Sim::Message last;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) {
    if (&from == &b) last = m;
  });
  double* elected = firstTime([&] { return actors[&a]->electedSelf(); });
  double* secondKey = firstTime([&] { return actors[&a]->keyNum() == 2; });
  ASSERT_TRUE(heldWithin(30, [&] { return secured(a); }));
  guard({&a, &b});
  const Sak first = actors[&a]->distSak();
  // The old key's receive SA goes one retirement period after the new key transmits.
  double* newKeyTransmits =
      firstTime([&] { return actors[&a]->keyNum() == 2 && cp(b)->oldSakContext().sak.keyNum == 2; });
  double* oldKeyGone =
      firstTime([&] { return actors[&a]->keyNum() == 2 && !cp(b)->rxSakHas(AssociationNumber(first.an)); });
  double* txConfirmed = firstTime([&] {
    return actors[&a]->keyNum() == 2 &&
           (cp(b)->latestSakContext().txInstalled || cp(b)->oldSakContext().sak.keyNum == 2);
  });
  // As the new key goes into service, c joins, a member that b alone hears: live at b, it sends
  // no SAK use set, since it has no key, and so transmits on none and keeps none of b's receiving.
  const double end = sim.now() + 40;
  while (*txConfirmed < 0 && sim.now() < end) sim.runFor(0.25);
  uint32_t cNumber = 0;
  for (int second = 0; second < 5; ++second) {
    Sim::Message c;
    c.intfId = intf(b);
    c.baseInfo =
        BasicInfo{255, false, true, 3, Sci{mac(9), 1}, "0c0c0c0c0c0c0c0c0c0c0c0c"_mi, ++cNumber, Ckn::fromHex(kCkn)};
    c.livePeers.emplace_back(actors[&b]->msgId(), actors[&b]->msgNum());
    b.deliver(c);
    EXPECT_TRUE(actors[&b]->livePeerHas(c.baseInfo.msgId));
    sim.runFor(1);
  }
  sim.runUntil(end);
  ASSERT_GT(*newKeyTransmits, 0);
  EXPECT_DOUBLE_EQ(*secondKey, *elected + 40);
  EXPECT_TRUE(secured(a));
  EXPECT_EQ(actors[&a]->distSak().an, (first.an + 1) % 4);
  ASSERT_GT(*oldKeyGone, 0);
  EXPECT_DOUBLE_EQ(*oldKeyGone - *txConfirmed, 3.0);
  EXPECT_EQ(logCount("MKA_SAK_ACTIVATED"), 4);
  // The period counts again from each rekey.
  sim.runUntil(*secondKey + 40 + 0.5);
  EXPECT_EQ(actors[&a]->keyNum(), 3u);
  EXPECT_EQ(actors[&b]->keyNum(), 0u);
  ASSERT_TRUE(heldWithin(10, [&] { return secured(a) && actors[&a]->keyNum() == 3; }));

  // b reports that the key in use has three quarters of its packet numbers behind it.
  a.status()->intfStatus(intf(a))->sessionReKeyPeriodIs(0);
  Sim::Message report = last;
  report.intfId = intf(a);
  report.sakUseInfo.oldKey.lpn = 0xC0000000u;
  a.deliver(report);
  EXPECT_EQ(actors[&a]->llpnExhaustion(), 1u);
  EXPECT_EQ(actors[&a]->keyNum(), 4u);  // at once, not at the rate limiter's next expiry
  ASSERT_TRUE(heldWithin(20, [&] { return secured(a) && actors[&a]->keyNum() == 4; }));
  EXPECT_EQ(actors[&a]->keyNum(), 4u);
  // A number just below the mark does nothing.
  report.sakUseInfo.oldKey.lpn = 0xBFFFFFFFu;
  a.deliver(report);
  EXPECT_EQ(actors[&a]->keyNum(), 4u);
}

// An XPN key counts its packet numbers in 64 bits: a peer's report of 0xC0000000 is a number like
// any other, and one at three quarters of the 64-bit space makes the next key at once, as does the
// key server's own transmit SA read that far on; a worn key already replaced asks for no more.
TEST_P(ControlledPort, AnXpnKeyGivesWayAtThreeQuartersOfItsSixtyFourBitPacketNumbers) {
  cipherSuite = cipherSuiteGcmAesXpn128;
  segmentOf({&a, &b});
  Sim::Message last;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) {
    if (&from == &b) last = m;
  });
  ASSERT_TRUE(heldWithin(30, [&] { return secured(a); }));
  guard({&a, &b});
  // b reports the key in service, with a packet number of its own.
  auto reportOfB = [&](uint64_t lpn) {
    Sim::Message report = last;
    report.intfId = intf(a);
    report.sakUseInfo.oldKey.lpn = lpn;
    return report;
  };
  const uint32_t first = actors[&a]->keyNum();
  a.deliver(reportOfB(0xC0000000u));
  EXPECT_EQ(actors[&a]->keyNum(), first);
  sim.runFor(2.5);  // b's next MKPDU, with a message number of its own
  a.deliver(reportOfB(0xC000000000000000u));
  EXPECT_EQ(actors[&a]->keyNum(), first + 1);  // at once
  const Sim::Message wornAndReplaced = reportOfB(0xC000000000000000u);
  sim.runFor(0.5);
  a.deliver(wornAndReplaced);
  EXPECT_EQ(actors[&a]->keyNum(), first + 1);
  ASSERT_TRUE(heldWithin(20, [&] { return secured(a) && actors[&a]->keyNum() == first + 1; }));

  // a's own transmit SA, read again at the mark and after it: one new key.
  const SaStatus reading = hw(a)->txSaStatus();
  for (uint64_t pn : {0xBFFFFFFFFFFFFFFFu, 0xC000000000000000u, 0xC000000000000100u}) {
    a.engine().as([&] { hw(a)->txSaStatusIs(SaStatus{reading.an, reading.mi, reading.keyNum, pn}); });
  }
  EXPECT_EQ(cp(a)->oldSakContext().txSaValue, 0xC000000000000100u);
  EXPECT_EQ(actors[&a]->keyNum(), first + 2);
  ASSERT_TRUE(heldWithin(20, [&] { return secured(a) && actors[&a]->keyNum() == first + 2; }));
  EXPECT_EQ(actors[&a]->keyNum(), first + 2);
}

// A follower whose hardware is slow asks to transmit on a key, and the next key pushes that key
// into the old slot before the hardware confirms: the late confirmation still counts there.
TEST_P(ControlledPort, ALateTransmitConfirmationCountsForAKeyAlreadyInTheOldSlot) {
  segmentOf({&a, &b});
  ASSERT_TRUE(heldWithin(30, [&] { return secured(a); }));
  b.hardwareLatencyIs(8.0);
  const uint32_t k1 = actors[&a]->keyNum() + 1;
  double* pending = firstTime([&] {
    const SakContext old = cp(b)->oldSakContext();
    return old.sak.keyNum == k1 && old.txEnabled && !old.txInstalled && cp(b)->latestSakContext().sak.keyNum > k1;
  });
  double* confirmed = firstTime([&] {
    const SakContext old = cp(b)->oldSakContext();
    return old.sak.keyNum == k1 && old.txInstalled && cp(b)->latestSakContext().sak.keyNum > k1;
  });
  // One new key; once b asks its hardware to transmit on it, the next one.
  const Zef::Ptr<IntfStatus> server = a.status()->intfStatus(intf(a));
  int step = 0;
  watches.push_back([&] {
    const SakContext latest = cp(b)->latestSakContext();
    if (step == 0 && actors[&a]->keyNum() == k1) {
      server->sessionReKeyPeriodIs(0);
      step = 1;
    } else if (step == 1 && latest.sak.keyNum == k1 && latest.txEnabled) {
      server->sessionReKeyPeriodIs(1);
      step = 2;
    } else if (step == 2 && actors[&a]->keyNum() > k1) {
      server->sessionReKeyPeriodIs(0);
      step = 3;
    }
  });
  server->sessionReKeyPeriodIs(1);
  sim.runFor(40);
  ASSERT_GT(*pending, 0);
  ASSERT_GT(*confirmed, *pending);
  EXPECT_TRUE(cp(b)->controlledPortEnabled());
  ASSERT_TRUE(heldWithin(60, [&] { return secured(a); }));
}

TEST_P(ControlledPort, APeerThatFallsSilentAgesOutLeavingTheRunningKeyInServiceAndNewMembersTakeTheirShortIdentifiers) {
  segmentOf({&a, &b});
  sim.runFor(30);
  ASSERT_TRUE(secured(a));
  EXPECT_EQ(cp(a)->peerSsci().sci, (Sci{mac(2), 1}));
  const SakContext running = cp(a)->oldSakContext();
  const Sak transmitted = cp(a)->txSak();
  const bool inUse = actors[&a]->sakTransmit();
  b.mutedIs(true);
  sim.runFor(0.01);  // what b sent before it fell silent is still on the wire
  const double lastRefresh = actors[&a]->livePeer(actors[&a]->livePeerIter().key())->timeStamp();
  double* gone = firstTime([&] { return actors[&a]->livePeerSize() == 0; });
  sim.runFor(20);
  // b ages out within one period after the life time, and the session goes down on both sides
  // (no longer listed by a, b ages a out in turn).
  ASSERT_GT(*gone, 0);
  EXPECT_GT(*gone - lastRefresh, 6.0);
  EXPECT_LE(*gone - lastRefresh, 6.0 + 2.0);
  EXPECT_FALSE(actors[&a]->success());
  EXPECT_FALSE(actors[&a]->electedSelf());
  EXPECT_TRUE(actors[&a]->keyServer().isZero());
  EXPECT_EQ(logCount("MKA_STATE_CHG MKA using key " + std::string(kCkn) + " DOWN on interface eth"), 2);
  // A key in use stays; a key that was only being announced is withdrawn.
  EXPECT_EQ(actors[&a]->distSak().empty(), !inUse);
  // The key in service stays where it is, and the port stays open: closing it is the port's call.
  EXPECT_EQ(cp(a)->oldSakContext(), running);
  EXPECT_EQ(cp(a)->txSak(), transmitted);
  EXPECT_TRUE(cp(a)->controlledPortEnabled());

  // c, with another address, takes b's place. The pair is computed as the peer becomes live, from
  // its record as the actor holds it.
  Sim::Agent& c = sim.agentIs("c");
  segment->endIs(c, intf(c));
  add(c);
  double* cLive = firstTime([&] { return actors[&a]->livePeerHas(actors[&c]->msgId()); });
  double* cPaired = firstTime([&] { return cp(a)->peerSsci().sci == Sci{mac(3), 1}; });
  sim.runFor(30);
  ASSERT_GT(*cLive, 0);
  EXPECT_DOUBLE_EQ(*cPaired, *cLive);
  EXPECT_EQ(cp(a)->peerSsci().ssci, 1u);  // the greater SCI takes 1
  EXPECT_EQ(cp(a)->mySsci().ssci, 2u);

  // d joins as well: of three members each takes its own place, the greatest SCI first, and every
  // member counts the others' places as they count their own.
  Sim::Agent& d = sim.agentIs("d");
  segment->endIs(d, intf(d));
  add(d);
  sim.runFor(30);
  EXPECT_EQ(cp(d)->mySsci().ssci, 1u);
  EXPECT_EQ(cp(c)->mySsci().ssci, 2u);
  EXPECT_EQ(cp(a)->mySsci().ssci, 3u);
  for (Sim::Agent* member : {&a, &c, &d}) {
    const Ssci peer = cp(*member)->peerSsci();
    for (Sim::Agent* other : {&a, &c, &d}) {
      if (cp(*other)->mySsci().sci != peer.sci) continue;
      EXPECT_EQ(peer.ssci, cp(*other)->mySsci().ssci) << member->name();
    }
  }

  // d falls silent: once it has aged out, the places of those who stay close up, though their SCIs
  // are the same as before.
  d.mutedIs(true);
  sim.runFor(20);
  EXPECT_EQ(cp(c)->mySsci().ssci, 1u);
  EXPECT_EQ(cp(a)->mySsci().ssci, 2u);
  EXPECT_EQ(cp(a)->peerSsci(), (Ssci{Sci{mac(3), 1}, 1u}));
}

// (Keys from members that do not exist or with another cipher suite are the actor fuzzer's.)
TEST_P(ControlledPort, AKeyFromALivePeerThatIsNotTheKeyServerOrAtAnOffsetThisPlaneLacksIsRefusedAndCounted) {
  Sim::Agent& c = sim.agentIs("c");
  segmentOf({&a, &b, &c});
  std::map<const Sim::Agent*, Sim::Message> last;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) { last[&from] = m; });
  sim.runFor(30);
  ASSERT_TRUE(secured(a));
  const Sak known = actors[&b]->distSak();
  const SakContext latest = cp(b)->latestSakContext();
  const SakContext old = cp(b)->oldSakContext();
  auto unchanged = [&] {
    EXPECT_EQ(actors[&b]->distSak(), known);
    EXPECT_TRUE(actors[&b]->sakTransmit());
    EXPECT_EQ(cp(b)->latestSakContext(), latest);
    EXPECT_EQ(cp(b)->oldSakContext(), old);
  };
  const SakDistInfo newKey{static_cast<uint8_t>((known.an + 1) % 4), offsetCodeOf(0), 9, cipherSuiteGcmAes128,
                           known.key};
  // While the members were electing their key server, some may have refused keys already.
  auto notFromKeyServer = [&] { return b.engine().counters()->row(intf(b)).inNotKeyServer; };
  const uint64_t refusedBefore = notFromKeyServer();

  Sim::Message fromFollower = last[&c];  // a live peer, but not the elected key server
  fromFollower.intfId = intf(b);
  fromFollower.sakDistInfo = newKey;
  b.deliver(fromFollower);
  unchanged();
  EXPECT_EQ(notFromKeyServer(), refusedBefore + 1);

  Sim::Message repeated = last[&a];  // the key in use, announced again
  repeated.intfId = intf(b);
  repeated.sakDistInfo = SakDistInfo{known.an, offsetCodeOf(0), known.keyNum, cipherSuiteGcmAes128, known.key};
  b.deliver(repeated);
  unchanged();
  // Only the follower's key counts as one from a member that is not the key server.
  EXPECT_EQ(notFromKeyServer(), refusedBefore + 1);

  // The key server's next key at 30 octets, where this port's data plane encrypts from the first
  // octet only: used at another offset than its peers use, it would garble every frame.
  b.engine().hardware()->macsecCapabilityIs(macsecConfidentialityAtZero);
  Sim::Message atOffset = last[&a];
  atOffset.intfId = intf(b);
  atOffset.baseInfo.msgNum += 1;
  atOffset.sakDistInfo = newKey;
  atOffset.sakDistInfo.confidentialityOffset = offsetCodeOf(30);
  b.deliver(atOffset);
  unchanged();
  EXPECT_EQ(b.engine().counters()->row(intf(b)).inOffsetRefused, 1u);
  EXPECT_EQ(
      logCount("MKA_SAK_OFFSET_REFUSED SAK from key server " + keyServerTail(known.mi) + " refused on interface " +
               intf(b).stringValue() + ": confidentiality offset 30 octets is not offered by the data plane"),
      1);
}

// Integrity only is the key server's choice: its key says so on the wire, and the follower, whose
// own profile would encrypt, uses the key as the key server does.
TEST_P(ControlledPort, TheKeyServersChoiceOfIntegrityOnlyHoldsForEveryMember) {
  segmentOf({&a, &b});
  a.engine().as([&] { a.status()->intfStatus(intf(a))->confidentialityIs(false); });
  std::vector<uint8_t> codes;
  sim.tapIs([&](const Sim::Agent& from, const Sim::Message& m) {
    if (&from == &a && !(m.sakDistInfo == SakDistInfo{})) codes.push_back(m.sakDistInfo.confidentialityOffset);
  });
  sim.runFor(30);
  ASSERT_TRUE(actors[&a]->electedSelf());
  ASSERT_TRUE(secured(a));
  for (Sim::Agent* member : members) EXPECT_EQ(cp(*member)->confidentialityOffset(), kNoConfidentiality);
  ASSERT_FALSE(codes.empty());
  for (const uint8_t code : codes) EXPECT_EQ(code, 0) << "a distributed key asks for confidentiality";
}

INSTANTIATE_TEST_SUITE_P(HardwareLatency, ControlledPort, ::testing::Values(0.0, 0.3));

}  // namespace
}  // namespace Macsec::Testing
