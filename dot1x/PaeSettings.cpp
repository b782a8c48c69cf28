#include "dot1x/PaeSettings.h"

#include <tuple>

namespace Dot1x {

bool PaeSettings::operator==(const PaeSettings& other) const {
  const auto fields = [](const PaeSettings& s) {
    return std::tie(s.role, s.identity, s.tlsSource, s.fragmentOctets, s.startPeriod, s.maxStart, s.authPeriod,
                    s.heldPeriod, s.retransmitPeriod, s.maxRetransmissions, s.quietPeriod, s.reauthPeriod, s.radius,
                    s.nasIdentifier);
  };
  if (fields(*this) != fields(other)) return false;
  // Without a source to compare, only the same loading is the same.
  return !tlsSource.empty() || tls == other.tls;
}

std::ostream& operator<<(std::ostream& out, const PaeSettings& settings) {
  out << settings.role;
  if (settings.role == PaeRole::supplicant) {
    return out << " identity=" << settings.identity << " start=" << settings.startPeriod << "x" << settings.maxStart
               << " auth=" << settings.authPeriod << " held=" << settings.heldPeriod;
  }
  out << " retransmit=" << settings.retransmitPeriod << "x" << settings.maxRetransmissions
      << " quiet=" << settings.quietPeriod << " reauth=" << settings.reauthPeriod;
  for (const RadiusServerSettings& server : settings.radius) out << " radius=" << server;
  return out;
}

}  // namespace Dot1x
