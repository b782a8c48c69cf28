#pragma once

// Fault injection on the simulation: one seed draws a network (switches in a chain, or on one
// shared segment), its faults (loss, duplication, corruption, reordering, hardware lag) and a
// series of events (cuts, rekeys, key changes, agent restarts), runs them on virtual time, then
// mends everything and lets the network rest. What must always hold is checked after every
// delivery and every timer; what must hold after the rest is checked at the end. The same seed
// draws the same run (but for the members' random identifiers).

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
  // Frames forged by an insider that holds the CAK, eight bytes each: when, whose last MKPDU, and
  // how it is changed before it goes out again with a good ICV (the wire is then frames).
  std::string forged;
  // Only a pair of switches on one clean link, with no events: the forged frames are the only
  // faults.
  bool pairOnly = false;
  // The rest ends as soon as the network has settled (every link secured on one key, nothing
  // pending, each member holding exactly the others live) for an MKPDU period, and at the latest
  // after restSeconds.
  bool stopWhenSettled = false;
};

FaultOutcome faultRun(uint32_t seed, const FaultOptions& options = {});

// The actor fuzzer's timing: forged frames within the first 5 s (as the pair meets, keys its first
// SAK and settles), then rest until the pair has settled. Inputs found with other timings replay
// with theirs too.
FaultOptions forgedOptions();

// A run of a pair of switches on one clean link that takes forged frames: the input's first two
// octets are the seed, the rest the forgeries (at most 64). The actor fuzzer's run, and its replay.
FaultOutcome forgedRun(const std::string& input, const FaultOptions& options = forgedOptions());

}  // namespace Sim
