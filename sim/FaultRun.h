#pragma once

// Fault injection on the simulation: one seed draws a network (switches in a chain, or on one
// shared segment), its faults (loss, duplication, corruption, reordering, hardware lag) and a
// series of events (cuts, rekeys, key changes, agent restarts), runs them on virtual time, then
// mends everything and lets the network rest. What must always hold is checked after every
// delivery and every timer; what must hold after the rest is checked at the end. The same seed
// draws the same run.

#include <cstdint>
#include <string>

namespace Sim {

struct FaultOutcome {
  bool passed = true;
  // The rule broken, in one line, and the virtual time it was found at.
  std::string failure;
  double time = 0;
  // What was drawn, in one line: the network, its faults and its events.
  std::string drawn;
};

struct FaultOptions {
  // Seconds of faults and events, then seconds of rest on mended links.
  double faultSeconds = 120;
  double restSeconds = 60;
  // Prints the events and the operators' log as they happen.
  bool verbose = false;
};

FaultOutcome faultRun(uint32_t seed, const FaultOptions& options = {});

}  // namespace Sim
