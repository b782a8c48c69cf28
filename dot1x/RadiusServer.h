#pragma once

// A RADIUS server as an engine's authenticators use it: its name, how it is reached, its secret
// and how long it is waited for. Where it is, and the transport's own settings, are the owner's.

#include <cstdint>
#include <ostream>
#include <string>

#include "model/StoredKey.h"

namespace Dot1x {

enum class RadiusTransport : uint8_t { udp, tls };
const char* radiusTransportText(RadiusTransport transport);

// A server as the authenticators use it; where it is and how it is reached are the transport's.
struct RadiusServerSettings {
  std::string name;
  RadiusTransport transport = RadiusTransport::udp;
  // The shared secret; over TLS, "radsec" (RFC 6614).
  Macsec::StoredKey secret;
  // A request unanswered for the timeout goes again (over UDP), at most `retries` times, each try
  // waiting twice as long as the one before; a server that answers none of them is down for the
  // dead time, and ports move to the next one.
  uint32_t timeout = 3;
  uint32_t retries = 2;
  uint32_t deadTime = 60;

  bool operator==(const RadiusServerSettings& other) const;
};
std::ostream& operator<<(std::ostream& out, const RadiusServerSettings& server);

}  // namespace Dot1x
