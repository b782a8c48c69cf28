#pragma once

// What stands behind FIPS mode on this host, as `mkactl show` reports it: whether the crypto
// library runs in FIPS mode (OpenSSL's FIPS provider loaded, which it is only once its own self
// tests have passed, and FIPS the default for every algorithm), and what the kernel says of its own
// mode and of the self test of the cipher its MACsec uses. Each is read as it is, never assumed
// from what the configuration asked for.

#include <string>

#include <nlohmann/json.hpp>

namespace Macsec {

// `requested` is the configuration's fips; `procRoot` is where the kernel's /proc is mounted.
nlohmann::json fipsReport(bool requested, const std::string& procRoot = "/proc");

}  // namespace Macsec
