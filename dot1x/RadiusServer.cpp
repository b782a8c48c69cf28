#include "dot1x/RadiusServer.h"

namespace Dot1x {

const char* radiusTransportText(RadiusTransport transport) { return transport == RadiusTransport::tls ? "tls" : "udp"; }

bool RadiusServerSettings::operator==(const RadiusServerSettings& other) const {
  return name == other.name && transport == other.transport && secret.sameKeyAs(other.secret) &&
         timeout == other.timeout && retries == other.retries && deadTime == other.deadTime;
}

std::ostream& operator<<(std::ostream& out, const RadiusServerSettings& server) {
  return out << server.name << " (" << radiusTransportText(server.transport) << ")";
}

}  // namespace Dot1x
