// The harness over real bytes: every MKPDU the senders' codecs encode goes, as a frame, to the
// pcap file.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/Log.h"
#include "sim/Simulation.h"

namespace Sim {
namespace {

const Key kKey{"96437a93ccf10d9dfe347846cce52c7d", "135bd758b0ee5c11c55ff6ab19fdb199"};

class BytesWire : public ::testing::Test {
 protected:
  BytesWire() {
    Zef::logSinkIs([](const Zef::LogRecord&) {});
    sim.linkIs(a, eth1, b, eth1);
    for (auto [agent, last] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
      PortConfig config;
      config.mac = Lanx::EthAddr({2, 0, 0, 0, 0, static_cast<uint8_t>(last)});
      config.runPort = true;
      agent->portIs(eth1, config);
      agent->keyIs(eth1, kKey);
    }
  }
  ~BytesWire() override { Zef::logSinkIs(nullptr); }

  const Lanx::IntfId eth1{"eth1"};
  Simulation sim{0.0, 1, Wire::bytes};
  Agent& a = sim.agentIs("a");
  Agent& b = sim.agentIs("b");
};

TEST_F(BytesWire, EveryFrameOnTheLinksGoesToThePcapFile) {
  const std::string path = ::testing::TempDir() + "/bytes-wire.pcap";
  ASSERT_TRUE(sim.pcapIs(path));
  sim.runFor(10);
  const uint64_t sent = a.pamManager()->txPamCounter(eth1)->success() + b.pamManager()->txPamCounter(eth1)->success();
  std::ifstream in(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GE(bytes.size(), 24u);
  EXPECT_EQ(static_cast<uint8_t>(bytes[0]), 0xd4);  // the pcap magic, little-endian
  size_t frames = 0;
  for (size_t at = 24; at + 16 <= bytes.size(); ++frames) {
    uint32_t length;
    std::memcpy(&length, bytes.data() + at + 8, 4);
    ASSERT_EQ(static_cast<uint8_t>(bytes[at + 16 + 12]), 0x88);  // EtherType 0x888E
    at += 16 + length;
  }
  EXPECT_EQ(frames, sent);
  std::remove(path.c_str());
}

}  // namespace
}  // namespace Sim
