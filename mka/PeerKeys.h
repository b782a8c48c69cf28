#pragma once

// What an actor's live peers say of their keys, as the key server and the controlled port both
// need it.

#include "model/Status.h"
#include "model/Values.h"

namespace Macsec {

// Whether a live peer of `actor` may transmit on `sak`, by its last SAK use set.
inline bool aLivePeerMayTransmitOn(const MkaActorStatus& actor, const Sak& sak) {
  for (auto it = actor.livePeerIter(); it; ++it) {
    if (mayTransmitOn(it->sakUseInfo(), sak)) return true;
  }
  return false;
}

}  // namespace Macsec
