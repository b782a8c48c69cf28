#include "mka/MkaKeyServerSm.h"

#include <array>
#include <limits>
#include <optional>

#include "mka/PeerKeys.h"
#include "model/Crypto.h"
#include "model/LogMessages.h"
#include "platform/Clock.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::KeyServer")

// Every handler opens with this line at level 8 once the key server is initialized.
#define KEY_SERVER_ENTRY() TRACE(8, "")
#define ON_INTF " on intfId " << intfId() << " for ckn " << ckn()

namespace Macsec {

void MkaKeyServerSm::handleInitialized() {
  KEY_SERVER_ENTRY();
  mkaActorStatusIs(status()->portStatus(intfId())->actorStatus(ckn()));
  mkaPortStatusIs(status()->portStatus(intfId()));
  mkaIntfStatusIs(status()->intfStatus(intfId()));
  if (mkaActorStatus()->electedSelf()) {
    startKeying();
  } else {
    mkaActorStatus()->newSakIs(false);
    if (mkaPeriodicTimer()) mkaPeriodicTimer()->timeMinIs(Orb::never);
    if (reKeyTimer()) reKeyTimer()->timeMinIs(Orb::never);
  }
  initializedIs(true);
}

void MkaKeyServerSm::armPeriodic() {
  if (mkaPeriodicTimer()) mkaPeriodicTimer()->timeMinIs(Zef::System::currentTime() + status()->mkaLifeTime());
}

void MkaKeyServerSm::armRekey() {
  if (!reKeyTimer()) return;
  const uint32_t period = mkaIntfStatus()->sessionReKeyPeriod();
  reKeyTimer()->timeMinIs(period > 0 ? Zef::System::currentTime() + period : Orb::never);
}

void MkaKeyServerSm::startKeying() {
  armRekey();
  // The first key of a session goes out at once, as peers expect within a second or two of
  // meeting (some drop a key server that is slow to send one); with no peer yet it goes when the
  // first one is live. Keys already in use are replaced after one life time, as every later change.
  if (mkaActorStatus()->distSak().empty()) {
    mkaActorStatus()->newSakIs(false);
    if (mkaPeriodicTimer()) mkaPeriodicTimer()->timeMinIs(Orb::never);
    if (mkaActorStatus()->livePeerSize() > 0) newKeyNow();
    return;
  }
  mkaActorStatus()->newSakIs(true);
  armPeriodic();
}

void MkaKeyServerSm::newKeyNow() {
  if (!movingOn() && generateNewSak()) {
    mkaActorStatus()->newSakIs(false);
    armPeriodic();
    return;
  }
  // The key waits a hello time for the members to move on.
  mkaActorStatus()->newSakIs(true);
  if (mkaPeriodicTimer()) mkaPeriodicTimer()->timeMinIs(Zef::System::currentTime() + status()->mkpduPeriod());
}

bool MkaKeyServerSm::movingOn() {
  // A member that is still moving on to the last key (its hardware slow to confirm transmit on it)
  // has three keys in play: the one it still transmits on, the one it has asked to transmit on, and
  // a new one. Its SAK use set tells two, so its peers would retire the one it still transmits on.
  // So a new key waits until this port and every live peer transmit on the key in service, for one
  // life time at most (a member that never moves on must not stop the keys).
  const Zef::Ptr<CpStatus const> cp = status()->cpStatus(intfId());
  if (!cp) return false;
  const SakContext& latest = cp->latestSakContext();
  const Sak& current = latest.txEnabled ? latest.sak : cp->oldSakContext().sak;
  const bool ownPending = latest.txEnabled && !latest.txInstalled;
  auto lagsBehind = [&](const KeyInfo& key) { return key.tx && key.mi == current.mi && key.keyNum < current.keyNum; };
  bool peerPending = false;
  for (auto it = mkaActorStatus()->livePeerIter(); it; ++it) {
    peerPending |= lagsBehind(it->sakUseInfo().latestKey) || lagsBehind(it->sakUseInfo().oldKey);
  }
  const double now = Zef::System::currentTime();
  if (!(ownPending || peerPending) || current.mi != mkaActorStatus()->msgId()) {
    movingOnSinceIs(0);
    return false;
  }
  if (movingOnSince() == 0) movingOnSinceIs(now);
  if (now - movingOnSince() >= status()->mkaLifeTime()) return false;
  TRACE(4, "Members still moving on to the key in service: the new SAK waits" << ON_INTF);
  return true;
}

void MkaKeyServerSm::withdrawUnusedKey() {
  // A key that nobody transmits on yet must not reach a changed peer set.
  if (mkaActorStatus()->sakTransmit()) return;
  logKeyDroppedUnused("the live peers changed");
  mkaActorStatus()->distSakIs(Sak());
}

void MkaKeyServerSm::logKeyDroppedUnused(const char* why) const {
  const Sak& sak = mkaActorStatus()->distSak();
  if (sak.empty() || sak.mi != mkaActorStatus()->msgId() || mkaActorStatus()->sakTransmit()) return;
  Zef::log(MKA_SAK_DROPPED_UNUSED, keyServerTail(sak.mi), sak.keyNum, intfId(), why);
}

void MkaKeyServerSm::disarmForNoPeers() {
  TRACE(4, "Live peer list is empty. Disarming timer for sakGeneration" << ON_INTF);
  mkaPeriodicTimer()->timeMinIs(Orb::never);
  withdrawUnusedKey();
}

void MkaKeyServerSm::handleKeyServerChange() {
  if (!initialized()) return;
  KEY_SERVER_ENTRY();
  if (mkaActorStatus()->electedSelf()) {
    TRACE(4, "Non-key-server changed to key server" << ON_INTF);
    startKeying();
    return;
  }
  // The key that was in distribution goes at once; the new key server's key comes in its MKPDUs.
  TRACE(4, "Key server changed to non-key-server" << ON_INTF);
  mkaActorStatus()->newSakIs(false);
  mkaPeriodicTimer()->timeMinIs(Orb::never);
  reKeyTimer()->timeMinIs(Orb::never);
  logKeyDroppedUnused("another member is key server");
  mkaActorStatus()->distSakIs(Sak());
}

void MkaKeyServerSm::handleLivePeer(const MemberId& peer) {
  if (!initialized()) return;
  KEY_SERVER_ENTRY();
  if (mkaActorStatus()->livePeerHas(peer)) {
    TRACE(8, "New live peer " << peer << " added" << ON_INTF);
  } else {
    TRACE(8, "Live peer " << peer << " being deleted" << ON_INTF);
  }
  // Only the key server makes keys.
  if (!mkaActorStatus()->electedSelf()) {
    TRACE(4, "Not the keyServer. Bailing" << ON_INTF);
    return;
  }
  // With nobody left there is nothing to key.
  if (mkaActorStatus()->livePeerSize() == 0) {
    disarmForNoPeers();
    return;
  }
  // No batching under way: a key at once, and the rate limiter starts.
  if (mkaPeriodicTimer()->timeMin() == Orb::never) {
    newKeyNow();
    return;
  }
  // Batching: the key is owed at the expiry.
  mkaActorStatus()->newSakIs(true);
  withdrawUnusedKey();
}

void MkaKeyServerSm::handleMkaLifetimeTimerExpiry() {
  if (!initialized()) return;
  KEY_SERVER_ENTRY();
  if (mkaActorStatus()->livePeerSize() == 0) {
    mkaActorStatus()->newSakIs(false);
    disarmForNoPeers();
    return;
  }
  if (mkaActorStatus()->newSak()) {
    TRACE(4, "Generating new SAK upon timer expiry" << ON_INTF);
    newKeyNow();
    return;
  }
  TRACE(4, "Not generating new SAK upon timer expiry. Disarming timer" << ON_INTF);
  mkaPeriodicTimer()->timeMinIs(Orb::never);
}

void MkaKeyServerSm::handleLlpnExhaustion() {
  if (!initialized()) return;
  KEY_SERVER_ENTRY();
  if (!mkaActorStatus()->electedSelf()) {
    TRACE(4, "not the keyServer. Bailing" << ON_INTF);
    return;
  }
  if (mkaActorStatus()->livePeerSize() == 0) {
    disarmForNoPeers();
    return;
  }
  // An exhausted packet number space does not wait for the rate limiter.
  newKeyNow();
}

void MkaKeyServerSm::handleReKeyPeriod() {
  if (!initialized()) return;
  KEY_SERVER_ENTRY();
  if (!mkaActorStatus()->electedSelf()) {
    TRACE(4, "not the keyServer. Bailing" << ON_INTF);
    return;
  }
  armRekey();  // the new period counts from now
}

void MkaKeyServerSm::handleReKeyTimerExpiry() {
  if (!initialized()) return;
  KEY_SERVER_ENTRY();
  if (mkaActorStatus()->livePeerSize() > 0) {
    newKeyNow();
    armRekey();
    return;
  }
  // The rekey timer, just expired, stays off until the key server is elected again or the
  // period changes.
  TRACE(4, "Live peer list is empty. Disarming mkaPeriodicTimer only" << ON_INTF);
  mkaPeriodicTimer()->timeMinIs(Orb::never);
}

std::optional<AssociationNumber> MkaKeyServerSm::freeAssociationNumber() const {
  // The number after the last key's, unless it is in use (after a change of principal actor or of
  // CAK, keys withdrawn or replaced before they went into service, peers that lag behind): then the
  // next number that costs least to take. From cheapest: free; held by a key that still receives
  // outside the controlled port's two slots (or a latest key nobody transmits on yet) that no live
  // peer may transmit on; the same, but a peer may move to it; one that a peer reports transmitting
  // on (even a key this port no longer knows, its controlled port rebuilt since); the key this port
  // transmits on and the keys in service.
  // A member's first key starts from a number of its own, drawn from its member identifier: on a
  // shared segment two members may both stand as key server for a moment, and keys of both on one
  // number would push each other out of the peers' receive SAs.
  const MemberId& mi = mkaActorStatus()->msgId();
  const AssociationNumber next = mkaActorStatus()->keyNum() == 0 && !mi.empty()
                                     ? AssociationNumber(static_cast<uint8_t>(mi.hash() >> 30))
                                     : mkaPortStatus()->anOfNextKey();
  const Zef::Ptr<CpStatus const> cp = status()->cpStatus(intfId());
  // Potential peers count here too: after a restart, a member that transmits on a key is heard
  // before it is live again.
  auto aPeerReportsTransmitOn = [&](uint8_t an) {
    auto transmitsOn = [an](const SakUseInfo& use) {
      return (use.latestKey.tx && use.latestKey.an == an) || (use.oldKey.tx && use.oldKey.an == an);
    };
    for (auto it = mkaActorStatus()->livePeerIter(); it; ++it) {
      if (transmitsOn(it->sakUseInfo())) return true;
    }
    for (auto it = mkaActorStatus()->potentialPeerIter(); it; ++it) {
      if (transmitsOn(it->sakUseInfo())) return true;
    }
    return false;
  };
  // A peer that receives on another member's key (one that stood as key server meanwhile, or
  // still does on a shared segment) would have to give that key up for ours, while its member may
  // transmit on it.
  auto aPeerReceivesAnothersKeyOn = [&](uint8_t an) {
    auto receivesOn = [&](const KeyInfo& key) { return key.an == an && (key.rx || key.tx) && key.mi != mi; };
    auto anyOf = [&](auto it) {
      for (; it; ++it) {
        if (receivesOn(it->sakUseInfo().latestKey) || receivesOn(it->sakUseInfo().oldKey)) return true;
      }
      return false;
    };
    return anyOf(mkaActorStatus()->livePeerIter()) || anyOf(mkaActorStatus()->potentialPeerIter());
  };
  auto cost = [&](uint8_t an) {
    const auto holds = [an](const Sak& sak) { return !sak.empty() && sak.an == an; };
    const SakContext latest = cp ? cp->latestSakContext() : SakContext();
    if (cp && (holds(cp->txSak()) || holds(cp->oldSakContext().sak) || (holds(latest.sak) && latest.txEnabled))) {
      return 4;
    }
    if (aPeerReportsTransmitOn(an)) return 3;
    if (aPeerReceivesAnothersKeyOn(an)) return 2;
    std::optional<Sak> receiving;
    if (holds(latest.sak))
      receiving = latest.sak;
    else if (cp && cp->rxSakHas(AssociationNumber(an)))
      receiving = cp->rxSak(AssociationNumber(an));
    if (!receiving) return 0;
    return aLivePeerMayTransmitOn(*mkaActorStatus(), *receiving) ? 2 : 1;
  };
  uint8_t best = next.value();
  int bestCost = std::numeric_limits<int>::max();  // until the first number is costed
  for (uint8_t step = 0; step < 4; ++step) {
    const uint8_t an = static_cast<uint8_t>((next.value() + step) & 3);
    const int anCost = cost(an);
    TRACE(4, "Association number " << int(an) << " costs " << anCost << ON_INTF);
    if (anCost < bestCost) {
      best = an;
      bestCost = anCost;
    }
  }
  if (bestCost >= 3) return std::nullopt;
  return AssociationNumber(best);
}

bool MkaKeyServerSm::generateNewSak() {
  KEY_SERVER_ENTRY();
  // Every association number holds a key in service or one a member still transmits on: a key on
  // any of them would take a key away from under a member's frames.
  const std::optional<AssociationNumber> an = freeAssociationNumber();
  if (!an) {
    TRACE(4, "No association number free: the new SAK waits" << ON_INTF);
    return false;
  }
  movingOnSinceIs(0);

  // The context of the derivation: a fresh nonce of the key's length, the live peers' member
  // identifiers, and the new key number in network order.
  const int bits = keyBitsOf(mkaIntfStatus()->cipherSuite());
  const size_t nonce = static_cast<size_t>(bits / 8);
  KeyBytes context = status()->replaySeed() != 0
                         ? seededBytes(status()->replaySeed(), status()->replayDrawsInc(1), nonce)
                         : randomBytes(nonce);
  for (auto it = mkaActorStatus()->livePeerIter(); it; ++it) context.append(it.key().data(), MemberId::kSize);
  const uint32_t keyNum = mkaActorStatus()->keyNum() + 1;
  const std::array<uint8_t, 4> keyNumBytes = {static_cast<uint8_t>(keyNum >> 24), static_cast<uint8_t>(keyNum >> 16),
                                              static_cast<uint8_t>(keyNum >> 8), static_cast<uint8_t>(keyNum)};
  context.append(keyNumBytes.data(), keyNumBytes.size());

  // The new key, made from the CAK and stored at once: its clear octets go with this call.
  const StoredKey key = mkaActorStatus()->cak().withClear(
      [&](const KeyBytes& cak) { return StoredKey::of(deriveSak(cak, context, bits)); });
  const MemberId msgId = mkaActorStatus()->msgId();
  const Sak sak{*an, msgId, keyNum, key, {}};

  Zef::log(MKA_SAK_CREATED, keyServerTail(msgId), keyNum, intfId());

  // The profile's confidentiality offset, or integrity only, where this port's data plane and every
  // live peer offer it; else an offset of none, which all do.
  uint8_t offset = mkaIntfStatus()->confidentiality() ? mkaIntfStatus()->confidentialityOffset() : kNoConfidentiality;
  bool everyoneOffers = offersOffset(mkaPortStatus()->macsecCapability(), offset);
  for (auto it = mkaActorStatus()->livePeerIter(); it; ++it) {
    everyoneOffers = everyoneOffers && offersOffset(MacsecCapability(it->baseInfo().macsecCapability), offset);
  }
  if (!everyoneOffers) offset = 0;

  logKeyDroppedUnused("a newer key replaced it");
  // sakTransmit is cleared first, so that the notification of distSak finds it cleared.
  mkaActorStatus()->sakTransmitIs(false);
  mkaActorStatus()->distOffsetIs(offset);
  mkaActorStatus()->distSakIs(sak);
  mkaActorStatus()->keyNumIs(keyNum);
  return true;
}

}  // namespace Macsec
