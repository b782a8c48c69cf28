#pragma once

// Scenarios of MKA agents on the simulation harness, in virtual time.

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "model/LogMessages.h"
#include "sim/Simulation.h"

namespace Macsec::Testing {

// The published 128-bit CAK and CKN.
inline constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";
inline constexpr const char* kCak = "135bd758b0ee5c11c55ff6ab19fdb199";

inline Lanx::EthAddr mac(uint8_t last) { return Lanx::EthAddr({0x02, 0x00, 0x00, 0x00, 0x00, last}); }

// Does for one actor what the port state machine does: the actor is principal while its session
// is up, and each new key moves the port's next association number on. Both happen inside the
// notification, as they do in the port.
class PortStandIn : public MkaActorStatus::Notifiee {
 public:
  PortStandIn(const Zef::Ptr<MkaActorStatus>& actor, const Zef::Ptr<MkaPortStatus>& port)
      : Notifiee(actor), port_(port) {
    hasNotificationActiveIs(true);
  }
  void onSuccess() override { notifier()->principalIs(notifier()->success()); }
  void onDistSak() override {
    const Sak& sak = notifier()->distSak();
    if (!sak.empty()) port_->anOfNextKeyIs(AssociationNumber((sak.an + 1) % 4));
  }

 private:
  Zef::Ptr<MkaPortStatus> port_;
};

// Collects the operators' log from its construction to its destruction.
struct LogCapture {
  LogCapture() {
    Macsec::clearLogHistory();
    Zef::logSinkIs([this](const Zef::LogRecord& r) { lines.push_back(r.handle->name().stdString() + " " + r.text); });
  }
  ~LogCapture() { Zef::logSinkIs(nullptr); }
  std::vector<std::string> lines;
};

class Scenario : public ::testing::Test {
 protected:
  Scenario() {
    sim.observerIs([this] {
      for (auto& watch : watches) watch();
    });
  }

  // An interface and a principal actor with the shared key on an agent.
  Zef::Ptr<MkaActorStatus> join(Sim::Agent& agent, uint8_t macByte, uint8_t priority = 16,
                                Dot1x::Dot1xType type = Dot1x::dot1xTypePreSharedKey, const char* ckn = kCkn,
                                uint16_t portId = 1, const Lanx::IntfId* intf = nullptr) {
    const Lanx::IntfId& eth1 = intf ? *intf : this->eth1;
    Sim::InterfaceConfig config;
    config.mac = mac(macByte);
    config.portId = portId;
    config.dot1xType = type;
    config.params.cipherSuite = cipherSuite;
    agent.interfaceIs(eth1, config);
    agent.engine().as([&] { agent.status()->intfStatus(eth1)->keyServerPriorityIs(priority); });
    agent.actorIs(eth1, ckn, kCak);
    Zef::Ptr<MkaActorStatus> status = agent.actorStatus(eth1, ckn);
    if (portStandIn) {
      standIns.emplace_back(new PortStandIn(status, agent.status()->portStatus(eth1)));
    } else {
      status->principalIs(true);
    }
    return status;
  }

  // Records the first virtual time at which `condition` holds, checked after every event.
  double* firstTime(std::function<bool()> condition) {
    times.push_back(-1);
    double* slot = &times.back();
    watches.push_back([this, condition, slot] {
      if (*slot < 0 && condition()) *slot = sim.now();
    });
    return slot;
  }

  // Runs `seconds` and tells whether `condition` held after some event on the way.
  bool heldWithin(double seconds, std::function<bool()> condition) {
    const double* first = firstTime(std::move(condition));
    sim.runFor(seconds);
    return *first > 0;
  }

  // Each switch names its interface differently, so that the operators' log (one for the process)
  // tells the switches' messages apart.
  const Lanx::IntfId& intf(Sim::Agent& agent) {
    auto [it, added] = intfs.try_emplace(&agent, "eth" + std::to_string(intfs.size() + 1));
    return it->second;
  }
  Zef::Ptr<CpStatus> cp(Sim::Agent& agent) { return agent.status()->cpStatus(intf(agent)); }

