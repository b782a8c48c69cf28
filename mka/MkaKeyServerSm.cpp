#include "mka/MkaKeyServerSm.h"

#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::KeyServer")

namespace Macsec {

void MkaKeyServerSm::handleInitialized() {
  TRACE(8, ": Actor " << ckn() << " on " << intfId());
  initializedIs(true);
}

}  // namespace Macsec
