#include "model/MessageReceivers.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>

namespace Macsec {
namespace {

// A switch's worth of actors comes and goes in random order; after every change each actor that
// is registered is found with its own receiver, and no other is.
TEST(MessageReceivers, EveryRegisteredActorIsFoundThroughAnyOrderOfComingAndGoing) {
  MessageReceivers receivers;
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
    ASSERT_EQ(receivers.size(), expected.size()) << when;
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
      const std::string ckn = (random() % 2 ? "01" : "fe") + std::string(62, 'a');
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

}  // namespace
}  // namespace Macsec
