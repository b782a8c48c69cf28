#pragma once

// What each interface's session did lately, as the daemon sees it, to the second: since when the
// key in use transmits, when the port was last secured, the last change and its reason, and
// whether frames from the peers decrypt on the key they say they transmit on. The engine keeps no
// history; the daemon looks once a second and notes what differs.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "agent/MacsecKernel.h"
#include "engine/Engine.h"

namespace Macsec {

// A key by its identity: the key server's member identifier, the key number and the association
// number.
struct KeyIdentity {
  MemberId mi;
  uint32_t keyNum = 0;
  uint8_t an = 0;
  bool operator==(const KeyIdentity&) const noexcept = default;
};

class SessionHistory {
 public:
  struct Change {
    double at = 0;  // the wall clock, UTC seconds
    std::string reason;
  };

  // One interface's history.
  struct Interface {
    std::optional<KeyIdentity> transmitKey;
    double transmitSince = 0;
    // Since when the port is secured; 0 while it is not.
    double securedSince = 0;
    uint64_t transmitKeyChanges = 0;
    std::optional<Change> lastChange;
    // The peers say they transmit on a key the kernel holds, frames arrive, and none decrypts.
    bool noFrameDecrypts = false;
    uint64_t noFrameDecryptsCount = 0;

    // What was seen last, to tell what changed.
    std::set<Sci> livePeers;
    Sci keyServer;
    std::string port;
    std::optional<uint64_t> decrypted;
    std::optional<uint64_t> refused;
    int framesWithoutDecrypting = 0;
  };

  // Notes what changed on the interface since the last look, at `now` (the wall clock).
  void look(const Engine& engine, const Lanx::IntfId& intf, double now);
  // Looks at the kernel's counters of the interface's MACsec link: frames that arrived on it, in
  // two reads in a row, while none decrypted on the key the peers transmit on, are said once.
  // Returns true when that begins.
  bool countersAre(const Engine& engine, const Lanx::IntfId& intf, const MacsecLinkCounters& counters);
  void forget(const Lanx::IntfId& intf) { interfaces_.erase(intf); }

  const Interface* of(const Lanx::IntfId& intf) const;

 private:
  std::map<Lanx::IntfId, Interface> interfaces_;
};

// The actor whose key the port uses: the principal one, else the first there is.
Zef::Ptr<MkaActorStatus> principalActor(const Zef::Ptr<MkaPortStatus>& port);

// The controlled port in words: "closed", "open, unprotected" or "secured".
std::string controlledPortState(const Zef::Ptr<CpStatus>& cp);

// The key the controlled port transmits on, if one.
std::optional<KeyIdentity> transmitKeyOf(const Zef::Ptr<CpStatus>& cp);

// An SCI as `ip macsec` prints it: 16 hexadecimal digits, the address and then the port number.
std::string sciText(const Sci& sci);

}  // namespace Macsec
