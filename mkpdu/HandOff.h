#pragma once

#include "mkpdu/MkpduCoding.h"
#include "model/MacsecInternalTypes.h"

namespace Macsec {

// The decoded message that a hand-off object holds.
DecodedMkpdu decodedMessageOf(const MkaMessageInfo& source);

}  // namespace Macsec
