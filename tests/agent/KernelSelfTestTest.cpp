// The kernel plane's side of the power-on self test, its known-answer tests faked: a kernel that
// gives every known answer passes the engine's self test, each test run once for all interfaces;
// one that fails a test keeps the port closed, and the log and the report say why.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <utility>

#include "agent/KernelSelfTest.h"
#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kKey{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};

TEST(KernelSelfTest, AKernelWithEveryKnownAnswerPassesAndOneWithoutKeepsItsPortClosed) {
  LogCapture log;
  Sim::Simulation sim;
  Sim::Agent& good = sim.agentIs("good");
  Sim::Agent& bad = sim.agentIs("bad");
  const Lanx::IntfId eth1("eth1");
  const Lanx::IntfId eth2("eth2");
  sim.linkIs(good, eth1, bad, eth2);
  std::map<std::pair<int, bool>, int> runs;
  std::map<Sim::Agent*, std::unique_ptr<KernelSelfTest>> tests;
  for (auto [agent, intf] : {std::pair{&good, eth1}, std::pair{&bad, eth2}}) {
    const bool failing = agent == &bad;
    tests[agent] = std::make_unique<KernelSelfTest>(agent->hwStatus(), [&runs, failing](int bits, bool encrypt) {
      ++runs[{bits, encrypt}];
      if (failing && bits == 256 && !encrypt) return KnownAnswer{false, "256-bit decryption: no frame came out"};
      return KnownAnswer{true,
                         std::to_string(bits) + (encrypt ? "-bit encryption: passed" : "-bit decryption: passed")};
    });
    agent->engine().selfTestLoopIs([test = tests[agent].get()](const Lanx::IntfId& i, const std::string& frame,
                                                               std::function<void(const std::string&)> answer) {
      return test->frameIs(i, frame, answer);
    });
    // The emulator only says which stage the cipher path is at, as the kernel plane does.
    agent->emulator()->selfTestResponderIs(selfTestResponderOn);
    agent->status()->fipsStatusIs(FipsStatus{true, true});
    InterfaceSettings settings;
    settings.mac = mac(agent == &good ? 1 : 2);
    agent->engine().interfaceIs(intf, settings);
    agent->keyIs(intf, kKey);
  }
  sim.runFor(30);

  EXPECT_EQ(good.status()->cpStatus(eth1)->postStatus(), postComplete);
  EXPECT_TRUE(good.port(eth1));
  EXPECT_EQ(bad.status()->cpStatus(eth2)->postStatus(), postFailed);
  EXPECT_FALSE(bad.port(eth2));
  EXPECT_EQ(tests[&good]->report(), nlohmann::json({"128-bit decryption: passed", "128-bit encryption: passed",
                                                    "256-bit decryption: passed", "256-bit encryption: passed"}));
  EXPECT_EQ(tests[&bad]->report().size(), 4u);
  // Each test ran once on each kernel, whatever the interfaces and the retries asked.
  for (const auto& [test, count] : runs) EXPECT_EQ(count, 2) << test.first << (test.second ? " encrypt" : " decrypt");
  EXPECT_EQ(std::count(log.lines.begin(), log.lines.end(),
                       "MKAD_KERNEL_SELF_TEST_FAILED The kernel's MACsec failed its known-answer test: 256-bit "
                       "decryption: no frame came out"),
            1);
}

}  // namespace
}  // namespace Macsec::Testing
