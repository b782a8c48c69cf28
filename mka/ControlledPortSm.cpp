#include "mka/ControlledPortSm.h"

#include <array>
#include <vector>

#include "mka/PeerKeys.h"
#include "model/Crypto.h"
#include "model/LogMessages.h"
#include "platform/Clock.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::ControlledPortSm")

namespace Macsec {

namespace {

// The copy of a key that goes to the hardware, with its salt for the extended packet number
// ciphers. Only these copies carry a salt.
Sak withSalt(const Sak& sak) {
  Sak copy = sak;
  copy.salt = saltOf(sak.mi, sak.keyNum);
  return copy;
}

}  // namespace

void ControlledPortSm::handleInitialized() {
  TRACE(8, ": Actor " << ckn() << " on " << intfId());
  portStatusIs(status()->portStatus(intfId()));
  actorStatusIs(portStatus()->actorStatus(ckn()));
  cpStatusIs(status()->cpStatus(intfId()));
  oldKeyRetirementTimerIs(timerWheel());
  heldKeyTimerIs(timerWheel());
  initializedIs(true);
  handleLivePeer();
  // A retirement that the former principal had pending is armed again: the latest key already in
  // service, or keys that still receive outside the slots, would otherwise stay until the next key.
  if (cpStatus()->latestSakContext().txInstalled || hasLeftoverReceiveSa()) {
    armOldKeyRetirement();
  }
  handleDistSak();
  // A transmit that sakTransmit asks for is asked again: the actor writes sakTransmit only when it
  // changes, so a port rebuilt after the key server said it transmits would otherwise wait for the
  // next key.
  handleSakTransmit();
  handleKeysLPN();
  // The hardware status of this interface; confirmations that it gave while no state machine
  // listened (a restart between a request and its answer) count now. The reactor on it may have
  // been set before this state machine was initialized, and then replayed nothing.
  handleHwIntfStatus(intfId());
  handleTxSaStatus();
  // The transmit confirmation may have moved the key on to the old slot before its receive
  // confirmation counted: either slot's counts now.
  for (const SakContext& context : {cpStatus()->latestSakContext(), cpStatus()->oldSakContext()}) {
    if (context != SakContext() && !context.rxInstalled) handleRxSaStatus(AssociationNumber(context.sak.an));
  }
}

void ControlledPortSm::handleHwIntfStatus(const Lanx::IntfId& intf) {
  if (!initialized() || intf != intfId()) return;
  // Only this interface's hardware status is watched: one reactor per port, not one per interface.
  const Zef::Ptr<MacSecIntfStatus const> own = hwStatus()->status(intfId());
  if (own == macsecIntfStatus()) return;
  if (own) {
    macsecIntfStatusIs(own);
  } else {
    macsecIntfStatusDel();
  }
}

void ControlledPortSm::armOldKeyRetirement() {
  oldKeyRetirementTimer()->timeMinIs(Zef::System::currentTime() + status()->oldKeyRetirementPeriod());
}

bool ControlledPortSm::inASlot(const Sak& sak) const {
  return sameKey(sak, cpStatus()->latestSakContext().sak) || sameKey(sak, cpStatus()->oldSakContext().sak);
}

void ControlledPortSm::endHold() {
  heldSinceIs(0);
  heldKeyTimer()->timeMinIs(Orb::never);
}

bool ControlledPortSm::hasLeftoverReceiveSa() const {
  for (auto it = cpStatus()->rxSakIter(); it; ++it) {
    if (!inASlot(it.value())) return true;
  }
  return false;
}

void ControlledPortSm::handleDistSak() {
  if (!initialized()) return;
  TRACE(8, "");
  const Sak dist = actorStatus()->distSak();
  // A hold ends when the distributed key is one the port already has (taken back from a slot).
  if (heldSince() != 0 && !dist.empty() && inASlot(dist)) endHold();
  // Withdrawing a distributed key never touches the hardware requests. But a key this actor made
  // as key server and withdrew before anybody transmitted on it (its peers changed, or it stopped
  // being key server) will not come into service: it gives way, as it would to the next key.
  if (dist.empty()) {
    TRACE(3, ": Ignoring empty distSak for actor " << ckn());
    const SakContext& latest = cpStatus()->latestSakContext();
    if (latest != SakContext() && !latest.txEnabled && latest.sak.mi == actorStatus()->msgId()) {
      keepReceiving(SakContext(latest));
    }
    return;
  }
  // The key is on its way in, or already in service (by its octets too: a forged key may have
  // taken its identifier first).
  if (identicalKey(cpStatus()->latestSakContext().sak, dist)) {
    TRACE(3, ": Ignoring duplicate latest SAK for actor " << ckn());
    return;
  }
  if (identicalKey(cpStatus()->oldSakContext().sak, dist)) {
    TRACE(3, ": Ignoring duplicate old SAK for actor " << ckn());
    // The key server holds to the key in service: a latest key that nobody transmits on will not
    // follow it (one from a key server that has gone, or one it withdrew).
    const SakContext latest = cpStatus()->latestSakContext();
    if (latest != SakContext() && !latest.txEnabled) keepReceiving(latest);
    return;
  }
  if (holdsBack(dist)) return;
  // The key on its way in gives way, but keeps receiving.
  const SakContext latest = cpStatus()->latestSakContext();
  if (latest != SakContext()) keepReceiving(latest);
  // One receive SA per association number: whatever receives on the new key's number leaves
  // before the new key can take it.
  const AssociationNumber an(dist.an);
  if (cpStatus()->oldSakContext() != SakContext() && cpStatus()->oldSakContext().sak.an == dist.an) {
    cpStatus()->oldSakContextIs(SakContext());
  }
  if (cpStatus()->rxSakHas(an)) cpStatus()->rxSakDel(an);
  // The key goes into the latest slot, receive first.
  SakContext context;
  context.sak = dist;
  context.rxEnabled = true;
  TRACE(1, ": Enabling receive on key: " << dist.mi << ":" << dist.keyNum << forActor());
  cpStatus()->latestSakContextIs(context);
  // Any new key ends unprotected operation, before its receive SA is even requested; the port
  // takes the offset its key server uses the key at.
  const Sak request = withSalt(dist);
  cpStatus()->unprotectedTrafficIs(false);
  cpStatus()->confidentialityOffsetIs(actorStatus()->distOffset());
  cpStatus()->rxSakIs(request);
  // Numbered as the MKPDUs of the member that made the key, which brought it (a key server that
  // took over since the last one heard numbers its MKPDUs its own way).
  const Zef::Ptr<MkaPeer const> maker = actorStatus()->livePeer(dist.mi);
  latestSinceIs(maker ? maker->baseInfo().msgNum : 0);
  // A sakTransmit that came while the key was on its way here (the actor hears of the key before
  // this slot has it) counts now: it is written only when it changes.
  handleSakTransmit();
}

bool ControlledPortSm::holdsBack(const Sak& dist) {
  // On a shared segment two members may stand as key server for a moment, with keys on one
  // association number. This port said it receives on the first one's key; taking the second's
  // now would lose the first one's frames, which it sends on the strength of that report still on
  // its way. So the new key waits while a live peer may transmit on the key its number holds (the
  // first member hears the second, and gives its key up, within a hello time or two), and one life
  // time at most, when a timer asks again. Meanwhile this port does not say it receives on the new
  // key, so nobody transmits on it yet, and its key server repeats it: each MKPDU that brings it
  // asks again.
  const AssociationNumber an(dist.an);
  // The key's maker, while it stands as key server, may start to transmit on it at any moment; any
  // live peer may whose report says so.
  const auto aPeerMayTransmitOn = [&](const Sak& key) {
    for (auto it = actorStatus()->livePeerIter(); it; ++it) {
      if (it.key() == key.mi && it->baseInfo().keyServer) return true;
      if (mayTransmitOn(it->sakUseInfo(), key)) return true;
    }
    return false;
  };
  const bool contested =
      cpStatus()->rxSakHas(an) && cpStatus()->rxSak(an).mi != dist.mi && aPeerMayTransmitOn(cpStatus()->rxSak(an));
  // A key whose maker no longer stands as key server waits too, whatever its number holds: it
  // came from a key server that gave way (to one it hears again after a partition) or went, the
  // key server there is did not make it, may lack it, and hands out a key of its own soon. Nobody
  // would ever use this one. It asks again each life time, and goes in if its maker stands as key
  // server again.
  const Zef::Ptr<MkaPeer const> maker = actorStatus()->livePeer(dist.mi);
  const bool makerGaveWay = dist.mi == actorStatus()->msgId()
                                ? !actorStatus()->electedSelf()
                                : !maker || maker->baseInfo().sci != actorStatus()->keyServer();
  const double now = Zef::System::currentTime();
  if ((contested || makerGaveWay) && heldSince() == 0) {
    heldSinceIs(now);
    heldKeyTimer()->timeMinIs(now + status()->mkaLifeTime());
  }
  const bool waitedEnough = now - heldSince() >= status()->mkaLifeTime();
  if (!makerGaveWay && (!contested || waitedEnough)) {
    endHold();
    return false;
  }
  if (waitedEnough) heldKeyTimer()->timeMinIs(now + status()->mkaLifeTime());
  TRACE(3, ": Holding back key " << dist.mi << ":" << dist.keyNum << ": "
                                 << (makerGaveWay ? "its maker is no longer key server"
                                                  : "its association number receives on a key a peer may transmit on")
                                 << forActor());
  return true;
}

void ControlledPortSm::handleRxSaStatus(const AssociationNumber& an) {
  const Zef::Ptr<MacSecIntfStatus const> hw = macsecIntfStatus();
  if (!initialized() || !hw) return;
  TRACE(8, "");
  const Ckn& ckn = this->ckn();
  const Lanx::IntfId& intfId = this->intfId();
  // The notification of a deletion: this system asked for it.
  if (!hw->rxSaStatusHas(an)) {
    TRACE(3, ": Ignoring receive SA being deleted for AN: " << an << forActor());
    return;
  }
  const SaStatus record = hw->rxSaStatus(an);
  const Sak confirmed{an.value(), record.mi, record.keyNum, {}, {}};
  // Only a confirmation of the key on its way in counts, and only once; or of the old key, when
  // the key went there before its receive SA was confirmed (a follower's transmit confirmed
  // first moves it on): its peers learn that it receives from the old key's entry.
  const bool latestKey = sameKey(cpStatus()->latestSakContext().sak, confirmed);
  if (!latestKey && !sameKey(cpStatus()->oldSakContext().sak, confirmed)) {
    TRACE(3, ": Ignoring receive SA for AN: " << an << " because it matches neither the latest nor the old key for "
                                              << ckn << " on " << intfId);
    return;
  }
  SakContext context = latestKey ? cpStatus()->latestSakContext() : cpStatus()->oldSakContext();
  if (context.rxInstalled) {
    TRACE(3, ": Ignoring receive SA for AN: " << an << " because the SAK is already installed for RX for " << ckn
                                              << " on " << intfId);
    return;
  }
  context.rxInstalled = true;
  TRACE(1, ": Starting receive on key: " << context.sak.mi << ":" << context.sak.keyNum << forActor());
  // Transmit waits for sakTransmit, on the key server as on a follower: the key server's actor
  // sets it once every live peer, and this confirmation, say they receive.
  if (latestKey) {
    cpStatus()->latestSakContextIs(context);
  } else {
    cpStatus()->oldSakContextIs(context);
  }
}

void ControlledPortSm::handleLivePeer(const MemberId& peer) {
  if (!initialized()) return;
  TRACE(8, "");
  // A removed peer leaves the SSCI pair as it was. A key held back is asked again: the member
  // that may transmit on its number may have gone.
  Zef::Ptr<MkaPeer const> record = actorStatus()->livePeer(peer);
  if (!record) {
    if (heldSince() != 0) handleDistSak();
    return;
  }
  const Sci peerSci = record->baseInfo().sci;
  if (peerSci.isZero()) {
    TRACE(3, ": Peer Sci cannot be all zeros");
    return;
  }
  // Each member's short identifier is its place among the members' SCIs, the greatest first: with
  // the extended packet numbers it goes into every IV, so two members on one key must never share
  // one. It follows from the SCIs alone, and every MKPDU of a peer comes here: while the members
  // are the ones on record, the identifiers are too. (Two members with one SCI both take 1.)
  const Sci mySci = portStatus()->mySci();
  // The identifiers on record already stand for these two SCIs among as many members: a member
  // that joins comes here itself, and one that goes changes the count. Most MKPDUs change nothing.
  const size_t peers = actorStatus()->livePeerSize();
  if (peers == ssciPeers() && cpStatus()->peerSsci().sci == peerSci && cpStatus()->mySsci().sci == mySci) return;
  const auto above = [](const Sci& y, const Sci& x) {
    return x.addr < y.addr || (x.addr == y.addr && y.portId > x.portId);
  };
  uint32_t myPlace = 1;
  uint32_t peerPlace = above(peerSci, mySci) ? 1 : 2;
  for (auto it = actorStatus()->livePeerIter(); it; ++it) {
    const Sci& other = it->baseInfo().sci;
    if (other.isZero()) continue;
    if (above(other, mySci)) ++myPlace;
    if (other != peerSci && above(other, peerSci)) ++peerPlace;
  }
  cpStatus()->mySsciIs(Ssci{mySci, myPlace});
  cpStatus()->peerSsciIs(Ssci{peerSci, peerPlace});
  ssciPeersIs(peers);
}

void ControlledPortSm::ZefActorStatus::ZefLivePeer::handlePeerBaseInfo() {
  ControlledPortSm* sm = stateMachine();
  if (sm == nullptr) return;
  sm->handleLivePeer(key());
  sm->handleKeyServerMessage(key());
}

void ControlledPortSm::handleKeyServerMessage(const MemberId& peer) {
  if (!initialized() || actorStatus()->electedSelf()) return;
  const Zef::Ptr<MkaPeer const> sender = actorStatus()->livePeer(peer);
  if (!sender || sender->baseInfo().sci != actorStatus()->keyServer()) return;
  // The SAK use set on record is still the one of the key server's previous MKPDU.
  const uint32_t previous = keyServerMi() == peer ? keyServerMsgNum() : 0;
  keyServerMiIs(peer);
  keyServerMsgNumIs(sender->baseInfo().msgNum);
  // A follower's latest key of its key server that the key server does not have in either slot,
  // and that nobody transmits on yet, will not come into service (a key it withdrew, or a forged
  // one): it gives way, as it would to the next key. The key server's first MKPDU with a new key
  // may go out before its own slots have it, so only a later MKPDU's set counts.
  const SakUseInfo& use = sender->sakUseInfo();
  if (previous == 0 || latestSince() >= previous || use == SakUseInfo()) return;
  // Read in place: this runs for every MKPDU of the key server, and mostly ends here.
  const SakContext& latest = cpStatus()->latestSakContext();
  if (latest == SakContext() || latest.txEnabled || latest.sak.mi != peer) return;
  if (sakMatch(use.latestKey, latest.sak) || sakMatch(use.oldKey, latest.sak)) return;
  TRACE(3, ": The key server does not have the latest key " << latest.sak.mi << ":" << latest.sak.keyNum << forActor());
  // A copy: giving way changes the slot it is read from.
  keepReceiving(SakContext(latest));
}

void ControlledPortSm::handleLivePeer() {
  if (!initialized()) return;
  TRACE(8, "");
  // Point to point: with several peers, the last one visited stands.
  for (auto it = actorStatus()->livePeerIter(); it; ++it) handleLivePeer(it.key());
}

void ControlledPortSm::handleSakTransmit() {
  if (!initialized()) return;
  TRACE(8, "");
  if (!sameKey(cpStatus()->latestSakContext().sak, actorStatus()->distSak())) {
    TRACE(3, ": Ignoring sakTransmit because distSak and latest key do not match" << forActor());
    return;
  }
  // Clearing sakTransmit has no consequence here.
  if (actorStatus()->sakTransmit()) handleLatestKeyTxEnable();
}

void ControlledPortSm::handleLatestKeyTxEnable() {
  if (!initialized()) return;
  TRACE(8, "");
  SakContext latest = cpStatus()->latestSakContext();
  SakContext old = cpStatus()->oldSakContext();
  const Sak dist = actorStatus()->distSak();
  // A key withdrawn since it was installed (the key server's peer set changed before anybody
  // transmitted on it) is never transmitted on; its successor will take its place.
  if (dist.empty() || !sameKey(latest.sak, dist)) {
    TRACE(3, ": Ignoring transmit enable on a withdrawn key" << forActor());
    if (latest != SakContext() && !latest.txEnabled) keepReceiving(latest);
    return;
  }
  // The key server transmits only on a key that its own hardware receives; a follower obeys
  // its key server.
  if (actorStatus()->electedSelf() && latest != SakContext() && !latest.rxInstalled) {
    TRACE(1, ": Ignoring latest key TX enable on key: " << dist.mi << ":" << dist.keyNum << forActor());
    return;
  }
  // Transmit moves from the old key to the new one.
  latest.txEnabled = true;
  old.txEnabled = false;
  TRACE(1, ": Enabling transmit on key: " << dist.mi << ":" << dist.keyNum << forActor());
  cpStatus()->latestSakContextIs(latest);
  cpStatus()->oldSakContextIs(old);
  // The key transmitted is the distributed one.
  cpStatus()->txSakIs(withSalt(dist));
}

void ControlledPortSm::handleTxSaStatus() {
  const Zef::Ptr<MacSecIntfStatus const> hw = macsecIntfStatus();
  if (!initialized() || !hw) return;
  TRACE(8, "");
  const Ckn& ckn = this->ckn();
  const Lanx::IntfId& intfId = this->intfId();
  const Zef::Ptr<CpStatus>& cp = cpStatus();
  // Only a confirmation of the key on its way in counts.
  const SaStatus record = hw->txSaStatus();
  if (record.empty()) {
    TRACE(3, ": Ignoring empty txSaStatus" << forActor());
    return;
  }
  SakContext latest = cp->latestSakContext();
  SakContext old = cp->oldSakContext();
  const Sak confirmed{record.an.value(), record.mi, record.keyNum, {}, {}};
  // A key that gave way to a newer one after its transmit was asked for still receives outside
  // the slots: the hardware transmits on it now, so it takes the old slot, where the peers hear of
  // it, and the key that was there receives outside the slots instead.
  if (!sameKey(latest.sak, confirmed) && !sameKey(old.sak, confirmed) && cp->rxSakHas(record.an) &&
      sameKey(cp->rxSak(record.an), confirmed) && sameKey(cp->txSak(), confirmed)) {
    SakContext context;
    context.sak = cp->rxSak(record.an);
    context.sak.salt = Salt();  // only the hardware's copies carry a salt
    context.rxEnabled = context.rxInstalled = context.txEnabled = context.txInstalled = true;
    context.txSaValue = record.value;
    TRACE(1, ": Starting transmit on key: " << context.sak.mi << ":" << context.sak.keyNum << forActor());
    cp->oldSakContextIs(context);
    cp->controlledPortEnabledIs(true);
    if (!oldKeyRetirementTimer()->isArmed() && hasLeftoverReceiveSa()) armOldKeyRetirement();
    return;
  }
  // The same, for a key that took the old slot when it gave way.
  if (sameKey(old.sak, confirmed) && old.txEnabled && !old.txInstalled && sameKey(cp->txSak(), confirmed)) {
    old.txInstalled = true;
    old.txSaValue = record.value;
    TRACE(1, ": Starting transmit on key: " << old.sak.mi << ":" << old.sak.keyNum << forActor());
    cp->oldSakContextIs(old);
    cp->controlledPortEnabledIs(true);
    return;
  }
  // A later reading of the key in service in the old slot: its packet numbers move on, and the
  // peers hear of them.
  if (sameKey(old.sak, confirmed) && old.txInstalled && !sameKey(latest.sak, confirmed)) {
    if (old.txSaValue == record.value) return;
    old.txSaValue = record.value;
    cp->oldSakContextIs(old);
    return;
  }
  if (!sameKey(latest.sak, confirmed)) {
    TRACE(3, ": Ignoring transmit SA for AN: " << record.an << " because it doesn't match with the latestSak for "
                                               << ckn << " on " << intfId);
    return;
  }
  // The hardware's value is kept even from a repeated confirmation, or a later reading.
  latest.txSaValue = record.value;
  if (latest.txInstalled) {
    TRACE(3, ": Ignoring transmit SA for AN: " << record.an << " because the SAK is already installed for TX for "
                                               << ckn << " on " << intfId);
    if (cp->latestSakContext().txSaValue != latest.txSaValue) cp->latestSakContextIs(latest);
    return;
  }
  // The key is in service: the operators hear of it, and the old key stops transmitting.
  latest.txInstalled = true;
  Zef::log(MKA_SAK_ACTIVATED, keyServerTail(latest.sak.mi), latest.sak.keyNum, intfId);
  TRACE(1, ": Starting transmit on key: " << latest.sak.mi << ":" << latest.sak.keyNum << forActor());
  cp->latestSakContextIs(latest);
  old.txInstalled = false;
  cp->oldSakContextIs(old);
  // The old key stays receivable for the retirement period; with none, the key moves to the
  // old slot at once.
  if (cp->oldSakContext() == SakContext()) {
    handleOldKeyRetirement();
  } else {
    armOldKeyRetirement();
  }
  // The port opens last, when the slots have their final values.
  cp->controlledPortEnabledIs(true);
}

void ControlledPortSm::handleOldKeyRetirement() {
  if (!initialized()) return;
  TRACE(8, "");
  oldKeyRetirementTimer()->timeMinIs(Orb::never);
  // The latest key in service takes the old slot, and its own slot is free.
  if (cpStatus()->latestSakContext().txInstalled) {
    cpStatus()->oldSakContextIs(cpStatus()->latestSakContext());
    cpStatus()->latestSakContextIs(SakContext());
    TRACE(3, ": Moving latest key to old key" << forActor());
  }
  // Every key in neither slot stops receiving, unless a live peer may still transmit on it (one
  // that missed the news of the new key): that key waits another retirement period.
  std::vector<AssociationNumber> leftovers;
  bool waiting = false;
  for (auto it = cpStatus()->rxSakIter(); it; ++it) {
    if (inASlot(it.value())) continue;
    if (aLivePeerMayTransmitOn(*actorStatus(), it.value())) {
      waiting = true;
    } else {
      leftovers.push_back(AssociationNumber(it.key()));
    }
  }
  for (const AssociationNumber& an : leftovers) cpStatus()->rxSakDel(an);
  if (waiting) {
    TRACE(3, ": Keeping a retired key that a peer still transmits on" << forActor());
    armOldKeyRetirement();
  }
}

void ControlledPortSm::keepReceiving(const SakContext& latest) {
  // Peers may transmit on a key that this port has asked to receive on (a key server does once
  // every peer receives, and a former principal of this port may have said so), and on the key in
  // service: both keep receiving. The key this port transmits on, or has asked to, keeps or takes
  // the old slot, so that the peers hear of it; the other receives outside the slots until a
  // retirement finds that no peer may transmit on it: one is pending from now on at the latest.
  if (latest.txInstalled || latest.txEnabled) {
    TRACE(3, ": Moving latest key to old key" << forActor());
    cpStatus()->oldSakContextIs(latest);
  }
  cpStatus()->latestSakContextIs(SakContext());
  if (!oldKeyRetirementTimer()->isArmed() && hasLeftoverReceiveSa()) armOldKeyRetirement();
}

void ControlledPortSm::handleKeysLPN() {
  if (!initialized()) return;
  TRACE(8, "");
  const KeysLPN lpn = actorStatus()->keysLPN();
  cpStatus()->rxLPNIs(RxLPN{lpn.oldLpn, AssociationNumber(cpStatus()->oldSakContext().sak.an)});
  cpStatus()->rxLPNIs(RxLPN{lpn.latestLpn, AssociationNumber(cpStatus()->latestSakContext().sak.an)});
}

}  // namespace Macsec
