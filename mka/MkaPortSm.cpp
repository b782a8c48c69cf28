#include "mka/MkaPortSm.h"

#include <limits>
#include <vector>

#include "model/LogMessages.h"
#include "platform/Clock.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::MkaPortSm")

namespace Macsec {

namespace {

constexpr double kLargestFinite = std::numeric_limits<double>::max();

// The members of the port's actor collection, copied out, so that a walk may delete any of them.
std::vector<Zef::Ptr<MkaActorStatus>> actorsOf(const Zef::Ptr<MkaPortStatus>& port) {
  std::vector<Zef::Ptr<MkaActorStatus>> actors;
  for (auto it = port->actorStatusIter(); it; ++it) actors.push_back(it.ptr());
  return actors;
}

}  // namespace

void MkaPortSm::handleInitialized() {
  TRACE(8, ": IntfId " << intfId());
  intfStatusIs(status()->intfStatus(intfId()));
  cpStatusIs(status()->cpStatus(intfId()));
  portStatusIs(status()->portStatus(intfId()));
  // The success count is rebuilt from the actors as they succeed again.
  defaultActorTimerIs(timerWheel());
  actorDeletionTimerIs(timerWheel());
  peerlessTimerIs(timerWheel());
  portStatus()->numSuccessActorsIs(0);
  // Entries left by an earlier life of the agent stay if their key is still configured.
  const Ckn& primary = intfStatus()->key().ckn;
  const Ckn& fallback = intfStatus()->defaultKey().ckn;
  for (const Zef::Ptr<MkaActorStatus>& actor : actorsOf(portStatus())) {
    if (actor->ckn() != primary && actor->ckn() != fallback) {
      TRACE(3, ": Deleting actor status " << actor->ckn() << " on " << intfId());
      portStatus()->actorStatusDel(actor->ckn());
      continue;
    }
    if (actor->success()) portStatus()->numSuccessActorsInc(1);
    if (actor->principal()) principalActorCknIs(actor->ckn());
  }
  // The fallback key first; static SAKs and keyRetire wait for their next change.
  initializedIs(true);
  handleDefaultKey();
  handleKey();
  handleAllowUnprotected();
}

void MkaPortSm::handleKey() {
  if (!initialized()) return;
  TRACE(8, ": Processing new key " << intfStatus()->key().ckn << " on " << intfId());
  doUpdateActors(false);
}

void MkaPortSm::handleDefaultKey() {
  if (!initialized()) return;
  TRACE(8, ": IntfId " << intfId());
  doUpdateActors(true);
}

void MkaPortSm::doUpdateActors(bool defaultKey) {
  // The primary and the fallback key are handled alike, each for the actors of its own kind.
  const Cak key = defaultKey ? intfStatus()->defaultKey() : intfStatus()->key();
  bool electionDue = false;

  // The key was deleted: every actor of its kind goes.
  if (key.empty()) {
    if (defaultKey) {
      TRACE(3, ": Default key is deleted, proceeding to delete all default actors for " << intfId());
    } else {
      TRACE(3, ": Primary key deleted, proceeding to delete all primary actors for " << intfId());
    }
    for (const Zef::Ptr<MkaActorStatus>& actor : actorsOf(portStatus())) {
      if (actor->defaultActor() != defaultKey) continue;
      electionDue |= actor->principal() && actor->electedSelf();
      doCleanupActorSmAndStatus(actor);
    }
    if (electionDue) doElectPrincipalActor();
    return;
  }

  // An actor under the key's CKN is kept if it is of this kind and has the same key bytes. One
  // brought back from a saved state has none yet: its key was checked as it came back.
  TRACE(8, (defaultKey ? ": Processing new default key " : ": Processing new primary key ")
               << key.ckn << " on " << intfId());
  Zef::Ptr<MkaActorStatus> existing = portStatus()->actorStatus(key.ckn);
  const auto otherKey = [&](const MkaActorStatus& actor) {
    return !actor.cak().empty() && !actor.cak().sameKeyAs(key.cak);
  };
  if (existing && (existing->defaultActor() != defaultKey || otherKey(*existing))) {
    electionDue |= existing->principal() && existing->electedSelf();
    doCleanupActorSmAndStatus(existing);
    existing = nullptr;
  }
  // A key without an actor gets one.
  if (!existing) {
    if (defaultKey) {
      TRACE(8, ": Creating actor " << key.ckn << " on " << intfId());
    } else {
      TRACE(3, ": Creating actor " << key.ckn << " on " << intfId());
    }
    portStatus()->actorStatusIs(key.ckn)->defaultActorIs(defaultKey);
  }
  // Kept on purpose: the operators hear of the primary key's actor only, never the fallback's.
  if (!mkaActorSm(key.ckn)) {
    mkaActorSmIs(key.ckn, key.cak, intfId(), status(), pamManager(), hwStatus(), timerWheel())
        ->memtabCountersIs(memtabCounters());
    if (!defaultKey) Zef::log(MKA_CA_CREATED, key.ckn, intfId());
  }

  // Other actors of this kind go, except a principal one that still carries the running
  // session, unless keys are to be retired.
  for (const Zef::Ptr<MkaActorStatus>& actor : actorsOf(portStatus())) {
    if (actor->defaultActor() != defaultKey || actor->ckn() == key.ckn) continue;
    if (actor->principal() && !intfStatus()->keyRetire()) continue;
    electionDue |= actor->principal();
    doCleanupActorSmAndStatus(actor);
  }
  // A change among the actors may change the principal one.
  if (electionDue) doElectPrincipalActor();
}

void MkaPortSm::handleKeyRetire() {
  if (!initialized() || !intfStatus()->keyRetire()) return;
  // Exact text, with no space before the CKN: operators' tooling matches it.
  TRACE(8, ": retire if any operational actor is present" << intfStatus()->key().ckn << " on " << intfId());
  bool electionDue = false;
  for (const Zef::Ptr<MkaActorStatus>& actor : actorsOf(portStatus())) {
    if (actor->ckn() == intfStatus()->key().ckn || actor->ckn() == intfStatus()->defaultKey().ckn) continue;
    electionDue |= actor->principal() && actor->electedSelf();
    doCleanupActorSmAndStatus(actor);
  }
  if (electionDue) doElectPrincipalActor();
}

void MkaPortSm::handleActorDeletion() {
  TRACE(8, " on " << intfId());
  if (!initialized()) return;
  // Leftovers that are not principal go once a new key has been distributed.
  for (const Zef::Ptr<MkaActorStatus>& actor : actorsOf(portStatus())) {
    if (actor->principal()) continue;
    if (actor->ckn() == intfStatus()->key().ckn || actor->ckn() == intfStatus()->defaultKey().ckn) continue;
    doCleanupActorSmAndStatus(actor);
  }
  actorDeletionTimer()->timeMinIs(Orb::never);
}

void MkaPortSm::handleDefaultKeyActivation() {
  TRACE(8, " on " << intfId());
  if (!initialized()) return;
  doElectPrincipalActor();
  defaultActorTimer()->timeMinIs(Orb::never);
}

void MkaPortSm::doCleanupActorSmAndStatus(const Zef::Ptr<MkaActorStatus>& actor) {
  // The CKN is copied: the entry goes below. CpStatus keeps what was programmed last.
  const Ckn ckn = actor->ckn();
  TRACE(3, ": Deleting actor " << ckn << " on " << intfId());
  const bool succeeded = actor->success();
  mkaActorSmDel(ckn);
  if (actor->principal()) principalActorCknIs(Ckn());
  portStatus()->actorStatusDel(ckn);
  if (succeeded) portStatus()->numSuccessActorsDec(1);
}

void MkaPortSm::handleCleanUp() {
  TRACE(8, ": IntfId " << intfId());
  // Going down with the whole device while MACsec stays in service, the port leaves its status to
  // the next run: the actors' state machines go, their status and the keys in service stay.
  if (statusKeptOnExit()) {
    mkaActorSmDelAll();
    return;
  }
  // Every actor goes, and its distributed key is wiped.
  for (const Zef::Ptr<MkaActorStatus>& actor : actorsOf(portStatus())) {
    const Ckn ckn = actor->ckn();
    TRACE(3, "Deleting actor " << ckn << " on " << intfId());
    mkaActorSmDel(ckn);
    actor->zeroDistSakKeyForced();
    portStatus()->actorStatusDel(ckn);
  }
  // The hardware is asked to forget every key, and the port closes.
  portStatus()->numSuccessActorsIs(0);
  removeKeys();
  cpStatus()->controlledPortEnabledIs(false);
}

void MkaPortSm::doElectPrincipalActor() {
  TRACE(8, ": IntfId " << intfId());
  // Any election ends the waiting time of a fallback key.
  if (defaultActorTimer()->timeMin() <= kLargestFinite) defaultActorTimer()->timeMinIs(Orb::never);
  TRACE(3, ": Starting principal actor election on " << intfId());

  // The candidates.
  Zef::Ptr<MkaActorStatus> existing;
  if (!principalActorCkn().empty()) {
    TRACE(3, ": Existing principal actor on " << intfId() << " is " << principalActorCkn());
    existing = portStatus()->actorStatus(principalActorCkn());
    if (!existing) principalActorCknIs(Ckn());
  }
  const Ckn primaryCkn = intfStatus()->key().ckn;
  const Ckn fallbackCkn = intfStatus()->defaultKey().ckn;
  const Zef::Ptr<MkaActorStatus> configuredPrimary = portStatus()->actorStatus(primaryCkn);
  const Zef::Ptr<MkaActorStatus> configuredDefault = portStatus()->actorStatus(fallbackCkn);
  Zef::Ptr<MkaActorStatus> operationalPrimary;
  Zef::Ptr<MkaActorStatus> operationalDefault;
  for (auto it = portStatus()->actorStatusIter(); it; ++it) {
    const Zef::Ptr<MkaActorStatus>& actor = it.ptr();
    if (!actor->success()) continue;
    if (!actor->defaultActor() && actor->ckn() != primaryCkn) operationalPrimary = actor;
    if (actor->defaultActor() && actor->ckn() != fallbackCkn) operationalDefault = actor;
  }

  // The configured primary, any running primary, the configured fallback, any running fallback.
  Zef::Ptr<MkaActorStatus> chosen;
  if (configuredPrimary && configuredPrimary->success()) {
    chosen = configuredPrimary;
    TRACE(3, ": Picking configured primary actor " << chosen->ckn() << " as principal actor on " << intfId());
  } else if (operationalPrimary) {
    chosen = operationalPrimary;
    TRACE(3, ": Picking operational primary actor " << chosen->ckn() << " as principal actor on " << intfId());
  } else if (configuredDefault && configuredDefault->success()) {
    chosen = configuredDefault;
    TRACE(3, ": Picking configured default actor " << chosen->ckn() << " as principal actor on " << intfId());
  } else if (operationalDefault) {
    chosen = operationalDefault;
    TRACE(3, ": Picking operational default actor " << chosen->ckn() << " as principal actor on " << intfId());
  } else {
    TRACE(3, ": Failed to pick a principal actor on " << intfId());
  }

  // No candidate: the port has no principal actor.
  if (!chosen) {
    if (existing) {
      TRACE(3, ": Cleaning up old principal actor " << existing->ckn() << " on " << intfId());
      existing->principalIs(false);
      principalActorCknIs(Ckn());
    }
    return;
  }
  // The chosen actor becomes principal; the operators hear of it only when it changed.
  const bool changed = !existing || existing->ckn() != chosen->ckn();
  if (existing && changed) existing->principalIs(false);
  TRACE(1, ": Marking " << chosen->ckn() << " as principal actor on " << intfId());
  if (changed) Zef::log(chosen->defaultActor() ? MKA_FALLBACK_KEY_IN_USE : MKA_KEY_IN_USE, chosen->ckn(), intfId());
  chosen->principalIs(true);
  principalActorCknIs(chosen->ckn());
}

void MkaPortSm::keyServerUp(const Zef::Ptr<MkaActorStatus>& actor) {
  // The primary key gets its activation period to come back before a fallback key is used.
  // A fresh port's timer (0.0) does not pass this test: there the fallback is taken at once.
  if (actor->defaultActor() && principalActorCkn().empty() && defaultActorTimer()->timeMin() > kLargestFinite) {
    TRACE(3, ": Starting default actor activation timer on " << intfId());
    defaultActorTimer()->timeMinIs(Zef::System::currentTime() + status()->defaultKeyActivationPeriod());
    return;
  }
  TRACE(3, ": Re-evaluating principal actor on " << intfId());
  doElectPrincipalActor();
}

void MkaPortSm::ZefPortStatus::ZefActorStatus::handleActorElectedSelf() {
  MkaPortSm* port = stateMachine();
  if (port == nullptr || !port->initialized()) return;
  // An actor that was up as a follower without a key, and now stands as key server itself, makes
  // the keys: it needs the port as much as one that came up as key server.
  const Zef::Ptr<MkaActorStatus> actor = port->portStatus()->actorStatus(key());
  if (!actor || !actor->success() || !actor->electedSelf() || actor->principal()) return;
  port->keyServerUp(actor);
}

void MkaPortSm::ZefPortStatus::ZefActorStatus::handleActorSuccess() {
  MkaPortSm* port = stateMachine();
  if (port == nullptr || !port->initialized()) return;
  const Ckn ckn = key();
  const Lanx::IntfId& intfId = port->intfId();
  TRACE(8, ": Actor " << ckn << " on " << intfId);
  const Zef::Ptr<MkaActorStatus> actor = port->portStatus()->actorStatus(ckn);
  if (!actor) return;

  if (actor->success()) {
    TRACE(8, ": Actor " << ckn << " succeeded on " << intfId);
    port->portStatus()->numSuccessActorsInc(1);
    // A follower becomes principal through the key it is given. One that is live again and still
    // holds the key it was given takes the port back: its key server repeats that key, which the
    // actor does not take in twice.
    if (!actor->electedSelf()) {
      if (!actor->distSak().empty() && port->principalActorCkn().empty()) {
        port->doMarkFollowerPrincipal(actor, ckn);
        return;
      }
      TRACE(3, ": Actor " << ckn << " is not the elected key server on " << intfId << ". Bailing");
      return;
    }
    port->keyServerUp(actor);
    return;
  }

  TRACE(3, ": Actor " << ckn << " failed on interface " << intfId);
  port->portStatus()->numSuccessActorsDec(1);
  if (!actor->principal()) return;
  // The actors that the deletion timer would remove may be needed now.
  if (port->actorDeletionTimer()->timeMin() <= kLargestFinite) {
    TRACE(8, "Killing the actorDeletionTimer");
    port->actorDeletionTimer()->timeMinIs(Orb::never);
  }
  if (actor->electedSelf()) {
    TRACE(1, ": Actor " << ckn << " was the principal actor. Electing new actor on " << intfId);
    port->doElectPrincipalActor();
    return;
  }
  // A follower waits for the next distributed key.
  TRACE(1, ": Unmarking " << ckn << " as the principal actor on " << intfId);
  actor->principalIs(false);
  port->principalActorCknIs(Ckn());
}

void MkaPortSm::ZefPortStatus::ZefActorStatus::handleDistSak() {
  MkaPortSm* port = stateMachine();
  if (port == nullptr || !port->initialized()) return;
  const Ckn ckn = key();
  const Lanx::IntfId& intfId = port->intfId();
  TRACE(8, ": Actor " << ckn << " on " << intfId);
  const Zef::Ptr<MkaActorStatus> actor = port->portStatus()->actorStatus(ckn);
  if (!actor || actor->distSak().empty()) return;

  // A follower's key does not take the port from an actor the port prefers: one of an earlier key,
  // given a key by a member that has not changed keys yet, would take the port back and forth
  // with the configured key's actor at each key either is given, and tell its key server it
  // receives on a key the port is about to drop. The key goes; its key server, told that it is not
  // received, gives it again, and the actor takes it then if the port no longer prefers another.
  if (!actor->electedSelf() && actor->success() && port->principalOutranks(*actor)) {
    TRACE(3,
          ": Actor " << ckn << " on " << intfId << " gives way to the principal actor " << port->principalActorCkn());
    actor->distSakIs(Sak());
    return;
  }

  // The next key takes the next association number.
  const Sak sak = actor->distSak();
  port->portStatus()->anOfNextKeyIs(AssociationNumber(sak.an == 3 ? 0 : sak.an + 1));

  // A follower that accepted a key takes over the port.
  if (!actor->electedSelf() && actor->success()) port->doMarkFollowerPrincipal(actor, ckn);

  // Only one actor of the port holds a distributed key.
  for (auto it = port->portStatus()->actorStatusIter(); it; ++it) {
    if (it.key() != ckn) it->distSakIs(Sak());
  }

  // The other actors go after the deletion period, so that the peers can follow first.
  TRACE(3, ": Starting actor deletion timer on " << intfId);
  port->actorDeletionTimer()->timeMinIs(Zef::System::currentTime() + port->status()->actorDelPeriod());
}

void MkaPortSm::doMarkFollowerPrincipal(const Zef::Ptr<MkaActorStatus>& actor, const Ckn& ckn) {
  TRACE(3, ": Actor " << ckn << " on " << intfId() << " is not the key server. Marking it as the principal actor");
  const Ckn previous = principalActorCkn();
  if (!previous.empty() && previous != ckn) {
    TRACE(3, ": Removing old principal actor " << previous << " on " << intfId());
    if (Zef::Ptr<MkaActorStatus> old = portStatus()->actorStatus(previous)) old->principalIs(false);
  }
  TRACE(1, ": Marking actor " << ckn << " to be principal"
                              << " on " << intfId());
  if (previous != ckn) Zef::log(actor->defaultActor() ? MKA_FALLBACK_KEY_IN_USE : MKA_KEY_IN_USE, ckn, intfId());
  actor->principalIs(true);
  principalActorCknIs(ckn);
}

bool MkaPortSm::principalOutranks(const MkaActorStatus& actor) const {
  if (principalActorCkn().empty() || principalActorCkn() == actor.ckn()) return false;
  const Zef::Ptr<MkaActorStatus const> principal = portStatus()->actorStatus(principalActorCkn());
  if (!principal || !principal->success()) return false;
  // The configured primary key's actor, any other primary actor, the configured fallback key's,
  // any other fallback actor: the order of the election.
  const auto rank = [&](const MkaActorStatus& candidate) {
    if (!candidate.defaultActor()) return candidate.ckn() == intfStatus()->key().ckn ? 3 : 2;
    return candidate.ckn() == intfStatus()->defaultKey().ckn ? 1 : 0;
  };
  return rank(*principal) > rank(actor);
}

void MkaPortSm::handleNumSuccessActors() {
  if (!initialized()) return;
  // The count goes out as a raw byte.
  TRACE(8, ": " << static_cast<char>(portStatus()->numSuccessActors()) << " successful actors on " << intfId());
  if (intfStatus()->allowUnprotected() && portStatus()->numSuccessActors() == 0) allowUnprotectedTraffic();
  doCountTimeWithoutPeer();
}

void MkaPortSm::doCountTimeWithoutPeer() {
  // The keys of a session outlive its last live peer, so that traffic goes on through a short
  // loss, but only for the profile's bound. Static keys and unprotected traffic have no peer to
  // lose.
  const bool peerless = portStatus()->numSuccessActors() == 0 && !intfStatus()->staticSakInUse() &&
                        !intfStatus()->allowUnprotected() && !sakCleared();
  if (!peerless) {
    portStatus()->noLivePeerSinceIs(0);
    peerlessTimer()->timeMinIs(Orb::never);
    return;
  }
  if (portStatus()->noLivePeerSince() == 0) {
    portStatus()->noLivePeerSinceIs(Zef::System::currentTime());
    TRACE(3, ": No live peer left on " << intfId() << "; keys kept for " << intfStatus()->keysWithoutPeer() << " s");
  }
  peerlessTimer()->timeMinIs(portStatus()->noLivePeerSince() + intfStatus()->keysWithoutPeer());
}

void MkaPortSm::handleKeysWithoutPeer() {
  if (!initialized()) return;
  if (portStatus()->noLivePeerSince() != 0) doCountTimeWithoutPeer();
}

void MkaPortSm::handlePeerlessTimeout() {
  if (!initialized()) return;
  peerlessTimer()->timeMinIs(Orb::never);
  if (portStatus()->numSuccessActors() != 0 || portStatus()->noLivePeerSince() == 0) return;
  Zef::log(MKA_KEYS_WITHOUT_PEER_REMOVED, intfId(), static_cast<int>(intfStatus()->keysWithoutPeer()));
  removeKeys();
  cpStatus()->controlledPortEnabledIs(false);
  portStatus()->noLivePeerSinceIs(0);
}

void MkaPortSm::handleTxStaticSak() { doProgramStaticSak(true); }

void MkaPortSm::handleRxStaticSak() { doProgramStaticSak(false); }

void MkaPortSm::doProgramStaticSak(bool transmit) {
  // Transmit and receive keys each move on their own association number, on their own key's
  // change; the first static key of a port takes number 1.
  if (!initialized()) return;
  const bool inUse = intfStatus()->staticSakInUse();
  // Exact text, with its space before the colon: operators' tooling matches it.
  TRACE(3, " : Static SAK is currently " << inUse << " on " << intfId());
  if (!inUse) return;
  const AssociationNumber previous = transmit ? portStatus()->txStaticAn() : portStatus()->rxStaticAn();
  const AssociationNumber an((previous + 1) & 3);
  if (transmit) {
    portStatus()->txStaticAnIs(an);
  } else {
    portStatus()->rxStaticAnIs(an);
  }
  TRACE(3, " Current association number is " << an);
  Sak sak;
  sak.an = an;
  sak.key = (transmit ? intfStatus()->txStaticSak() : intfStatus()->rxStaticSak()).key;
  if (transmit) {
    cpStatus()->txSakIs(sak);
  } else {
    cpStatus()->rxSakIs(sak);
  }
}

bool MkaPortSm::sakCleared() {
  TRACE(8, ": " << intfId());
  if (!cpStatus()->txSak().empty()) {
    TRACE(3, ": found txSak for " << intfId());
    return false;
  }
  if (cpStatus()->rxSakSize() > 0) {
    TRACE(3, ": found at least one rxSak for " << intfId());
    return false;
  }
  return true;
}

void MkaPortSm::removeKeys() {
  // Every key leaves the hardware and the actors; a key server makes a new one for the next
  // session.
  cpStatus()->oldSakContextIs(SakContext());
  cpStatus()->latestSakContextIs(SakContext());
  cpStatus()->rxSakDelAll();
  cpStatus()->txSakIs(Sak());
  for (auto it = portStatus()->actorStatusIter(); it; ++it) it->distSakIs(Sak());
}

void MkaPortSm::allowUnprotectedTraffic() {
  // All key material leaves the hardware; the port's state stays as it is.
  TRACE(3, ": Allowing unprotected traffic on" << intfId());
  removeKeys();
  cpStatus()->unprotectedTrafficIs(true);
  Zef::log(MKA_UNPROTECTED_TRAFFIC, intfId());
}

void MkaPortSm::handleAllowUnprotected() {
  if (!initialized()) return;
  if (intfStatus()->staticSakInUse()) {
    TRACE(3, ": Static SAK configured on " << intfId() << " Unprotected traffic not applicable ");
    return;
  }
  TRACE(8, ": unprotected traffic allowed is " << intfStatus()->allowUnprotected() << " on " << intfId());
  // While a session runs the setting waits; the last actor's failure applies it.
  if (portStatus()->numSuccessActors() != 0) return;
  if (intfStatus()->allowUnprotected()) {
    allowUnprotectedTraffic();
    cpStatus()->controlledPortEnabledIs(true);
    return;
  }
  // Taken away: the port closes only if no key owns it.
  if (sakCleared()) {
    TRACE(3, ": Disallowing unprotected traffic on " << intfId());
    cpStatus()->unprotectedTrafficIs(false);
    cpStatus()->controlledPortEnabledIs(false);
  }
}

}  // namespace Macsec
