// Two switches configured through their Config, as the daemon configures them: the link follows
// every change of the profile, and shutdown takes everything down until it is cleared.

#include <gtest/gtest.h>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kKey{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};
const Sim::Key k256{"7888f5d48ba8b24e96bb95bd8c7304ec",
                    "a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e"};

class ConfiguredLink : public Scenario {
 protected:
  ConfiguredLink() {
    const Lanx::IntfId& first = intf(a);  // a is eth1, b eth2
    sim.linkIs(a, first, b, intf(b));
    for (auto [agent, last] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
      Sim::PortConfig config;
      config.mac = mac(static_cast<uint8_t>(last));
      config.runPort = true;
      agent->portIs(intf(*agent), config);
      agent->keyIs(intf(*agent), kKey);
    }
  }
  // Both ports run the key server's key (a has the lower address) of the configured CAK.
  bool secured() {
    const Zef::Ptr<MkaPortStatus> port = a.status()->portStatus(intf(a));
    const Zef::Ptr<IntfStatus> configured = a.status()->intfStatus(intf(a));
    const Zef::Ptr<MkaActorStatus> server = port && configured ? port->actorStatus(configured->key().ckn) : nullptr;
    return server && securedOn({&a, &b}, server->distSak());
  }
  // Runs until both ports are secured again, at most `seconds`; whether they were.
  bool securedWithin(double seconds) {
    const double until = sim.now() + seconds;
    while (sim.now() < until && !secured()) sim.runFor(0.5);
    return secured();
  }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
};

TEST_F(ConfiguredLink, TheLinkFollowsItsProfileAndShutdownTakesEverythingDown) {
  ASSERT_TRUE(securedWithin(30));

  // Another cipher suite, with a key of its length, replaces each interface's status, and the
  // link comes back on it.
  const Zef::Ptr<IntfStatus> before = a.status()->intfStatus(intf(a));
  for (Sim::Agent* agent : {&a, &b}) {
    agent->profile(intf(*agent))->cipherSuiteIs(cipherSuiteGcmAes256);
    agent->keyIs(intf(*agent), k256);
  }
  EXPECT_NE(a.status()->intfStatus(intf(a)), before);
  ASSERT_TRUE(securedWithin(30));
  EXPECT_EQ(cp(a)->macsecParams().cipherSuite, cipherSuiteGcmAes256);

  // Delay protection: MKPDUs every half second, on the running engine.
  a.engine().config()->delayProtectionIs(true);
  EXPECT_EQ(a.status()->mkpduPeriod(), 0.5);
  EXPECT_TRUE(a.status()->delayProtection());

  // Shutdown: no port, no status; cleared, the link is secured again.
  a.engine().config()->shutdownIs(true);
  EXPECT_FALSE(a.status()->macsecEnabled());
  EXPECT_FALSE(a.port(intf(a)));
  EXPECT_EQ(a.status()->intfStatusSize(), 0u);
  EXPECT_EQ(a.status()->cpStatusSize(), 0u);
  a.engine().config()->shutdownIs(false);
  EXPECT_TRUE(a.port(intf(a)));
  EXPECT_TRUE(securedWithin(30));

  // The key removed from b's profile: b's interface has nothing left to protect.
  b.keyIs(intf(b), Sim::Key{});
  EXPECT_FALSE(b.status()->intfStatus(intf(b)));
  EXPECT_FALSE(b.port(intf(b)));
}

}  // namespace
}  // namespace Macsec::Testing
