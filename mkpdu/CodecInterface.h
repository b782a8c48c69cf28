#pragma once

#include "mkpdu/ReplayGuard.h"
#include "model/MacsecInternalTypes.h"

namespace Macsec {

// What the codec keeps for one interface: the member numbers it has accepted and the interface's
// frame counters, found together by one lookup per frame.
struct CodecInterface {
  ReplayGuard replay;
  Zef::Ptr<MkaPamCounter> rxCounter;
  Zef::Ptr<MkaPamCounter> txCounter;
};

}  // namespace Macsec
