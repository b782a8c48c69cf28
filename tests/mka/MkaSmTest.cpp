// The device on the harness: interfaces come and go with their configuration, link and hardware
// status, and forwarding is vetoed exactly while a controlled port is closed; a restart of the
// state machines goes on over the status it finds; in FIPS mode a port runs only once the emulated
// hardware has passed the power-on self test, and proxy interfaces are tested the same way.

#include <gtest/gtest.h>

#include <string>

#include "tests/mka/Scenario.h"

namespace Macsec::Testing {
namespace {

const Sim::Key kKey{"0101010101010101", "135bd758b0ee5c11c55ff6ab19fdb199"};

class Device : public Scenario {
 protected:
  Device() {
    const Lanx::IntfId& first = intf(a);  // a is eth1, b eth2
    sim.linkIs(a, first, b, intf(b));
  }

  InterfaceSettings settings(uint8_t macByte, CipherSuite cipher = cipherSuiteGcmAes128) {
    InterfaceSettings s;
    s.mac = mac(macByte);
    s.params.cipherSuite = cipher;
    return s;
  }
  // An interface that is configured, up and in the hardware, with the key.
  void start(Sim::Agent& agent, uint8_t macByte) {
    agent.engine().interfaceIs(intf(agent), settings(macByte));
    agent.keyIs(intf(agent), kKey);
  }
  // The same through the engine's configuration: a profile "link" with the key, which the interface names.
  void startConfigured(Sim::Agent& agent, uint8_t macByte) {
    Engine& engine = agent.engine();
    engine.linkedInterfaceIs(intf(agent), mac(macByte));
    const Zef::Ptr<Profile> profile = engine.config()->profileIs(Zef::Name("link"));
    profile->keyIs(kKey.stored());
    engine.config()->intfConfigIs(intf(agent))->profileNameIs("link");
  }
  Zef::Ptr<MkaPortStatus> portStatus(Sim::Agent& agent) { return agent.status()->portStatus(intf(agent)); }
  // The key server's key (a has the lower address) runs on both ports.
  bool secured() {
    const Zef::Ptr<MkaPortStatus> port = portStatus(a);
    const Zef::Ptr<MkaActorStatus> server = port ? port->actorStatus(kKey.name()) : nullptr;
    return server && securedOn({&a, &b}, server->distSak());
  }

