#include "model/Status.h"

namespace Macsec {

void MkaActorStatus::zeroDistSakKeyForced() {
  // In place and without notification: every copy of the stored key shares these bytes.
  distSak_.key.wipeStoredForm();
}

}  // namespace Macsec
