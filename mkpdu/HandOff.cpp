#include "mkpdu/HandOff.h"

namespace Macsec {

DecodedMkpdu decodedMessageOf(const MkaMessageInfo& source) {
  DecodedMkpdu message;
  if (const Zef::Ptr<MkaInfo const> info = source.mkaInfo()) {
    message.baseInfo = info->baseInfo();
    message.sakUseInfo = info->sakUseInfo();
    message.sakDistInfo = info->sakDistInfo();
    message.cakDistInfo = info->cakDistInfo();
  }
  for (auto it = source.livePeerIter(); it; ++it) message.livePeers.emplace_back(it.key(), it.value());
  for (auto it = source.potentialPeerIter(); it; ++it) message.potentialPeers.emplace_back(it.key(), it.value());
  return message;
}

}  // namespace Macsec
