#include "hw/MacsecForwardingModelSm.h"

#include "platform/Fatal.h"
#include "platform/HashTable.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::MacsecForwardingModelSm")

namespace Macsec {

void MacsecForwardingModelSm::handleInitialized() {
  TRACE(8, "");
  // Vetoes left by an earlier life stay only for interfaces that MACsec still runs on; the pass
  // below rewrites or removes those, so a port still held back never opens in between.
  const Zef::Ptr<Interface::IntfForwardingModelInputDir>& dir = forwardingModelInputDir();
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(dir->forwardingModelInputIter())) {
    // Anything but a veto means another writer shares the directory, which must not be.
    ZEF_ASSERT(dir->forwardingModelInput(intfId) == Interface::intfForwardingModelUnauthorized());
    if (!status()->cpStatusHas(intfId)) dir->forwardingModelInputDel(intfId);
  }
  initializedIs(true);
  handleControlledPortStatus();
}

void MacsecForwardingModelSm::handleControlledPortStatus() {
  if (!initialized()) return;
  TRACE(8, "");
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->cpStatusIter())) {
    handleControlledPortStatus(intfId);
  }
}

void MacsecForwardingModelSm::handleControlledPortStatus(const Lanx::IntfId& intfId) {
  if (!initialized()) return;
  TRACE(8, " intfId=" << intfId);
  updateForwardingModel(intfId);
}

void MacsecForwardingModelSm::ZefStatus::ZefCpStatus::updateForwardingModel() {
  if (MacsecForwardingModelSm* sm = stateMachine()) sm->updateForwardingModel(key());
}

void MacsecForwardingModelSm::updateForwardingModel(const Lanx::IntfId& intfId) {
  // Reactors made before the start wait for its pass.
  if (!initialized()) return;
  TRACE(8, " intfId=" << intfId);
  // MACsec holds back only the interfaces it runs on, while their controlled port is closed.
  const Zef::Ptr<CpStatus const> cpStatus = status()->cpStatus(intfId);
  if (cpStatus && !cpStatus->controlledPortEnabled()) {
    TRACE(3, " Making forwarding model for " << intfId << " unauthorized");
    forwardingModelInputDir()->forwardingModelInputIs(intfId, Interface::intfForwardingModelUnauthorized());
    return;
  }
  forwardingModelInputDir()->forwardingModelInputDel(intfId);
  TRACE(3, " Making forwarding model for " << intfId << " authorized");
}

}  // namespace Macsec
