#include "mkpdu/HandOff.h"

namespace Macsec {

DecodedMkpdu decodedMessageOf(const MkaMessageInfo& source) {
  DecodedMkpdu message;
  decodedMessageInto(source, message);
  return message;
}

void decodedMessageInto(const MkaMessageInfo& source, DecodedMkpdu& message) {
  const Zef::Ptr<MkaInfo const> info = source.mkaInfo();
  message.baseInfo = info ? info->baseInfo() : BasicInfo();
  message.sakUseInfo = info ? info->sakUseInfo() : SakUseInfo();
  message.sakDistInfo = info ? info->sakDistInfo() : SakDistInfo();
  message.cakDistInfo = info ? info->cakDistInfo() : CakDistInfo();
  message.livePeers.clear();
  message.potentialPeers.clear();
  for (auto it = source.livePeerIter(); it; ++it) message.livePeers.emplace_back(it.key(), it.value());
  for (auto it = source.potentialPeerIter(); it; ++it) message.potentialPeers.emplace_back(it.key(), it.value());
}

}  // namespace Macsec
