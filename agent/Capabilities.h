#pragma once

// The capabilities the daemon needs for what its configuration asks of it, checked before it
// starts: without them it would run and wait for interfaces it can never use.

#include <string>
#include <vector>

namespace Macsec {

// Each capability the process lacks, with what it is needed for: CAP_NET_RAW for the EAPOL
// sockets, and with the kernel data plane CAP_NET_ADMIN for its MACsec links.
std::vector<std::string> missingCapabilities(bool kernelDataPlane);

}  // namespace Macsec
