#include "agent/CoreDumps.h"

#include <sys/prctl.h>
#include <sys/resource.h>

namespace Macsec {

bool keepMemoryOutOfCoreDumps() {
  const rlimit none{0, 0};
  return setrlimit(RLIMIT_CORE, &none) == 0 && prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
}

}  // namespace Macsec
