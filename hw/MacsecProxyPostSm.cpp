#include "hw/MacsecProxyPostSm.h"

#include "platform/HashTable.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("MacsecProxy::MacsecProxyPOSTSm")

namespace MacsecProxy {

void MacsecProxyPOSTSm::handleInitialized() {
  TRACE(8, "");
  initializedIs(true);
  handleProxyPortStatus();
}

void MacsecProxyPOSTSm::handleProxyPortStatus() {
  TRACE(8, "");
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(macsecProxyStatus()->proxyIntfIter())) {
    handleProxyPortStatus(intfId);
  }
}

void MacsecProxyPOSTSm::handleIntfHwStatus(const Lanx::IntfId& intfId) {
  if (macsecProxyStatus()->proxyIntfHas(intfId)) handleProxyPortStatus(intfId);
}

void MacsecProxyPOSTSm::handleProxyPortStatus(const Lanx::IntfId& intfId) {
  TRACE(8, " " << intfId);
  if (!initialized()) return;
  // A test is wanted for a proxy interface whose hardware is at the start; anything else ends a
  // running test, without a failure.
  const Zef::Ptr<Macsec::MacSecIntfStatus const> hw = hwStatus()->status(intfId);
  const bool wanted = macsecProxyStatus()->proxyIntfHas(intfId) && hw && hw->hwPostStatus() == Macsec::postNotStarted;
  if (!wanted) {
    macsecStatus()->cpStatusDel(intfId);
    postSmDel(intfId);
    return;
  }
  // The test's CpStatus carries no MACsec of its own; an existing one stays, as does its test.
  const Zef::Ptr<Macsec::CpStatus> cpStatus = macsecStatus()->cpStatusIs(intfId, Macsec::MacsecParams());
  postSmIs(intfId, cpStatus, hw, deviceIntfStatusDir(), ethIntfStatusDir(), timerWheel());
}

void MacsecProxyPOSTSm::ZefHwStatus::ZefIntfHwStatus::handleHwPostStatus() {
  const Macsec::POSTStage stage = notifier()->hwPostStatus();
  TRACE(8, " " << key() << " " << stage);
  MacsecProxyPOSTSm* sm = stateMachine();
  const Lanx::IntfId intfId = key();
  // The hardware status lists the engine's own interfaces too, whose tests are the device's.
  if (sm == nullptr || !sm->macsecProxyStatus()->proxyIntfHas(intfId)) return;
  // Pass or failure alike end the test; the self test has logged a failure already.
  if (stage != Macsec::postComplete && stage != Macsec::postFailed) return;
  sm->macsecStatus()->cpStatusDel(intfId);
  sm->postSmDel(intfId);
  sm->handleProxyPortStatus(intfId);
}

}  // namespace MacsecProxy
