#include "dot1x/PaeSettings.h"

namespace Dot1x {

std::ostream& operator<<(std::ostream& out, const PaeSettings& settings) {
  out << settings.role;
  if (settings.role == PaeRole::supplicant) {
    return out << " identity=" << settings.identity << " start=" << settings.startPeriod << "x" << settings.maxStart
               << " auth=" << settings.authPeriod << " held=" << settings.heldPeriod;
  }
  return out << " retransmit=" << settings.retransmitPeriod << "x" << settings.maxRetransmissions
             << " quiet=" << settings.quietPeriod << " reauth=" << settings.reauthPeriod;
}

}  // namespace Dot1x
