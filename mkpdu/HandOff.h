#pragma once

#include "mkpdu/MkpduCoding.h"
#include "model/MacsecInternalTypes.h"

namespace Macsec {

// The decoded message that a hand-off object holds.
DecodedMkpdu decodedMessageOf(const MkaMessageInfo& source);
// The same into `message`, whose peer lists keep their storage: the codec does it for every frame.
void decodedMessageInto(const MkaMessageInfo& source, DecodedMkpdu& message);

}  // namespace Macsec
