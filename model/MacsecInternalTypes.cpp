#include "model/MacsecInternalTypes.h"

#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec")

namespace Macsec {

void MkaPamManager::handleRxMessageInfoInit() {
  TRACE(8, "");
  rxMessageInfoIs();
  ZEF_ASSERT(rxMessageInfo_);
}

void MkaPamManager::handleTxMessageInfoInit() {
  TRACE(8, "");
  txMessageInfoIs();
  ZEF_ASSERT(txMessageInfo_);
}

void MkaPamManager::rxMessageDeliver() {
  const Zef::Ptr<MkaMessageInfo>& rx = rxMessageInfo();
  rx->countInc(1);
  const Zef::Ptr<MkaInfo const> info = rx->mkaInfo();
  const MessageReceiver* receiver = info ? receivers_.receiver(rx->intfId(), info->baseInfo().ckn) : nullptr;
  if (receiver == nullptr) return;
  // A copy: the handler may add or remove receivers, and with them the one it runs from.
  const std::function<void()> receive = receiver->receive;
  receive();
}

}  // namespace Macsec
