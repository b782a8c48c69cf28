#pragma once

#include "mkpdu/ReplayGuard.h"
#include "model/MacsecInternalTypes.h"
#include "model/MessageCounterData.h"
#include "platform/PacketAccess.h"

namespace Macsec {

// What the codec keeps for one interface: the member numbers it has accepted, the interface's
// frame counters, its row of the MKPDU counters and, while the interface is in MKA operation, its
// access point, found together by one lookup per frame. The pointers lead, so that sending reads
// one cache line of the record.
struct CodecInterface {
  Zef::Ptr<Lanx::Pam> pam;
  Zef::Ptr<MkaPamCounter> rxCounter;
  Zef::Ptr<MkaPamCounter> txCounter;
  Memtab::RowHold counterRow;
  ReplayGuard replay;
};

}  // namespace Macsec
