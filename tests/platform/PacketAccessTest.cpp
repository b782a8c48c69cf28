#include "platform/PacketAccess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

TEST(Pkt, GrowsAtTheFrontAndMeasuresItsSegments) {
  Zef::Ptr<Lanx::Pkt> pkt = Lanx::globalPktManager().newPkt(4);
  std::memcpy(pkt->newHeadData(3), "abc", 3);
  std::memcpy(pkt->newHeadData(6), "012345", 6);  // more than the room in front: a bigger buffer
  EXPECT_EQ(pkt->bytes(), "012345abc");
  pkt->delTailData(2);
  EXPECT_EQ(pkt->bytes(), "012345a");
  EXPECT_EQ(pkt->stringValue().substr(0, 8), "30 31 32");

  // A packet whose data lie in the second segment alone is measured by it.
  Zef::Ptr<Lanx::Pkt> tail = Lanx::globalPktManager().newPkt();
  const uint8_t bytes[] = {1, 2, 3, 4, 5};
  tail->tailSegmentIs(bytes, sizeof bytes);
  EXPECT_EQ(tail->size(), 5u);
  EXPECT_EQ(tail->data()[0], 1);
}

TEST(EthDevPamManager, KeepsAnAccessPointForEachWantedInterfaceWhileEnabled) {
  auto desired = Interface::PamDesiredIntfDir::PamDesiredIntfDirIs("desiredIntfDir");
  auto pams = Interface::EthDevPamCollection::EthDevPamCollectionIs("pamCollection");
  auto manager = Interface::EthDevPamManager::EthDevPamManagerIs(desired, pams, nullptr);
  std::vector<std::string> attached;
  manager->transportIs([&](const Zef::Ptr<Lanx::Pam>& pam) { attached.push_back(pam->intfId().stringValue()); });
  manager->ethProtocolIs(0x888E);
  const Lanx::IntfId eth1("eth1");
  const Lanx::IntfId eth2("eth2");
  desired->intfDesiredIs(eth1, true);
  EXPECT_FALSE(pams->pam(eth1));  // not before it is enabled
  manager->enabledIs(true);
  ASSERT_TRUE(pams->pam(eth1));
  desired->intfDesiredIs(eth2, true);
  desired->intfDesiredIs(eth2, false);  // false counts as not wanted
  EXPECT_FALSE(pams->pam(eth2));
  EXPECT_EQ(attached, (std::vector<std::string>{"eth1", "eth2"}));

  // Reading: packets join the queue and are announced, and come out in order, also when one joins
  // while others wait; an empty queue reads null.
  Zef::Ptr<Lanx::Pam> pam = pams->pam(eth1);
  EXPECT_FALSE(pam->rxPkt());
  const Zef::Ptr<Lanx::Pkt> first = Lanx::globalPktManager().newPkt();
  const Zef::Ptr<Lanx::Pkt> second = Lanx::globalPktManager().newPkt();
  const Zef::Ptr<Lanx::Pkt> third = Lanx::globalPktManager().newPkt();
  pam->rxPktIs(first);
  pam->rxPktIs(second);
  EXPECT_EQ(pam->readableCount(), 2u);
  EXPECT_EQ(pam->rxPkt(), first);
  pam->rxPktIs(third);
  EXPECT_EQ(pam->rxPkt(), second);
  EXPECT_EQ(pam->rxPkt(), third);
  EXPECT_FALSE(pam->rxPkt());
  // A reader that stays one packet behind for a long time still reads them all, in order.
  std::vector<Zef::Ptr<Lanx::Pkt>> sent;
  for (int i = 0; i < 300; ++i) {
    sent.push_back(Lanx::globalPktManager().newPkt());
    pam->rxPktIs(sent.back());
    if (i > 0) {
      EXPECT_EQ(pam->rxPkt(), sent[static_cast<size_t>(i - 1)]);
    }
  }
  EXPECT_EQ(pam->rxPkt(), sent.back());
  EXPECT_FALSE(pam->rxPkt());
  pam->txPkt(Lanx::globalPktManager().newPkt());  // no transport attached: dropped and counted
  EXPECT_EQ(pam->txDrops(), 1u);

  manager->enabledIs(false);
  EXPECT_FALSE(pams->pam(eth1));
}

}  // namespace
