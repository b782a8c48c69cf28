// mkafault: fault injection on simulated switches. Each seed draws a network, its faults and its
// events, runs them on virtual time and checks what must hold; a failing seed prints the command
// that replays it. Exits 0 only if every seed passed.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iostream>
#include <map>
#include <string>

#include "sim/FaultRun.h"

int main(int argc, char** argv) {
  CLI::App app{"mkafault: fault injection on simulated MKA switches"};
  uint32_t first = 1;
  uint32_t seeds = 100;
  Sim::FaultOptions options;
  app.add_option("--first", first, "first seed")->check(CLI::Range(0u, UINT32_MAX));
  app.add_option("--seeds", seeds, "number of seeds, from the first on")->check(CLI::Range(1u, 10000000u));
  app.add_option("--fault-seconds", options.faultSeconds, "virtual seconds of faults and events")
      ->check(CLI::Range(10.0, 3600.0));
  app.add_option("--rest-seconds", options.restSeconds, "virtual seconds of rest before the final check")
      ->check(CLI::Range(10.0, 3600.0));
  app.add_flag("--verbose", options.verbose, "print the events and the operators' log of each run");
  CLI11_PARSE(app, argc, argv);

  uint32_t failed = 0;
  std::map<std::string, uint32_t> byRule;
  for (uint64_t seed = first; seed < static_cast<uint64_t>(first) + seeds && seed <= UINT32_MAX; ++seed) {
    const Sim::FaultOutcome outcome = Sim::faultRun(static_cast<uint32_t>(seed), options);
    if (outcome.passed) continue;
    ++failed;
    ++byRule[outcome.failure.substr(0, outcome.failure.find(':'))];
    std::cout << "seed " << seed << " failed at " << outcome.time << " s: " << outcome.failure
              << "\n  drawn: " << outcome.drawn << "\n  replay: mkafault --first " << seed << " --seeds 1 --verbose\n";
  }
  std::cout << seeds << " seeds from " << first << ": " << seeds - failed << " passed, " << failed << " failed\n";
  for (const auto& [rule, count] : byRule) std::cout << "  " << count << " " << rule << "\n";
  return failed == 0 ? 0 : 1;
}
