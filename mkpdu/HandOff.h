#pragma once

#include "mkpdu/MkpduCoding.h"
#include "model/MacsecInternalTypes.h"

namespace Macsec {

// Writes a decoded message into a hand-off object, as a codec does before it raises the count:
// every set, and the peer lists emptied and filled anew.
void messageInfoIs(MkaMessageInfo& target, const Lanx::IntfId& intfId, const DecodedMkpdu& message);

// The decoded message that a hand-off object holds.
DecodedMkpdu decodedMessageOf(const MkaMessageInfo& source);

}  // namespace Macsec
