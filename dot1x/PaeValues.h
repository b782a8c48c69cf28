#pragma once

// The values a port access entity is described by: its side of IEEE 802.1X and where it stands.

#include <cstdint>
#include <ostream>

namespace Dot1x {

enum class PaeRole : uint8_t { supplicant, authenticator };
const char* paeRoleText(PaeRole role);
std::ostream& operator<<(std::ostream& out, PaeRole role);

enum class PaeState : uint8_t {
  down,            // the link is down: nothing is sent, no key is held
  connecting,      // the supplicant sends EAPOL-Starts; the authenticator waits for one
  authenticating,  // an EAP exchange runs, the first one of the link
  authenticated,   // the last exchange succeeded: its key is the port's (a re-authentication runs beside it)
  held,            // after a failure: the held (supplicant) or quiet (authenticator) period
  loggedOff,       // the supplicant logged off
};
const char* paeStateText(PaeState state);
std::ostream& operator<<(std::ostream& out, PaeState state);

}  // namespace Dot1x
