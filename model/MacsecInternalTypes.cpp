#include "model/MacsecInternalTypes.h"

#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec")

namespace Macsec {

void MkaPamManager::handleRxMessageInfoInit() {
  TRACE(8, "");
  rxMessageInfoIs();
  ZEF_ASSERT(rxMessageInfo_);
}

void MkaPamManager::handleTxMessageInfoInit() {
  TRACE(8, "");
  txMessageInfoIs();
  ZEF_ASSERT(txMessageInfo_);
}

}  // namespace Macsec
