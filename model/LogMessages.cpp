#include "model/LogMessages.h"

namespace Macsec {

// The runs of blanks inside two explanations belong to the texts.
Zef::LogHandle MKA_KEY_IN_USE("MKA_KEY_IN_USE", 5, "Configured key %s currently in use on interface %s",
                              "Configured primary key is the operational key on the interface.", Zef::NoActionRequired,
                              0, 1.0, 0);

Zef::LogHandle MKA_FALLBACK_KEY_IN_USE("MKA_FALLBACK_KEY_IN_USE", 4,
                                       "Configured fallback key %s currently in use on interface %s",
                                       "The fallback key is the operational key on the interface. This could indicate "
                                       "a problem with the configured primary key.",
                                       "Check the primary key configuration.", 0, 1.0, 0);

Zef::LogHandle MKA_UNPROTECTED_TRAFFIC(
    "MKA_UNPROTECTED_TRAFFIC", 4, "MACSec protection is disabled on interface %s",
    "Traffic is unprotected on the interface. This may indicate a problem with configured primary and fallback keys.",
    "Check primary and fallback key configuration", 0, 1.0, 0);

Zef::LogHandle MKA_CA_CREATED("MKA_CA_CREATED", 6, "Connectivity Association for CKN %s created on interface %s",
                              "CAK-CKN is configured on the interface for security relationship       with other peers",
                              Zef::NoActionRequired, 120, 1.0, 0);

Zef::LogHandle MKA_STATE_CHG("MKA_STATE_CHG", 5, "MKA using key %s %s on interface %s",
                             "Macsec key agreement protocol state changed on the interface", Zef::NoActionRequired, 0,
                             1.0, 0);

Zef::LogHandle MKA_SESSION_ESTABLISHED("MKA_SESSION_ESTABLISHED", 6,
                                       "MKA session established with peer SCI %s::%s and CKN %s on interface %s",
                                       "Peer having this SCI added to live peer list", Zef::NoActionRequired, 120, 1.0,
                                       0);

Zef::LogHandle MKA_SAK_CREATED("MKA_SAK_CREATED", 6, "New SAK created with key id ending in %s:%s on interface %s",
                               "New Secure Association established. Reasons could be : Rekey Period Expiry,       New "
                               "KeyServer or LLPN Exhaustion",
                               Zef::NoActionRequired, 120, 1.0, 0);

Zef::LogHandle MKA_SAK_ACTIVATED("MKA_SAK_ACTIVATED", 6, "Activated SAK with key id ending in %s:%s on interface %s",
                                 "SAK activated, all data packets henceforth will be encrypted with this SAK",
                                 Zef::NoActionRequired, 120, 1.0, 0);

Zef::LogHandle MACSEC_POST_FAILURE("MACSEC_POST_FAILURE", 3,
                                   "Power On Self Test failed for %s with %d-bit key due to %s on interface %s.",
                                   "This failure blocks MACsec configuration from taking effect on this interface. "
                                   "Remove and add mac security profile on the interface to retry the test.",
                                   Zef::CallSupportIfPersists, 0, 1.0, 0);

Zef::LogHandle MKA_CAK_MISMATCH("MKA_CAK_MISMATCH", 4,
                                "MKPDU from %s with CKN %s failed its integrity check on interface %s",
                                "The peer names a key that this interface has, but its MKPDUs do not check with this "
                                "CAK: the two ends hold different CAKs under one CKN.",
                                "Check that both ends configure the same CAK for this CKN.", 120, 1.0, 0);

Zef::LogHandle MKA_EAP_KEY_REFUSED("MKA_EAP_KEY_REFUSED", 4, "No key from the EAP exchange on interface %s: %s",
                                   "An 802.1X exchange finished on the interface, but what it gave derives no "
                                   "CAK: the interface keeps the key it has, if any.",
                                   "Check the 802.1X configuration of both ends of the link.", 120, 1.0, 0);

Zef::LogHandle MKA_SAK_OFFSET_REFUSED("MKA_SAK_OFFSET_REFUSED", 3,
                                      "SAK from key server %s refused on interface %s: confidentiality offset %s "
                                      "is not offered by the data plane",
                                      "The key server asks its peers to use its key at a confidentiality offset "
                                      "that this interface's data plane cannot use (the kernel's MACsec encrypts "
                                      "from the first octet only). A key used at another offset than the key "
                                      "server's would garble every frame, so the interface does not take it.",
                                      "Set confidentiality-offset = 0 on the key server, or check the MACsec "
                                      "capability that this interface announces.",
                                      120, 1.0, 0);

Zef::LogHandle MKA_SAK_DROPPED_UNUSED("MKA_SAK_DROPPED_UNUSED", 5,
                                      "SAK with key id ending in %s:%s dropped unused on interface %s: %s",
                                      "The key server made a key and let it go before every member received on "
                                      "it, so nobody transmitted on it: the live peers changed (a new key for the "
                                      "new set follows), another member became key server, or a newer key came.",
                                      "Nothing, unless it recurs: then check the link for members that come and go.", 0,
                                      1.0, 0);

Zef::LogHandle MKA_KEYS_WITHOUT_PEER_REMOVED("MKA_KEYS_WITHOUT_PEER_REMOVED", 4,
                                             "Keys removed and port closed on interface %s: no live peer for %d s",
                                             "The port kept its keys while its peers were gone, for as long as its "
                                             "profile's keys-without-peer allows, and nobody came back.",
                                             "Check the link and the peer; a longer keys-without-peer keeps traffic "
                                             "through longer losses.",
                                             0, 1.0, 0);

Zef::LogHandle DOT1X_AUTH_FAILED("DOT1X_AUTH_FAILED", 4, "802.1X authentication failed on interface %s: %s",
                                 "An 802.1X exchange on the interface ended without a key. The port has none from "
                                 "802.1X until an exchange succeeds; one authenticated before keeps no key either.",
                                 "Check the reason: the credentials of both ends, or the RADIUS servers.", 60, 1.0, 0);

Zef::LogHandle DOT1X_RADIUS_SERVER_DOWN("DOT1X_RADIUS_SERVER_DOWN", 4, "RADIUS server %s did not answer; down for %d s",
                                        "A request went unanswered through its timeout and every retry. Ports move "
                                        "to the next server, and come back to this one after its dead time.",
                                        "Check that the server runs, is reachable, and knows this host as a client "
                                        "with the same secret.",
                                        0, 1.0, 0);

void clearLogHistory() {
  for (Zef::LogHandle* handle :
       {&MKA_KEY_IN_USE, &MKA_FALLBACK_KEY_IN_USE, &MKA_UNPROTECTED_TRAFFIC, &MKA_CA_CREATED, &MKA_STATE_CHG,
        &MKA_SESSION_ESTABLISHED, &MKA_SAK_CREATED, &MKA_SAK_ACTIVATED, &MACSEC_POST_FAILURE, &MKA_CAK_MISMATCH,
        &MKA_EAP_KEY_REFUSED, &MKA_SAK_OFFSET_REFUSED, &MKA_SAK_DROPPED_UNUSED, &MKA_KEYS_WITHOUT_PEER_REMOVED,
        &DOT1X_AUTH_FAILED, &DOT1X_RADIUS_SERVER_DOWN}) {
    handle->clearHistory();
  }
}

}  // namespace Macsec