  // Two switches on one link, each with a port that runs from its configuration and the key; the
  // first has the lower address (eth1, address 1), so it is the key server.
  void configuredPairIs(Sim::Agent& first, Sim::Agent& second, const Sim::Key& key) {
    const Lanx::IntfId& firstIntf = intf(first);
    sim.linkIs(first, firstIntf, second, intf(second));
    for (auto [agent, last] : {std::pair{&first, 1}, std::pair{&second, 2}}) {
      Sim::InterfaceConfig config;
      config.mac = mac(static_cast<uint8_t>(last));
      config.runPort = true;
      agent->interfaceIs(intf(*agent), config);
      agent->keyIs(intf(*agent), key);
    }
  }
  Zef::Ptr<MacSecIntfStatus> hw(Sim::Agent& agent) { return agent.hw(intf(agent)); }

  static bool sameKey(const SaStatus& record, const Sak& sak) {
    return record.an.value() == sak.an && record.mi == sak.mi && record.keyNum == sak.keyNum;
  }

  // Receives on a key: asked of the hardware and confirmed by it.
  bool receives(Sim::Agent& agent, const Sak& key) {
    const AssociationNumber an(key.an);
    const Sak requested = cp(agent)->rxSak(an);
    return requested.mi == key.mi && requested.keyNum == key.keyNum && hw(agent)->rxSaStatusHas(an) &&
           sameKey(hw(agent)->rxSaStatus(an), key);
  }

  // Every agent's port is open and transmits on `key`, which is in service in its old slot.
  bool securedOn(const std::vector<Sim::Agent*>& agents, const Sak& key) {
    if (key.empty()) return false;
    for (Sim::Agent* agent : agents) {
      const Sak& running = cp(*agent)->oldSakContext().sak;
      if (!cp(*agent)->controlledPortEnabled() || !sameKey(hw(*agent)->txSaStatus(), key) || running.mi != key.mi ||
          running.keyNum != key.keyNum) {
        return false;
      }
    }
    return true;
  }

  // Checked after every delivery and every timer from now on: no agent in service transmits on a
  // key that another one cannot receive, and no port in service closes again.
  void guard(std::vector<Sim::Agent*> inService) {
    watches.push_back([this, inService] {
      for (Sim::Agent* x : inService) {
        EXPECT_TRUE(cp(*x)->controlledPortEnabled()) << x->name() << " at " << sim.now();
        const SaStatus tx = hw(*x)->txSaStatus();
        if (tx.empty()) continue;
        const Sak key{tx.an.value(), tx.mi, tx.keyNum, {}, {}};
        for (Sim::Agent* y : inService) {
          if (y == x) continue;
          EXPECT_TRUE(receives(*y, key)) << x->name() << " transmits " << key << " unknown to " << y->name() << " at "
                                         << sim.now();
        }
      }
    });
  }

  int logCount(const std::string& prefix) const {
    int count = 0;
    for (const std::string& line : log.lines) count += line.rfind(prefix, 0) == 0 ? 1 : 0;
    return count;
  }

  const Lanx::IntfId eth1{"eth1"};
  // Whether join() makes the actor principal at once, or leaves that to a stand-in for the port.
  bool portStandIn = false;
  // The cipher suite of the interfaces join() makes.
  CipherSuite cipherSuite = cipherSuiteGcmAes128;
  std::vector<Zef::Ptr<PortStandIn>> standIns;
  std::map<Sim::Agent*, Lanx::IntfId> intfs;
  LogCapture log;  // made before the simulation and gone after it, so that it hears teardown too
  Sim::Simulation sim{100.0};
  std::vector<std::function<void()>> watches;
  std::deque<double> times;
};

}  // namespace Macsec::Testing
