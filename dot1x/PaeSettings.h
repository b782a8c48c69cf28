#pragma once

// How one port authenticates: its side of IEEE 802.1X, what it proves itself with, and the
// periods of its port access entity. The defaults are the standard's where it has them.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "dot1x/PaeValues.h"
#include "dot1x/RadiusServer.h"
#include "dot1x/TlsSession.h"

namespace Dot1x {

struct PaeSettings {
  PaeRole role = PaeRole::supplicant;
  // The identity the supplicant gives in its EAP Response/Identity.
  std::string identity;
  // The certificates, key and trust of this side, loaded for its role (peer or server), and what
  // they were loaded from (none for an authenticator that passes EAP through): two settings with the same source are
  // the same settings, whichever loading of it each holds.
  std::shared_ptr<const TlsContext> tls;
  std::string tlsSource;
  // The authenticator's RADIUS servers, in order of preference. When it names any, EAP passes
  // through to them and the authenticator has no certificates of its own; its requests name it
  // with the NAS identifier.
  std::vector<RadiusServerSettings> radius;
  std::string nasIdentifier;
  // The longest EAP-TLS fragment sent, in octets: an EAPOL frame of it fits a 1500-octet MTU.
  size_t fragmentOctets = 1400;

  // The supplicant: an EAPOL-Start every start period until an authenticator answers, at most
  // maxStart of them; an exchange in which the authenticator stays silent for the authentication
  // period ends; after a failure it waits the held period before it starts again.
  uint32_t startPeriod = 30;
  uint32_t maxStart = 3;
  uint32_t authPeriod = 30;
  uint32_t heldPeriod = 60;

  // The authenticator: a request unanswered for the retransmission period goes again, at most
  // maxRetransmissions times; after a failure it waits the quiet period before it asks again; a
  // port authenticated for the re-authentication period (0: never) is authenticated anew.
  uint32_t retransmitPeriod = 3;
  uint32_t maxRetransmissions = 4;
  uint32_t quietPeriod = 60;
  uint32_t reauthPeriod = 3600;

  bool passThrough() const noexcept { return !radius.empty(); }

  bool operator==(const PaeSettings& other) const;
};
std::ostream& operator<<(std::ostream& out, const PaeSettings& settings);

}  // namespace Dot1x
