#pragma once

// Scenarios of MKA agents on the simulation harness, in virtual time.

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "model/LogMessages.h"
#include "sim/Simulation.h"

namespace Macsec::Testing {

// The published 128-bit CAK and CKN.
inline constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";
inline constexpr const char* kCak = "135bd758b0ee5c11c55ff6ab19fdb199";

inline Lanx::EthAddr mac(uint8_t last) { return Lanx::EthAddr({0x00, 0x1c, 0x73, 0x00, 0x00, last}); }

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

class Scenario : public ::testing::Test {
 protected:
  Scenario() {
    Macsec::clearLogHistory();
    Zef::logSinkIs([this](const Zef::LogRecord& r) { logs.push_back(r.handle->name().stdString() + " " + r.text); });
    sim.observerIs([this] {
      for (auto& watch : watches) watch();
    });
  }
  ~Scenario() override { Zef::logSinkIs(nullptr); }

  // An interface and a principal actor with the shared key on an agent.
  Zef::Ptr<MkaActorStatus> join(Sim::Agent& agent, uint8_t macByte, uint8_t priority = 16,
                                Dot1x::Dot1xType type = Dot1x::dot1xTypePreSharedKey, const char* ckn = kCkn,
                                uint16_t portId = 1, const Lanx::IntfId* intf = nullptr) {
    const Lanx::IntfId& eth1 = intf ? *intf : this->eth1;
    Sim::PortConfig config;
    config.mac = mac(macByte);
    config.portId = portId;
    config.keyServerPriority = priority;
    config.dot1xType = type;
    agent.portIs(eth1, config);
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

  int logCount(const std::string& prefix) const {
    int count = 0;
    for (const std::string& line : logs) count += line.rfind(prefix, 0) == 0 ? 1 : 0;
    return count;
  }

  const Lanx::IntfId eth1{"eth1"};
  // Whether join() makes the actor principal at once, or leaves that to a stand-in for the port.
  bool portStandIn = false;
  std::vector<Zef::Ptr<PortStandIn>> standIns;
  Sim::Simulation sim{100.0};
  std::vector<std::string> logs;
  std::vector<std::function<void()>> watches;
  std::deque<double> times;
};

}  // namespace Macsec::Testing
