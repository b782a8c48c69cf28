#pragma once

// Two switches of the benchmarks, "a" and "b", joined by numbered links, every interface running a
// port from its configuration with a primary key, and a fallback key when one is given. The links
// come up together, or one after another over `upOverSeconds`, the two ends of each at once.

#include <string>
#include <utility>

#include "sim/Simulation.h"

namespace Bench {

inline Lanx::IntfId intfNumber(int i) { return Lanx::IntfId("Ethernet" + std::to_string(i)); }

inline void linkedSwitchesIs(Sim::Simulation& sim, int links, const Sim::Key& key, const Sim::Key* fallback = nullptr,
                             double delay = 0.001, double upOverSeconds = 0.0) {
  Sim::Agent& a = sim.agentIs("a");
  Sim::Agent& b = sim.agentIs("b");
  for (int i = 0; i < links; ++i) {
    sim.linkIs(a, intfNumber(i), b, intfNumber(i), delay);
    for (auto [agent, side] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
      Sim::InterfaceConfig config;
      config.mac =
          Lanx::EthAddr({2, 0, 0, static_cast<uint8_t>(side), static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
      config.runPort = true;
      agent->interfaceIs(intfNumber(i), config);
      agent->keyIs(intfNumber(i), key);
      if (fallback) agent->defaultKeyIs(intfNumber(i), *fallback);
    }
    if (upOverSeconds > 0) sim.runFor(upOverSeconds / links);
  }
}

}  // namespace Bench
