#include "mka/ControlledPortSm.h"

#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::ControlledPortSm")

namespace Macsec {

void ControlledPortSm::handleInitialized() {
  TRACE(8, ": Actor " << ckn() << " on " << intfId());
  initializedIs(true);
}

}  // namespace Macsec
