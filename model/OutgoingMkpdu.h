#pragma once

// One MKPDU an actor sends, built in place by the actor and read, while it is sent, by whoever
// passes it on: the codec seals it into a frame with the keys it names, and the engine hears it.

#include "model/ActorKeys.h"
#include "model/DecodedMkpdu.h"
#include "model/MkpduInterfaces.h"
#include "platform/IntfId.h"

namespace Macsec {

struct OutgoingMkpdu {
  Lanx::IntfId intfId;
  DecodedMkpdu message;
  // The sender's keys and the record of its interface, set for the time of the send only; without
  // them no frame is sealed.
  const ActorKeys* keys = nullptr;
  MkpduInterface* interface = nullptr;
};

}  // namespace Macsec
