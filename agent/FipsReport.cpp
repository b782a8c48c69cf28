#include "agent/FipsReport.h"

#include <openssl/evp.h>
#include <openssl/provider.h>

#include <fstream>

namespace Macsec {

namespace {

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  const size_t last = text.find_last_not_of(" \t\r\n");
  return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

// The kernel's own FIPS mode: "on", "off", or "unknown" where the kernel does not say.
std::string kernelFipsMode(const std::string& procRoot) {
  std::ifstream file(procRoot + "/sys/crypto/fips_enabled");
  std::string value;
  if (!std::getline(file, value)) return "unknown";
  return trimmed(value) == "0" ? "off" : "on";
}

// The self test of every gcm(aes) implementation the kernel has registered: "passed" when each
// says so, "not run" when one was registered without it (a kernel that fails one does not register
// it), "unknown" when none is registered yet (the kernel loads one with the first MACsec link).
std::string kernelGcmAesSelfTest(const std::string& procRoot) {
  std::ifstream file(procRoot + "/crypto");
  std::string line;
  bool inGcmAes = false;
  int passed = 0;
  int other = 0;
  while (std::getline(file, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string field = trimmed(line.substr(0, colon));
    const std::string value = trimmed(line.substr(colon + 1));
    if (field == "name") inGcmAes = value == "gcm(aes)";
    if (inGcmAes && field == "selftest") ++(value == "passed" ? passed : other);
  }
  if (other > 0) return "not run";
  return passed > 0 ? "passed" : "unknown";
}

}  // namespace

nlohmann::json fipsReport(bool requested, const std::string& procRoot) {
  const bool library = OSSL_PROVIDER_available(nullptr, "fips") == 1 && EVP_default_properties_is_fips_enabled(nullptr);
  return nlohmann::json{
      {"requested", requested},
      {"crypto-library", library ? "FIPS mode: the FIPS provider passed its self tests" : "not in FIPS mode"},
      {"kernel-fips-mode", kernelFipsMode(procRoot)},
      {"kernel-gcm-aes-self-test", kernelGcmAesSelfTest(procRoot)},
  };
}

}  // namespace Macsec
