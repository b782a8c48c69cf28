#include "agent/Capabilities.h"

#include <linux/capability.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace Macsec {

namespace {

// The effective capabilities of this process, as the kernel shows them in /proc/self/status.
uint64_t effectiveCapabilities() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("CapEff:", 0) == 0) return std::stoull(line.substr(7), nullptr, 16);
  }
  return 0;
}

}  // namespace

std::vector<std::string> missingCapabilities(bool kernelDataPlane, bool fips) {
  const uint64_t effective = effectiveCapabilities();
  auto has = [effective](int capability) { return (effective >> capability & 1) != 0; };
  std::vector<std::string> missing;
  if (!has(CAP_NET_RAW)) missing.push_back("CAP_NET_RAW, to send and receive EAPOL frames");
  if (kernelDataPlane && !has(CAP_NET_ADMIN)) missing.push_back("CAP_NET_ADMIN, to make and key MACsec links");
  if (kernelDataPlane && fips && !has(CAP_SYS_ADMIN)) {
    missing.push_back("CAP_SYS_ADMIN, to test the kernel's MACsec in a network namespace of its own");
  }
  return missing;
}

}  // namespace Macsec
