#pragma once

#include "mkpdu/ReplayGuard.h"
#include "model/MessageCounterData.h"
#include "platform/PacketAccess.h"

namespace Macsec {

// What the codec keeps for one interface: the member numbers it has accepted, its row of the MKPDU
// counters and, while the interface is in MKA operation, its access point, found together by one
// lookup per frame. The access point and the row lead, so that sending reads one cache line of the
// record.
struct CodecInterface {
  Zef::Ptr<Lanx::Pam> pam;
  Memtab::RowHold counterRow;
  ReplayGuard replay;
};

}  // namespace Macsec
