#include "mka/ControlledPortSm.h"

#include <array>

#include "model/Crypto.h"
#include "model/LogMessages.h"
#include "platform/Clock.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::ControlledPortSm")

namespace Macsec {

namespace {

// One key by identifier: association number, key server and key number.
bool sameKey(const Sak& a, const Sak& b) { return a.an == b.an && a.mi == b.mi && a.keyNum == b.keyNum; }

// The copy of a key that goes to the hardware, with its salt for the extended packet number
// ciphers. Only these copies carry a salt.
Sak withSalt(const Sak& sak) {
  Sak copy = sak;
  generateSalt(reinterpret_cast<const uint8_t*>(sak.mi.charPtr()), sak.keyNum, copy.salt);
  return copy;
}

// An SSCI value as eight hexadecimal digits of a 32-bit number in network order.
Zef::String ssciText(uint32_t value) {
  const std::array<uint8_t, 4> bytes = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                                        static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
  Zef::String text;
  convertByteArrayToHexString(bytes.data(), 4, text);
  return text;
}

// The tail of a key identifier as the operators see it: the member identifier from its 17th
// character on.
std::string_view miTail(const Zef::String& mi) { return mi.view().substr(mi.size() >= 16 ? 16 : mi.size()); }

}  // namespace

void ControlledPortSm::handleInitialized() {
  TRACE(8, ": Actor " << ckn() << " on " << intfId());
  portStatusIs(status()->portStatus(intfId()));
  actorStatusIs(portStatus()->actorStatus(ckn()));
  cpStatusIs(status()->cpStatus(intfId()));
  latestKeyTxEnableTimerIs(timerWheel());
  oldKeyRetirementTimerIs(timerWheel());
  initializedIs(true);
  // A transmit that sakTransmit asked of a former principal is not repeated here.
  handleLivePeer();
  handleDistSak();
  handleKeysLPN();
}

void ControlledPortSm::handleDistSak() {
  if (!initialized()) return;
  TRACE(8, "");
  const Sak dist = actorStatus()->distSak();
  // Withdrawing a distributed key never touches the hardware requests.
  if (dist.empty()) {
    TRACE(3, ": Ignoring empty distSak for actor " << ckn());
    return;
  }
  // The key is on its way in, or already in service.
  if (sameKey(cpStatus()->latestSakContext().sak, dist)) {
    TRACE(3, ": Ignoring duplicate latest SAK for actor " << ckn());
    return;
  }
  if (sameKey(cpStatus()->oldSakContext().sak, dist)) {
    TRACE(3, ": Ignoring duplicate old SAK for actor " << ckn());
    return;
  }
  // A key still on its way in is given up, or, if it already transmits, finished early.
  if (cpStatus()->latestSakContext() != SakContext()) cleanupLatestSakContext();
  // One receive SA per association number: the old key must leave before the new one can take
  // its number.
  if (cpStatus()->oldSakContext() != SakContext() && cpStatus()->oldSakContext().sak.an == dist.an) {
    handleOldKeyRetirement();
  }
  // The key goes into the latest slot, receive first.
  SakContext context;
  context.sak = dist;
  context.rxEnabled = true;
  TRACE(1, ": Enabling receive on key: " << dist.mi << ":" << dist.keyNum << forActor());
  cpStatus()->latestSakContextIs(context);
  // Any new key ends unprotected operation, before its receive SA is even requested.
  const Sak request = withSalt(dist);
  cpStatus()->unprotectedTrafficIs(false);
  cpStatus()->rxSakIs(request);
}

void ControlledPortSm::ZefHwStatus::ZefMacsecIntfStatus::handleRxSaStatus(const AssociationNumber& an) {
  ControlledPortSm* sm = stateMachine();
  if (sm == nullptr || !sm->initialized() || key() != sm->intfId()) return;
  TRACE(8, "");
  const Zef::String& ckn = sm->ckn();
  const Lanx::IntfId& intfId = sm->intfId();
  // The notification of a deletion: this system asked for it.
  if (!notifier()->rxSaStatusHas(an)) {
    TRACE(3, ": Ignoring receive SA being deleted for AN: " << an << sm->forActor());
    return;
  }
  const SaStatus record = notifier()->rxSaStatus(an);
  // Only a confirmation of the key on its way in counts, and only once.
  SakContext latest = sm->cpStatus()->latestSakContext();
  if (latest.sak.an != an.value() || record.mi != latest.sak.mi || record.keyNum != latest.sak.keyNum) {
    TRACE(3, ": Ignoring receive SA for AN: " << an << " because it doesn't match with the latestSak for " << ckn
                                              << " on " << intfId);
    return;
  }
  if (latest.rxInstalled) {
    TRACE(3, ": Ignoring receive SA for AN: " << an << " because the SAK is already installed for RX for " << ckn
                                              << " on " << intfId);
    return;
  }
  latest.rxInstalled = true;
  TRACE(1, ": Starting receive on key: " << latest.sak.mi << ":" << latest.sak.keyNum << sm->forActor());
  sm->cpStatus()->latestSakContextIs(latest);
  // A follower waits for sakTransmit.
  if (!sm->actorStatus()->electedSelf()) return;
  // With traffic running under an older key, the peers get time to install this one.
  if (sm->cpStatus()->controlledPortEnabled()) {
    const Sak& dist = sm->actorStatus()->distSak();
    TRACE(1, ": Starting transmit-enable timer for key:" << dist.mi << ":" << dist.keyNum << sm->forActor());
    sm->latestKeyTxEnableTimer()->timeMinIs(Zef::System::currentTime() + sm->status()->latestKeyEnablePeriod());
  } else {
    sm->handleLatestKeyTxEnable();
  }
}

void ControlledPortSm::handleLivePeer(const Zef::String& peer) {
  if (!initialized()) return;
  TRACE(8, "");
  // A removed peer leaves the SSCI pair as it was.
  Zef::Ptr<MkaPeer const> record = actorStatus()->livePeer(peer);
  if (!record) return;
  const Sci peerSci = record->baseInfo().sci;
  if (peerSci.isZero()) {
    TRACE(3, ": Peer Sci cannot be all zeros");
    return;
  }
  // The greater SCI takes 1.
  const Sci mySci = portStatus()->mySci();
  const bool mineLower = mySci.addr < peerSci.addr || (mySci.addr == peerSci.addr && peerSci.portId > mySci.portId);
  cpStatus()->mySsciIs(Ssci{mySci, ssciText(mineLower ? 2 : 1)});
  cpStatus()->peerSsciIs(Ssci{peerSci, ssciText(mineLower ? 1 : 2)});
}

void ControlledPortSm::ZefActorStatus::ZefLivePeer::handlePeerBaseInfo() {
  if (ControlledPortSm* sm = stateMachine()) sm->handleLivePeer(Zef::String(key()));
}

void ControlledPortSm::handleLivePeer() {
  if (!initialized()) return;
  TRACE(8, "");
  // Point to point: with several peers, the last one visited stands.
  for (auto it = actorStatus()->livePeerIter(); it; ++it) handleLivePeer(Zef::String(it.key()));
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
  latestKeyTxEnableTimer()->timeMinIs(Orb::never);
}

void ControlledPortSm::ZefHwStatus::ZefMacsecIntfStatus::handleTxSaStatus() {
  ControlledPortSm* sm = stateMachine();
  if (sm == nullptr || !sm->initialized() || key() != sm->intfId()) return;
  TRACE(8, "");
  const Zef::String& ckn = sm->ckn();
  const Lanx::IntfId& intfId = sm->intfId();
  const Zef::Ptr<CpStatus>& cp = sm->cpStatus();
  // Only a confirmation of the key on its way in counts.
  const SaStatus record = notifier()->txSaStatus();
  if (record.empty()) {
    TRACE(3, ": Ignoring empty txSaStatus" << sm->forActor());
    return;
  }
  SakContext latest = cp->latestSakContext();
  SakContext old = cp->oldSakContext();
  if (record.an.value() != latest.sak.an || record.mi != latest.sak.mi || record.keyNum != latest.sak.keyNum) {
    TRACE(3, ": Ignoring transmit SA for AN: " << record.an << " because it doesn't match with the latestSak for "
                                               << ckn << " on " << intfId);
    return;
  }
  // The hardware's value is kept even from a repeated confirmation.
  latest.txSaValue = record.value;
  if (latest.txInstalled) {
    TRACE(3, ": Ignoring transmit SA for AN: " << record.an << " because the SAK is already installed for TX for "
                                               << ckn << " on " << intfId);
    return;
  }
  // The key is in service: the operators hear of it, and the old key stops transmitting.
  latest.txInstalled = true;
  Zef::log(MKA_SAK_ACTIVATED, miTail(latest.sak.mi), latest.sak.keyNum, intfId);
  TRACE(1, ": Starting transmit on key: " << latest.sak.mi << ":" << latest.sak.keyNum << sm->forActor());
  cp->latestSakContextIs(latest);
  old.txInstalled = false;
  cp->oldSakContextIs(old);
  // The old key stays receivable for the retirement period; with none, the key moves to the
  // old slot at once.
  if (cp->oldSakContext() == SakContext()) {
    sm->handleOldKeyRetirement();
  } else {
    sm->oldKeyRetirementTimer()->timeMinIs(Zef::System::currentTime() + sm->status()->oldKeyRetirementPeriod());
  }
  // The port opens last, when the slots have their final values.
  cp->controlledPortEnabledIs(true);
}

void ControlledPortSm::handleOldKeyRetirement() {
  if (!initialized()) return;
  TRACE(8, "");
  // The association number alone decides.
  const SakContext old = cpStatus()->oldSakContext();
  if (!old.sak.empty() && cpStatus()->rxSakHas(AssociationNumber(old.sak.an)) &&
      !cpStatus()->rxSak(AssociationNumber(old.sak.an)).empty()) {
    cpStatus()->rxSakDel(AssociationNumber(old.sak.an));
  }
  // The latest key is now the one in service, and its slot is free.
  cpStatus()->oldSakContextIs(cpStatus()->latestSakContext());
  cpStatus()->latestSakContextIs(SakContext());
  TRACE(3, ": Moving latest key to old key" << forActor());
  oldKeyRetirementTimer()->timeMinIs(Orb::never);
}

void ControlledPortSm::cleanupLatestSakContext() {
  TRACE(8, "");
  const SakContext latest = cpStatus()->latestSakContext();
  // The key already transmits and only waited for the old key to retire: that happens now.
  if (latest.txInstalled) {
    oldKeyRetirementTimer()->timeMinIs(Orb::never);
    handleOldKeyRetirement();
    return;
  }
  // The key never went into service. A transmit request already made for it stays.
  cpStatus()->rxSakDel(AssociationNumber(latest.sak.an));
  cpStatus()->latestSakContextIs(SakContext());
}

void ControlledPortSm::handleKeysLPN() {
  if (!initialized()) return;
  TRACE(8, "");
  const KeysLPN lpn = actorStatus()->keysLPN();
  cpStatus()->rxLPNIs(RxLPN{lpn.oldLpn, AssociationNumber(cpStatus()->oldSakContext().sak.an)});
  cpStatus()->rxLPNIs(RxLPN{lpn.latestLpn, AssociationNumber(cpStatus()->latestSakContext().sak.an)});
}

}  // namespace Macsec
