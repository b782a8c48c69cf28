#pragma once

#include "platform/Log.h"

namespace Macsec {

// The operators' catalogue: every message the engine writes to the system log. Each is rate
// limited per rate key (its arguments) by the interval it was built with.
extern Zef::LogHandle MKA_KEY_IN_USE;
extern Zef::LogHandle MKA_FALLBACK_KEY_IN_USE;
extern Zef::LogHandle MKA_UNPROTECTED_TRAFFIC;
extern Zef::LogHandle MKA_CA_CREATED;
extern Zef::LogHandle MKA_STATE_CHG;
extern Zef::LogHandle MKA_SESSION_ESTABLISHED;
extern Zef::LogHandle MKA_SAK_CREATED;
extern Zef::LogHandle MKA_SAK_ACTIVATED;
extern Zef::LogHandle MACSEC_POST_FAILURE;
// Once per peer, CKN and interface in its interval: MKPDUs of a known CKN that do not check.
extern Zef::LogHandle MKA_CAK_MISMATCH;
extern Zef::LogHandle MKA_EAP_KEY_REFUSED;
extern Zef::LogHandle MKA_SAK_OFFSET_REFUSED;
extern Zef::LogHandle MKA_SAK_DROPPED_UNUSED;
extern Zef::LogHandle MKA_KEYS_WITHOUT_PEER_REMOVED;
extern Zef::LogHandle DOT1X_AUTH_FAILED;
extern Zef::LogHandle DOT1X_RADIUS_SERVER_DOWN;

// Forgets the rate-limit history of every message, as a restarted agent would.
void clearLogHistory();

}  // namespace Macsec
