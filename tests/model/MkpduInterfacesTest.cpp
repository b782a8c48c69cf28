#include "model/MkpduInterfaces.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Macsec {
namespace {

// A switch's worth of actors comes and goes in random order; after every change each actor that
// is registered is found with its own receiver, and no other is.
TEST(MkpduInterfaces, EveryRegisteredActorIsFoundThroughAnyOrderOfComingAndGoing) {
  MkpduInterfaces receivers;
  std::map<std::pair<std::string, std::string>, int> expected;  // (interface, CKN) -> receiver's tag
  std::mt19937 random(7);
  int owners[2];
  auto receiverTagged = [&](int tag) {
    MessageReceiver receiver;
    receiver.owner = &owners[tag % 2];
    receiver.cipherSuite = static_cast<CipherSuite>(tag);
    return receiver;
  };
  auto checkAll = [&](const char* when) {
    // An interface has a record while it has receivers, and no longer.
    std::set<std::string> interfaces;
    for (const auto& entry : expected) interfaces.insert(entry.first.first);
    ASSERT_EQ(receivers.size(), interfaces.size()) << when;
    for (const auto& [key, tag] : expected) {
      const MessageReceiver* found = receivers.receiver(Lanx::IntfId(key.first), Ckn::fromHex(key.second));
      ASSERT_NE(found, nullptr) << when << ": " << key.first << " " << key.second;
      EXPECT_EQ(*found->cipherSuite, static_cast<CipherSuite>(tag)) << when;
    }
  };

  int tag = 0;
  for (int round = 0; round < 6; ++round) {
    // Ports with a primary and a fallback key, added in a burst, the table growing as it goes.
    for (int i = 0; i < 300; ++i) {
      const std::string intf = "Ethernet" + std::to_string(random() % 400);
      // Mostly a primary and a fallback key; now and then a third, as while a key chain rolls over.
      const std::string ckn =
          std::vector<std::string>{"01", "fe", "01", "fe", "7c"}[random() % 5] + std::string(62, 'a');
      ++tag;
      receivers.receiverIs(Lanx::IntfId(intf), Ckn::fromHex(ckn), receiverTagged(tag));
      expected[{intf, ckn}] = tag;
    }
    checkAll("after adding");
    // Half of them go, in table-independent order, which moves entries back over the holes.
    for (auto it = expected.begin(); it != expected.end();) {
      if (random() % 2 == 0) {
        ++it;
        continue;
      }
      receivers.receiverDel(Lanx::IntfId(it->first.first), Ckn::fromHex(it->first.second), &owners[it->second % 2]);
      EXPECT_EQ(receivers.receiver(Lanx::IntfId(it->first.first), Ckn::fromHex(it->first.second)), nullptr);
      it = expected.erase(it);
    }
    checkAll("after removing");
  }

  // Only the owner removes a receiver: a replaced actor's late clean-up leaves its successor.
  const auto& [key, kept] = *expected.begin();
  receivers.receiverDel(Lanx::IntfId(key.first), Ckn::fromHex(key.second), &owners[(kept + 1) % 2]);
  checkAll("after a removal by another owner");
  EXPECT_EQ(receivers.receiver(Lanx::IntfId("Ethernet999"), Ckn::fromHex(key.second)), nullptr);
}

// An interface's record stays while the interface is in MKA operation or an actor is registered on
// it, so that an actor sends on the record that its frames are received on; leaving MKA operation
// forgets the numbers accepted.
TEST(MkpduInterfaces, ARecordLastsWhileItsInterfaceIsOpenOrHasActors) {
  MkpduInterfaces interfaces;
  const Lanx::IntfId eth1("eth1");
  const Ckn ckn = "01"_ckn;
  int actor = 0;
  const std::shared_ptr<MkpduInterface> held =
      interfaces.receiverIs(eth1, ckn, MessageReceiver{&actor, nullptr, nullptr, nullptr, std::nullopt});
  EXPECT_EQ(interfaces.find(eth1), held.get());

  // Opened, and a member heard; closed: the actor's record stays, without an access point or numbers.
  interfaces.interfaceOf(eth1)->pam = Lanx::Pam::PamIs(eth1);
  EXPECT_EQ(interfaces.find(eth1), held.get());
  ASSERT_TRUE(held->replay.accept(ckn, "0102030405060708090a0b0c"_mi, 5));
  interfaces.interfaceClosed(eth1);
  EXPECT_EQ(interfaces.find(eth1), held.get());
  EXPECT_FALSE(held->pam);
  EXPECT_TRUE(held->replay.accept(ckn, "0102030405060708090a0b0c"_mi, 5));

  // Opened again, the actor gone: the record stays for the access point; closed, it goes.
  interfaces.interfaceOf(eth1)->pam = Lanx::Pam::PamIs(eth1);
  interfaces.receiverDel(eth1, ckn, &actor);
  EXPECT_EQ(interfaces.find(eth1), held.get());
  EXPECT_EQ(interfaces.receiver(eth1, ckn), nullptr);
  interfaces.interfaceClosed(eth1);
  EXPECT_EQ(interfaces.find(eth1), nullptr);
  EXPECT_EQ(interfaces.size(), 0u);
}

}  // namespace
}  // namespace Macsec
