#include "mkpdu/HandOff.h"

namespace Macsec {

void messageInfoIs(MkaMessageInfo& target, const Lanx::IntfId& intfId, const DecodedMkpdu& message) {
  target.intfIdIs(intfId);
  const Zef::Ptr<MkaInfo> info = target.mkaInfoIs();
  info->baseInfoIs(message.baseInfo);
  info->sakUseInfoIs(message.sakUseInfo);
  info->sakDistInfoIs(message.sakDistInfo);
  info->cakDistInfoIs(message.cakDistInfo);
  target.livePeerDelAll();
  target.potentialPeerDelAll();
  for (const auto& [id, number] : message.livePeers) target.livePeerIs(id, number);
  for (const auto& [id, number] : message.potentialPeers) target.potentialPeerIs(id, number);
}

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
