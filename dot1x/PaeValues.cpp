#include "dot1x/PaeValues.h"

namespace Dot1x {

const char* paeRoleText(PaeRole role) {
  switch (role) {
    case PaeRole::supplicant:
      return "supplicant";
    case PaeRole::authenticator:
      return "authenticator";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, PaeRole role) { return out << paeRoleText(role); }

const char* paeStateText(PaeState state) {
  switch (state) {
    case PaeState::down:
      return "down";
    case PaeState::connecting:
      return "connecting";
    case PaeState::authenticating:
      return "authenticating";
    case PaeState::authenticated:
      return "authenticated";
    case PaeState::held:
      return "held";
    case PaeState::loggedOff:
      return "logged off";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, PaeState state) { return out << paeStateText(state); }

}  // namespace Dot1x