  bool vetoed(Sim::Agent& agent) { return agent.engine().forwardingModel()->forwardingModelInputHas(intf(agent)); }
  // Forwarding is vetoed exactly while the interface has a controlled port that is closed.
  void vetoFollowsPort(Sim::Agent& agent) {
    const bool closed = cp(agent) && !cp(agent)->controlledPortEnabled();
    EXPECT_EQ(vetoed(agent), closed) << agent.name() << " at " << sim.now();
  }

  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
};

TEST_F(Device, PortsComeWithTheLinkAndGoWithItWhileTheirStatusStays) {
  watches.push_back([this] {
    vetoFollowsPort(a);
    vetoFollowsPort(b);
  });
  // Configured, but with its link down: nothing is made, not even the controlled port's status.
  Engine& ea = a.engine();
  ea.hardwareIs(intf(a));
  ea.ethernetIs(intf(a), mac(1), 1, Interface::linkDown);
  ea.macsecIs(intf(a), settings(1));
  a.keyIs(intf(a), kKey);
  start(b, 2);
  sim.runFor(10);
  EXPECT_FALSE(cp(a));
  EXPECT_FALSE(portStatus(a));
  EXPECT_FALSE(a.port(intf(a)));

  // The link comes up: status, SCI and port follow, and the link is secured.
  ea.linkIs(intf(a), Interface::linkUp);
  ASSERT_TRUE(a.port(intf(a)));
  EXPECT_EQ(portStatus(a)->mySci(), (Sci{mac(1), 1}));
  double* up = firstTime([&] { return secured(); });
  sim.runFor(30);
  ASSERT_GT(*up, 0);

  // b's link goes down: its port goes, its actors with it, and its controlled port closes; the
  // status objects stay.
  const Zef::Ptr<CpStatus> cpBefore = cp(b);
  const Zef::Ptr<MkaPortStatus> portBefore = portStatus(b);
  b.engine().linkIs(intf(b), Interface::linkDown);
  EXPECT_FALSE(b.port(intf(b)));
  EXPECT_EQ(cp(b), cpBefore);
  EXPECT_EQ(portStatus(b), portBefore);
  EXPECT_FALSE(cp(b)->controlledPortEnabled());
  EXPECT_EQ(cp(b)->oldSakContext(), SakContext());
  EXPECT_EQ(cp(b)->rxSakSize(), 0u);
  EXPECT_EQ(portStatus(b)->actorStatusSize(), 0u);
  EXPECT_TRUE(vetoed(b));

  // While it is down the interface gets another address; coming up writes the new SCI, and the
  // link is secured again.
  b.engine().ethernetIs(intf(b), mac(7), 3, Interface::linkDown);
  sim.runFor(10);
  b.engine().linkIs(intf(b), Interface::linkUp);
  EXPECT_EQ(portStatus(b)->mySci(), (Sci{mac(7), 3}));
  const double back = sim.now();
  double* again = firstTime([&] { return secured(); });
  sim.runFor(30);
  EXPECT_GT(*again, back);

  // The interface leaves the hardware's status and comes back: the port goes with its status,
  // and everything comes back with it.
  b.engine().hardwareDel(intf(b));
  EXPECT_FALSE(b.port(intf(b)));
  EXPECT_FALSE(cp(b));
  EXPECT_FALSE(portStatus(b));
  EXPECT_FALSE(vetoed(b));
  b.engine().hardwareIs(intf(b));
  EXPECT_TRUE(vetoed(b));
  EXPECT_TRUE(b.port(intf(b)));
  EXPECT_TRUE(heldWithin(30, [&] { return secured(); }));

  // The Ethernet interface goes away: everything of the interface goes.
  b.engine().ethernetDel(intf(b));
  EXPECT_FALSE(b.port(intf(b)));
  EXPECT_FALSE(cp(b));
  EXPECT_FALSE(portStatus(b));
}

TEST_F(Device, ARestartGoesOnOverTheStatusItFinds) {
  // Configured as the daemon configures: a profile with the key, for the interface of each side.
  startConfigured(a, 1);
  startConfigured(b, 2);
  ASSERT_TRUE(heldWithin(30, [&] { return secured(); }));
  const Sak running = cp(b)->oldSakContext().sak;
  const int keysMade = logCount("MKA_SAK_CREATED");

  // With the link up, b's restart keeps the key in service: no port closes, nobody transmits on
  // a key the other cannot receive, and no new key is needed.
  guard({&a, &b});
  b.engine().stateMachinesStop();
  EXPECT_FALSE(b.port(intf(b)));
  EXPECT_TRUE(cp(b)->controlledPortEnabled());
  sim.runFor(1);
  b.engine().stateMachinesStart();
  EXPECT_TRUE(b.port(intf(b)));
  sim.runFor(30);
  EXPECT_TRUE(secured());
  EXPECT_EQ(cp(b)->oldSakContext().sak.keyNum, running.keyNum);
  EXPECT_EQ(cp(b)->oldSakContext().sak.mi, running.mi);
  EXPECT_EQ(logCount("MKA_SAK_CREATED"), keysMade);
  watches.clear();

  // The link went down while b was away: its statuses survive, empty, and its forwarding is held
  // back from the start. A veto left for an interface that MACsec no longer runs on is lifted.
  const Lanx::IntfId gone("eth9");
  b.engine().stateMachinesStop();
  b.engine().linkIs(intf(b), Interface::linkDown);
  b.engine().forwardingModel()->forwardingModelInputIs(gone, Interface::intfForwardingModelUnauthorized());
  b.engine().stateMachinesStart();
  EXPECT_TRUE(vetoed(b));
  EXPECT_FALSE(b.engine().forwardingModel()->forwardingModelInputHas(gone));
  ASSERT_TRUE(cp(b));
  ASSERT_TRUE(portStatus(b));
  EXPECT_FALSE(cp(b)->controlledPortEnabled());
  EXPECT_TRUE(cp(b)->txSak().empty());
  EXPECT_EQ(cp(b)->rxSakSize(), 0u);
  EXPECT_EQ(portStatus(b)->actorStatusSize(), 0u);

  // Its parameters changed while it was away: the controlled port's status goes (a new one comes
  // with the port), the port's status stays.
  // The veto outlives the state machines that wrote it, until the port opens again.
  b.engine().stateMachinesStop();
  EXPECT_TRUE(vetoed(b));
  b.engine().stateMachinesStart();
  b.engine().linkIs(intf(b), Interface::linkUp);
  sim.runFor(30);
  EXPECT_FALSE(vetoed(b));
  const Zef::Ptr<CpStatus> cpBefore = cp(b);
  const Zef::Ptr<MkaPortStatus> portBefore = portStatus(b);
  b.engine().stateMachinesStop();
  b.engine().config()->profile(Zef::Name("link"))->cipherSuiteIs(cipherSuiteGcmAes256);
  b.engine().stateMachinesStart();
  EXPECT_EQ(portStatus(b), portBefore);
  ASSERT_TRUE(cp(b));
  EXPECT_NE(cp(b), cpBefore);
  EXPECT_EQ(cp(b)->macsecParams().cipherSuite, cipherSuiteGcmAes256);
}

// A port whose peers fall silent keeps its keys, and stays open, for its profile's bound, then
// closes and lets every key go; a longer bound keeps traffic through a longer loss.
TEST_F(Device, APortWithoutALivePeerKeepsItsKeysForItsBoundThenCloses) {
  start(a, 1);
  start(b, 2);
  ASSERT_TRUE(heldWithin(30, [&] { return secured(); }));
  for (const uint32_t bound : {6u, 60u}) {
    SCOPED_TRACE(bound);
    a.status()->intfStatus(intf(a))->keysWithoutPeerIs(bound);
    b.mutedIs(true);
    double* alone = firstTime([&] { return portStatus(a)->noLivePeerSince() > 0; });
    double* closed = firstTime([&] { return !cp(a)->controlledPortEnabled(); });
    sim.runFor(bound + 20);
    ASSERT_GT(*alone, 0);
    EXPECT_DOUBLE_EQ(*closed - *alone, bound);
    EXPECT_TRUE(cp(a)->txSak().empty());
    EXPECT_EQ(cp(a)->rxSakSize(), 0u);
    EXPECT_EQ(portStatus(a)->noLivePeerSince(), 0);
    EXPECT_EQ(logCount("MKA_KEYS_WITHOUT_PEER_REMOVED Keys removed and port closed on interface eth1: no live peer "
                       "for " +
                       std::to_string(bound) + " s"),
              1);
    b.mutedIs(false);
    ASSERT_TRUE(heldWithin(30, [&] { return secured(); }));
  }
}

class Fips : public Device {
 protected:
  void startFips(Sim::Agent& agent, uint8_t macByte, SelfTestResponder responder) {
    agent.status()->fipsStatusIs(FipsStatus{true, true});
    agent.emulator()->selfTestResponderIs(responder);
    start(agent, macByte);
  }
  std::vector<std::string> failures() const {
    std::vector<std::string> lines;
    for (const std::string& line : log.lines) {
      if (line.rfind("MACSEC_POST_FAILURE", 0) == 0) lines.push_back(line);
    }
    return lines;
  }
};

TEST_F(Fips, APortRunsOnlyOnceTheHardwareHasPassedItsSelfTest) {
  a.hardwareLatencyIs(0.1);
  startFips(a, 1, selfTestResponderOn);
  startFips(b, 2, selfTestResponderOn);
  // The test runs first, and there is no port while it does.
  EXPECT_FALSE(a.port(intf(a)));
  EXPECT_TRUE(a.engine().device()->postSm(intf(a)));
  EXPECT_NE(cp(a)->postStatus(), postNotStarted);

  ASSERT_TRUE(heldWithin(30, [&] { return secured(); }));
  for (Sim::Agent* agent : {&a, &b}) {
    SCOPED_TRACE(agent->name());
    EXPECT_EQ(hw(*agent)->hwPostStatus(), postComplete);
    EXPECT_FALSE(agent->engine().device()->postSm(intf(*agent)));
    EXPECT_TRUE(agent->port(intf(*agent)));
  }
  EXPECT_TRUE(failures().empty());

  // A subinterface never starts a test, so its port never comes.
  const Lanx::IntfId sub("eth1.100");
  a.engine().interfaceIs(sub, settings(9));
  EXPECT_FALSE(a.engine().device()->postSm(sub));
  EXPECT_FALSE(a.port(sub));
  EXPECT_EQ(a.status()->cpStatus(sub)->postStatus(), postNotStarted);
}

// Silent hardware takes each stage but loops no frame back; hardware that is off answers nothing,
// not even a retry.
TEST_F(Fips, ASilentHardwareIsRetriedThreeTimesAndFailsAfterFourPeriods) {
  startFips(a, 1, selfTestResponderSilent);
  startFips(b, 2, selfTestResponderOff);
  const double started = sim.now();
  // Frames that are not the test's own are dropped, and the test goes on waiting.
  // To the PAE group address from a's own, with the test's marker's second byte wrong.
  const std::string foreign =
      std::string("\x01\x80\xc2\x00\x00\x03\x02\x00\x00\x00\x00\x01\x88\x8e\xab\xce", 16) + std::string(48, '\0');
  a.deliverFrame(intf(a), foreign);
  a.deliverFrame(intf(a), std::string(10, '\x55'));
  EXPECT_NE(cp(a)->postStatus(), postFailed);

  sim.runUntil(started + 4 * 180 - 1);
  EXPECT_TRUE(failures().empty());
  for (Sim::Agent* agent : {&a, &b}) EXPECT_EQ(agent->engine().device()->postSm(intf(*agent))->attemptNumber(), 3u);
  sim.runUntil(started + 4 * 180 + 1);
  ASSERT_EQ(failures().size(), 2u);
  EXPECT_NE(failures()[0].find("due to timeout on interface eth1"), std::string::npos) << failures()[0];
  for (Sim::Agent* agent : {&a, &b}) {
    SCOPED_TRACE(agent->name());
    EXPECT_EQ(cp(*agent)->postStatus(), postFailed);
    EXPECT_FALSE(agent->port(intf(*agent)));
  }
  // Hardware that took the failure up has its test removed.
  EXPECT_FALSE(a.engine().device()->postSm(intf(a)));
}

// A proxy interface runs the engine port's self test: silent hardware is tried on the engine port, a
// frame that comes back wrong here, for both.
TEST_F(Fips, AProxyInterfaceIsTestedAsAnEnginePortIs) {
  Engine& engine = a.engine();
  const Lanx::IntfId proxy("eth5");
  const auto testing = [&] { return static_cast<bool>(a.status()->cpStatus(proxy)); };
  // The hardware resets the interface: it leaves the hardware's status and comes back at the start.
  const auto reset = [&](SelfTestResponder responder) {
    a.emulator()->selfTestResponderIs(responder);
    engine.hardwareDel(proxy);
    engine.hardwareIs(proxy);
  };

  // A proxy interface without hardware status is not tested; the status's arrival starts the test.
  engine.ethernetIs(proxy, mac(5), 1);
  engine.proxyStatus()->proxyIntfIs(proxy, true);
  EXPECT_FALSE(testing());
  reset(selfTestResponderOn);
  ASSERT_TRUE(testing());
  EXPECT_NE(a.status()->cpStatus(proxy)->postStatus(), postNotStarted);

  // Passed: the test's controlled port goes, and nothing tests the interface again.
  sim.runFor(5);
  EXPECT_EQ(a.hw(proxy)->hwPostStatus(), postComplete);
  EXPECT_FALSE(testing());
  sim.runFor(1000);
  EXPECT_FALSE(testing());
  EXPECT_TRUE(failures().empty());

  // A frame that comes back wrong fails the test at once.
  reset(selfTestResponderCorrupt);
  ASSERT_TRUE(testing());
  sim.runFor(5);
  EXPECT_EQ(a.hw(proxy)->hwPostStatus(), postFailed);
  EXPECT_FALSE(testing());
  ASSERT_EQ(failures().size(), 1u);
  EXPECT_NE(failures()[0].find("encryption with 128-bit key due to unexpected payload on interface eth5"),
            std::string::npos)
      << failures()[0];

  // An interface that stops being a proxy during its test loses it at once, without a failure.
  reset(selfTestResponderSilent);
  ASSERT_TRUE(testing());
  engine.proxyStatus()->proxyIntfDel(proxy);
  EXPECT_FALSE(testing());
  sim.runFor(4 * 180 + 1);
  EXPECT_EQ(failures().size(), 1u);
}

}  // namespace
}  // namespace Macsec::Testing
