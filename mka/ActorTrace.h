#pragma once

// The words that place a trace line of an actor's state machines: " for actor <ckn> on <intf>".

#include <ostream>

#include "model/Identifiers.h"
#include "platform/IntfId.h"

namespace Macsec {

struct ForActor {
  const Ckn& ckn;
  const Lanx::IntfId& intfId;
};

inline std::ostream& operator<<(std::ostream& out, const ForActor& actor) {
  return out << " for actor " << actor.ckn << " on " << actor.intfId;
}

}  // namespace Macsec
