#include "mka/MkaRootSm.h"

#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::MkaRootSm")

namespace Macsec {

void MkaRootSm::handleInitialized() {
  TRACE(8, "");
  initializedIs(true);
  handleMacsecEnabled();
}

void MkaRootSm::handleMacsecEnabled() {
  if (!initialized()) return;
  TRACE(8, "");
  if (status()->macsecEnabled()) {
    // Configuration first, so that the device finds the IntfStatus entries when it reconciles
    // what an earlier run left.
    configSmIs(config(), status(), eapKeyStatus(), ethIntfStatusDir(), memtabCounters());
    mkaSmIs(status(), ethIntfStatusDir(), deviceIntfStatusDir(), pamManager(), hwStatus(), timerWheel(),
            memtabCounters());
    return;
  }
  // With MACsec disabled the device deletes every port as it goes, and the status is emptied.
  configSmDel();
  mkaSmDel();
  status()->intfStatusDelAll();
  status()->cpStatusDelAll();
  status()->portStatusDelAll();
  if (status()->fipsStatus().fipsMode) status()->fipsStatusIs(FipsStatus());
}

}  // namespace Macsec
