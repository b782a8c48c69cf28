// mkafault: fault injection on simulated switches. Each seed draws a network, its faults and its
// events, runs them on virtual time and checks what must hold; a failing seed prints the command
// that replays it. With --forged, replays an input of the actor fuzzer instead. Exits 0 only if
// every run passed.

#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "sim/FaultRun.h"

namespace {

// Runs one fault run in a process of its own, so that it goes the same way alone or among others
// (the harness's memory, left by earlier runs, never steers a later one).
Sim::FaultOutcome isolated(const std::function<Sim::FaultOutcome()>& run) {
  std::cout.flush();
  int channel[2];
  if (pipe(channel) != 0) return run();
  const pid_t child = fork();
  if (child < 0) {
    close(channel[0]);
    close(channel[1]);
    return run();
  }
  if (child == 0) {
    close(channel[0]);
    const Sim::FaultOutcome outcome = run();
    std::cout.flush();
    const std::string report = std::string(outcome.passed ? "1" : "0") + "\n" + std::to_string(outcome.time) + "\n" +
                               outcome.failure + "\n" + outcome.drawn + "\n";
    for (size_t sent = 0; sent < report.size();) {
      const ssize_t n = write(channel[1], report.data() + sent, report.size() - sent);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(channel[1]);
  std::string report;
  char buffer[4096];
  for (ssize_t n; (n = read(channel[0], buffer, sizeof buffer)) > 0;) report.append(buffer, static_cast<size_t>(n));
  close(channel[0]);
  int status = 0;
  waitpid(child, &status, 0);
  Sim::FaultOutcome outcome;
  std::istringstream lines(report);
  std::string passed;
  std::string time;
  if (!std::getline(lines, passed) || !std::getline(lines, time) || !std::getline(lines, outcome.failure) ||
      !std::getline(lines, outcome.drawn)) {
    outcome.passed = false;
    outcome.failure = "crashed: the run ended without an outcome (status " + std::to_string(status) + ")";
    return outcome;
  }
  outcome.passed = passed == "1";
  outcome.time = std::stod(time);
  return outcome;
}

}  // namespace

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
  std::vector<std::string> forged;
  app.add_option("--forged", forged,
                 "replay these inputs of the actor fuzzer (a pair of switches, forged frames), with the fuzzer's "
                 "timing unless --fault-seconds or --rest-seconds say otherwise")
      ->check(CLI::ExistingFile);
  std::string seedFile;
  app.add_option("--seed-file", seedFile,
                 "run the seeds this file names, one a line before what it once found ('#' starts a comment)")
      ->check(CLI::ExistingFile)
      ->excludes("--first", "--seeds");
  CLI11_PARSE(app, argc, argv);

  if (!forged.empty()) {
    Sim::FaultOptions timing = Sim::forgedOptions();
    if (app.count("--fault-seconds") + app.count("--rest-seconds") > 0) {
      timing.faultSeconds = options.faultSeconds;
      timing.restSeconds = options.restSeconds;
      timing.stopWhenSettled = false;
    }
    timing.verbose = options.verbose;
    int failed = 0;
    for (const std::string& path : forged) {
      std::ifstream file(path, std::ios::binary);
      const std::string input{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
      const Sim::FaultOutcome outcome = Sim::forgedRun(input, timing);
      failed += outcome.passed ? 0 : 1;
      std::cout << path << ": " << outcome.drawn << "\n  "
                << (outcome.passed ? "passed" : "failed at " + std::to_string(outcome.time) + " s: " + outcome.failure)
                << "\n";
    }
    std::cout << forged.size() - failed << " passed, " << failed << " failed\n";
    return failed == 0 ? 0 : 1;
  }

  std::vector<uint32_t> drawn;
  if (!seedFile.empty()) {
    std::ifstream file(seedFile);
    for (std::string line; std::getline(file, line);) {
      std::istringstream words(line.substr(0, line.find('#')));
      uint32_t seed = 0;
      if (words >> seed) drawn.push_back(seed);
    }
    if (drawn.empty()) {
      std::cerr << seedFile << ": names no seed\n";
      return 2;
    }
  } else {
    for (uint64_t seed = first; seed < static_cast<uint64_t>(first) + seeds && seed <= UINT32_MAX; ++seed) {
      drawn.push_back(static_cast<uint32_t>(seed));
    }
  }

  uint32_t failed = 0;
  std::map<std::string, uint32_t> byRule;
  for (const uint32_t seed : drawn) {
    const Sim::FaultOutcome outcome = isolated([&] { return Sim::faultRun(seed, options); });
    if (outcome.passed) continue;
    ++failed;
    ++byRule[outcome.failure.substr(0, outcome.failure.find(':'))];
    std::cout << "seed " << seed << " failed at " << outcome.time << " s: " << outcome.failure
              << "\n  drawn: " << outcome.drawn << "\n  replay: mkafault --first " << seed << " --seeds 1 --verbose\n";
  }
  const uint32_t ran = static_cast<uint32_t>(drawn.size());
  if (!seedFile.empty()) {
    std::cout << ran << " seeds of " << seedFile << ": " << ran - failed << " passed, " << failed << " failed\n";
  } else {
    std::cout << ran << " seeds from " << first << ": " << ran - failed << " passed, " << failed << " failed\n";
  }
  for (const auto& [rule, count] : byRule) std::cout << "  " << count << " " << rule << "\n";
  return failed == 0 ? 0 : 1;
}
