#pragma once

// What the supplicant and the authenticator of a port do alike: the frames they send, the counts
// of what crosses the port, and the port's key and status as an exchange ends.

#include <string>
#include <string_view>

#include "dot1x/Eapol.h"
#include "dot1x/PaeStatus.h"
#include "dot1x/TlsSession.h"
#include "model/HwStatus.h"

namespace Dot1x {

// An EAPOL frame of the port, to the PAE group address.
std::string paeFrame(const Lanx::EthAddr& source, EapolType type, std::string_view body);

// Counts a frame read (by packet type, and an EAP packet by code) or sent.
void countReceived(PaePortStatus& status, const EapolFrame& frame);
void countSent(PaePortStatus& status, EapolType type, std::string_view body);
void countDiscarded(PaePortStatus& status, const char* reason);

// The end of an exchange that succeeded: the interface's EAP key, and the status of the success.
// `nextReauthAt` is 0 when none is due.
void authenticated(EapKeyStatus& keys, PaePortStatus& status, const EapKey& key, double now, double nextReauthAt);
// The same, of an exchange that ran here: the key of its TLS session, and who the peer proved to be.
void authenticated(EapKeyStatus& keys, PaePortStatus& status, Dot1xType side, const TlsSession& session,
                   const Lanx::EthAddr& myMac, const Lanx::EthAddr& peerMac, double now, double nextReauthAt);
// The end of one that failed: the reason, counted and shown.
void failureIs(PaePortStatus& status, const std::string& reason, double now);

}  // namespace Dot1x
