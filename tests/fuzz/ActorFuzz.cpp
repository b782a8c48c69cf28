// Forged frames from an insider that holds the CAK, into a pair of engines on one link: the fuzzer's
// bytes choose the network's seed, then, eight bytes a frame, when a member's last MKPDU goes out
// again changed and with a good ICV. What must always hold on the harness must hold here too, and
// the pair must end secured on one key once the forgeries stop. `mkafault --forged FILE` replays
// an input.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/FaultRun.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Sim::FaultOutcome outcome = Sim::forgedRun(std::string(reinterpret_cast<const char*>(data), size));
  if (!outcome.passed) {
    std::fprintf(stderr, "at %.3f s: %s\n  drawn: %s\n", outcome.time, outcome.failure.c_str(), outcome.drawn.c_str());
    std::abort();
  }
  return 0;
}
