#include "mka/MkaSm.h"

#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::MkaSm")

namespace Macsec {

bool MkaSm::linkUp(const Lanx::IntfId& intfId) const {
  const Zef::Ptr<Interface::EthIntfStatus const> eth = ethIntfStatusDir()->intfStatus(intfId);
  return eth && eth->linkStatus() == Interface::linkUp;
}

void MkaSm::handleInitialized() {
  TRACE(8, "");
  // What an earlier run left in Status: a controlled port whose parameters are no longer
  // configured goes; one whose link is down cannot have keys in the hardware, so it is emptied.
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->cpStatusIter())) {
    const Zef::Ptr<IntfStatus> intf = status()->intfStatus(intfId);
    const Zef::Ptr<CpStatus> cp = status()->cpStatus(intfId);
    if (!intf || intf->macsecParams() != cp->macsecParams()) {
      TRACE(3, ": Deleting stale cpStatus for intfId " << intfId);
      status()->cpStatusDel(intfId);
      continue;
    }
    if (linkUp(intfId)) continue;
    cp->oldSakContextIs(SakContext());
    cp->latestSakContextIs(SakContext());
    cp->txSakIs(Sak());
    for (auto it = cp->rxSakIter(); it; ++it) cp->rxSakDel(AssociationNumber(it.key()));
    cp->controlledPortEnabledIs(false);
  }
  // Likewise the ports' status: unconfigured ones go, those of links that are down lose their
  // actors.
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->portStatusIter())) {
    if (!status()->intfStatusHas(intfId)) {
      TRACE(3, ": Deleting stale portStatus for intfId " << intfId);
      status()->portStatusDel(intfId);
      continue;
    }
    if (!linkUp(intfId)) status()->portStatus(intfId)->actorStatusDelAll();
  }
  initializedIs(true);
  handleIntfStatus();
}

void MkaSm::handleIntfStatus() {
  TRACE(8, "");
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->intfStatusIter())) handleIntfStatus(intfId);
}

void MkaSm::handleIntfStatus(const Lanx::IntfId& intfId) {
  if (!initialized()) return;
  TRACE(8, ": IntfId " << intfId);
  createOrDeletePortSm(intfId, !status()->intfStatusHas(intfId));
}

void MkaSm::handleHwStatus(const Lanx::IntfId& intfId) {
  if (!initialized()) return;
  TRACE(8, ": IntfId " << intfId);
  const bool configured = status()->intfStatusHas(intfId);
  const bool started = status()->portStatusHas(intfId);
  if (hwStatus()->statusHas(intfId)) {
    if (started) updateCapability(intfId);
    if (configured && !started) createOrDeletePortSm(intfId, false);
  } else if (configured && started) {
    createOrDeletePortSm(intfId, true);
  }
}

void MkaSm::createOrDeletePortSm(const Lanx::IntfId& intfId, bool remove) {
  TRACE(8, ": IntfId " << intfId << " delete: " << remove);
  // Deletion goes bottom up: the port (which empties its actors and the controlled port), the
  // statuses, the self test last.
  if (remove) {
    TRACE(8, ": Cleaning up portSm for " << intfId);
    mkaPortSmDel(intfId);
    TRACE(8, ": Deleting portStatus for " << intfId);
    status()->portStatusDel(intfId);
    TRACE(1, ": Deleting cpStatus for " << intfId);
    status()->cpStatusDel(intfId);
    postSmDel(intfId);
    return;
  }
  if (!linkUp(intfId)) {
    TRACE(3, ": Ignoring " << intfId << " because the link is not up.");
    return;
  }
  if (!hwStatus()->statusHas(intfId)) {
    TRACE(3, ": Ignoring " << intfId << " because the interface does not exist in hardware status.");
    return;
  }
  // Creation goes top down: the statuses (kept if they are there), the SCI, then the port, or in
  // FIPS mode first the self test that the controlled port's status carries.
  TRACE(1, ": Creating new port status for " << intfId);
  status()->portStatusIs(intfId);
  TRACE(1, ": Creating new cpStatus for " << intfId);
  status()->cpStatusIs(intfId, status()->intfStatus(intfId)->macsecParams());
  updateSci(intfId);
  updateCapability(intfId);
  if (mkaPortSm(intfId)) return;
  const POSTStage stage = hwStatus()->status(intfId)->hwPostStatus();
  TRACE(2, " " << intfId << " hwPostStatus is " << stage);
  if (!status()->fipsStatus().fipsMode || stage == postComplete) {
    TRACE(1, ": Creating a new portSm for " << intfId);
    mkaPortSmIs(intfId, status(), pamManager(), hwStatus(), timerWheel(), memtabCounters());
    return;
  }
  if (postSm(intfId) || Lanx::SubIntfId::isSubIntfId(intfId)) return;
  startPostSm(intfId);
}

