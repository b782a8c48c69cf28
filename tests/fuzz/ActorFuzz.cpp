// Forged frames from an insider that holds the CAK, into a pair of engines on one link: the fuzzer's
// bytes choose the network's seed, then, eight bytes a frame, when a member's last MKPDU goes out
// again changed and with a good ICV. What must always hold on the harness must hold here too, and
// the pair must end secured on one key once the forgeries stop. `mkafault --forged FILE` replays
// an input.

// OpenSSL's random number generator is replaced by a seeded one, through the interface that OpenSSL
// 3 keeps for it although it is deprecated: the only way to do so without a provider of our own.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/rand.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "sim/FaultRun.h"

namespace {

// Every input runs on the same random octets, so that what it reaches depends on it alone, and a
// run of the fuzzer from a fixed seed goes the same way every time. (The keys' stored form draws a
// nonce each, and its text is compared: random octets would steer the fuzzer's mutations.)
std::mt19937_64 drawn;

int seededBytes(unsigned char* out, int count) {
  for (int i = 0; i < count; ++i) out[i] = static_cast<unsigned char>(drawn());
  return 1;
}

int alwaysSeeded() { return 1; }

const RAND_METHOD seededMethod = {nullptr, seededBytes, nullptr, nullptr, seededBytes, alwaysSeeded};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  RAND_set_rand_method(&seededMethod);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  drawn.seed(1);
  const Sim::FaultOutcome outcome = Sim::forgedRun(std::string(reinterpret_cast<const char*>(data), size));
  if (!outcome.passed) {
    std::fprintf(stderr, "at %.3f s: %s\n  drawn: %s\n", outcome.time, outcome.failure.c_str(), outcome.drawn.c_str());
    std::abort();
  }
  return 0;
}
