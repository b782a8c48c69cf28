#pragma once

// The capabilities the daemon needs for what its configuration asks of it, checked before it
// starts: without them it would run and wait for interfaces it can never use.

#include <string>
#include <vector>

namespace Macsec {

// Each capability the process lacks, with what it is needed for: CAP_NET_RAW for the EAPOL
// sockets; with the kernel data plane CAP_NET_ADMIN for its MACsec links, and in FIPS mode
// CAP_SYS_ADMIN too, for the network namespace of its known-answer test.
std::vector<std::string> missingCapabilities(bool kernelDataPlane, bool fips);

}  // namespace Macsec
