#include "agent/SessionHistory.h"

#include <cstdio>

#include "model/MessageCounterData.h"

namespace Macsec {

namespace {

// Untagged frames the SecY refused that were MKPDUs or other EAPOL frames, which always arrive
// untagged: every frame the engine's codec counted on the interface, taken or refused.
uint64_t eapolFramesOf(const Memtab::MessageCounterData& c) {
  return c.inMkpdus + c.inMalformed + c.inNotMka + c.inBadVersion + c.inUnsupportedAgility + c.inUnknownCkn +
         c.inBadIcv + c.inBadKeyWrap + c.inReplayed + c.inNotKeyServer + c.inOffsetRefused;
}

std::string keyText(const KeyIdentity& key) {
  return "key " + std::to_string(key.keyNum) + " (AN " + std::to_string(key.an) + ") of key server " +
         keyServerTail(key.mi);
}

// Whether a live peer says it transmits on a key this port holds for receive.
bool peerTransmitsOnHeldKey(const Zef::Ptr<MkaActorStatus>& actor, const Zef::Ptr<CpStatus>& cp) {
  if (!actor || !cp) return false;
  for (auto it = actor->livePeerIter(); it; ++it) {
    const SakUseInfo& use = actor->livePeer(it.key())->sakUseInfo();
    for (const KeyInfo& key : {use.latestKey, use.oldKey}) {
      if (!key.tx) continue;
      const Sak held = cp->rxSak(AssociationNumber(key.an));
      if (!held.empty() && held.mi == key.mi && held.keyNum == key.keyNum) return true;
    }
  }
  return false;
}

}  // namespace

std::string sciText(const Sci& sci) {
  char text[17];
  const auto& octets = sci.addr.bytes();
  std::snprintf(text, sizeof text, "%02x%02x%02x%02x%02x%02x%04x", octets[0], octets[1], octets[2], octets[3],
                octets[4], octets[5], sci.portId);
  return text;
}

Zef::Ptr<MkaActorStatus> principalActor(const Zef::Ptr<MkaPortStatus>& port) {
  if (!port) return nullptr;
  Zef::Ptr<MkaActorStatus> first;
  for (auto it = port->actorStatusIter(); it; ++it) {
    const Zef::Ptr<MkaActorStatus> actor = port->actorStatus(it.key());
    if (actor->principal()) return actor;
    if (!first) first = actor;
  }
  return first;
}

std::optional<KeyIdentity> transmitKeyOf(const Zef::Ptr<CpStatus>& cp) {
  if (!cp) return std::nullopt;
  for (const SakContext& context : {cp->latestSakContext(), cp->oldSakContext()}) {
    if (context.txEnabled && !context.sak.empty()) {
      return KeyIdentity{context.sak.mi, context.sak.keyNum, context.sak.an};
    }
  }
  return std::nullopt;
}

std::string controlledPortState(const Zef::Ptr<CpStatus>& cp) {
  if (!cp || !cp->controlledPortEnabled()) return "closed";
  return cp->unprotectedTraffic() ? "open, unprotected" : "secured";
}

void SessionHistory::look(const Engine& engine, const Lanx::IntfId& intf, double now) {
  Interface& h = interfaces_[intf];
  const Zef::Ptr<Status>& status = engine.status();
  const Zef::Ptr<CpStatus> cp = status->cpStatus(intf);
  const Zef::Ptr<MkaPortStatus> port = status->portStatus(intf);
  const Zef::Ptr<MkaActorStatus> actor = principalActor(port);
  std::string reasons;
  auto changed = [&](const std::string& reason) { reasons += (reasons.empty() ? "" : "; ") + reason; };

  if (const std::string state = controlledPortState(cp); state != h.port) {
    if (!h.port.empty() || state != "closed") changed("port " + state);
    h.securedSince = state == "secured" ? now : 0;
    h.port = state;
  }
  const Sci keyServer = actor ? actor->keyServer() : Sci();
  if (keyServer != h.keyServer) {
    if (!keyServer.isZero()) {
      changed(port && keyServer == port->mySci() ? "this port is the key server" : "key server " + sciText(keyServer));
    }
    h.keyServer = keyServer;
  }
  std::set<Sci> live;
  if (actor) {
    for (auto it = actor->livePeerIter(); it; ++it) live.insert(actor->livePeer(it.key())->baseInfo().sci);
  }
  for (const Sci& sci : live) {
    if (!h.livePeers.contains(sci)) changed("peer " + sciText(sci) + " live");
  }
  for (const Sci& sci : h.livePeers) {
    if (!live.contains(sci)) changed("peer " + sciText(sci) + " no longer live");
  }
  h.livePeers = std::move(live);
  if (const std::optional<KeyIdentity> key = transmitKeyOf(cp); key != h.transmitKey) {
    changed(key ? "transmits on " + keyText(*key) : "transmits on no key");
    if (key) ++h.transmitKeyChanges;
    h.transmitKey = key;
    h.transmitSince = key ? now : 0;
  }
  if (!reasons.empty()) h.lastChange = Change{now, reasons};
}

bool SessionHistory::countersAre(const Engine& engine, const Lanx::IntfId& intf, const MacsecLinkCounters& counters) {
  Interface& h = interfaces_[intf];
  const Zef::Ptr<Status>& status = engine.status();
  uint64_t decrypted = 0;
  uint64_t refused = counterOf(counters.secy, "InPktsBadTag") + counterOf(counters.secy, "InPktsNoSCI") +
                     counterOf(counters.secy, "InPktsUnknownSCI");
  for (const MacsecLinkCounters::RxSc& sc : counters.rxScs) {
    decrypted += counterOf(sc.counters, "InPktsOK");
    for (const char* name : {"InPktsInvalid", "InPktsNotValid", "InPktsNotUsingSA", "InPktsUnusedSA"}) {
      refused += counterOf(sc.counters, name);
    }
  }
  // Untagged frames count as refused beyond the EAPOL frames among them.
  const uint64_t untagged = counterOf(counters.secy, "InPktsNoTag");
  const uint64_t eapol = eapolFramesOf(engine.counters()->row(intf));
  refused += untagged > eapol ? untagged - eapol : 0;

  const bool claimed = peerTransmitsOnHeldKey(principalActor(status->portStatus(intf)), status->cpStatus(intf));
  const bool decrypting = h.decrypted && decrypted != *h.decrypted;
  const bool silent = claimed && h.decrypted && !decrypting && h.refused && refused > *h.refused;
  h.decrypted = decrypted;
  h.refused = refused;
  h.framesWithoutDecrypting = silent ? h.framesWithoutDecrypting + 1 : 0;
  if (decrypting || !claimed) h.noFrameDecrypts = false;
  if (h.framesWithoutDecrypting < 2 || h.noFrameDecrypts) return false;
  h.noFrameDecrypts = true;
  ++h.noFrameDecryptsCount;
  return true;
}

const SessionHistory::Interface* SessionHistory::of(const Lanx::IntfId& intf) const {
  const auto it = interfaces_.find(intf);
  return it == interfaces_.end() ? nullptr : &it->second;
}

}  // namespace Macsec