void MkaSm::startPostSm(const Lanx::IntfId& intfId) {
  TRACE(2, " Creating postSm for interface " << intfId);
  postSmIs(intfId, status()->cpStatus(intfId), hwStatus()->status(intfId), deviceIntfStatusDir(), ethIntfStatusDir(),
           timerWheel());
}

void MkaSm::updateSci(const Lanx::IntfId& intfId) {
  TRACE(8, ": IntfId " << intfId);
  const Zef::Ptr<MkaPortStatus> port = status()->portStatus(intfId);
  if (!port) {
    TRACE(3, ": No portStatus found for " << intfId);
    return;
  }
  const Zef::Ptr<Interface::EthIntfStatus const> eth = ethIntfStatusDir()->intfStatus(intfId);
  if (!eth) {
    TRACE(3, ": No ethIntfStatus found for " << intfId);
    return;
  }
  port->mySciIs(Sci{eth->addr(), eth->portId()});
  TRACE(3, ": Updated Sci with mac " << eth->addr() << " and port number " << eth->portId() << " for " << intfId);
}

void MkaSm::updateCapability(const Lanx::IntfId& intfId) {
  if (const Zef::Ptr<MkaPortStatus> port = status()->portStatus(intfId)) {
    port->macsecCapabilityIs(hwStatus()->capabilityOf(intfId));
  }
}

void MkaSm::ZefEthIntfStatusDir::ZefEthIntfStatus::handleLinkStatus() {
  const Lanx::IntfId& intfId = key();
  TRACE(8, ": IntfId " << intfId);
  MkaSm* sm = stateMachine();
  if (sm == nullptr || !sm->initialized()) {
    TRACE(3, ": MkaSm not initialized, bailing.");
    return;
  }
  // The link of an interface without MACsec configuration does not matter.
  if (!sm->status()->intfStatusHas(intfId)) return;
  if (notifier()->linkStatus() == Interface::linkUp) {
    TRACE(3, ": Intf " << intfId << " is back up. Creating portSm and other statuses.");
    sm->createOrDeletePortSm(intfId, false);
    return;
  }
  // Only the port goes: its statuses and a running self test stay for the link's return.
  TRACE(3, ": Intf " << intfId << " not up, cleaning up portSm.");
  sm->mkaPortSmDel(intfId);
}

void MkaSm::handleEthIntfDelete(const Lanx::IntfId& intfId) {
  // Only the deletion of an Ethernet interface matters here; its arrival runs handleLinkStatus.
  if (ethIntfStatusDir()->intfStatusHas(intfId)) return;
  TRACE(8, ": IntfId " << intfId);
  if (!initialized()) {
    TRACE(3, ": MkaSm not initialized, bailing.");
    return;
  }
  if (status()->intfStatusHas(intfId)) createOrDeletePortSm(intfId, true);
}

void MkaSm::ZefHwStatus::ZefIntfHwStatus::handleMacsecCapability() {
  MkaSm* sm = stateMachine();
  if (sm != nullptr && sm->initialized()) sm->updateCapability(key());
}

void MkaSm::ZefHwStatus::ZefIntfHwStatus::handleHwPostStatus() {
  const Lanx::IntfId& intfId = key();
  const POSTStage stage = notifier()->hwPostStatus();
  TRACE(2, " hwPostStatus is " << stage);
  MkaSm* sm = stateMachine();
  if (sm == nullptr || !sm->initialized() || !sm->status()->fipsStatus().fipsMode) return;
  switch (stage) {
    case postComplete:
      TRACE(2, " " << intfId << " POST completed, deleting postSm");
      sm->postSmDel(intfId);
      if (sm->status()->intfStatusHas(intfId)) sm->createOrDeletePortSm(intfId, false);
      return;
    case postNotStarted:
      // The hardware is back at the start, as after a reset: a running port stops and the test
      // runs again.
      if (!sm->mkaPortSm(intfId)) return;
      sm->mkaPortSmDel(intfId);
      if (Lanx::SubIntfId::isSubIntfId(intfId)) return;
      sm->postSmDel(intfId);
      sm->startPostSm(intfId);
      return;
    case postFailed:
      // Nothing retries until the stage changes again; a running port is left alone.
      TRACE(2, " " << intfId << " POST failed, deleting postSm. PortSm will not be created.");
      sm->postSmDel(intfId);
      return;
    default:
      return;
  }
}

void MkaSm::handleCleanUp() {
  TRACE(8, "");
  // Going down with MACsec in service, the status stays for the next run: the ports go with the
  // device, but leave their status as it is.
  if (status()->macsecEnabled()) {
    for (auto it = mkaPortSmIter(); it; ++it) it->statusKeptOnExitIs(true);
    return;
  }
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(mkaPortSmIter())) createOrDeletePortSm(intfId, true);
}

}  // namespace Macsec
