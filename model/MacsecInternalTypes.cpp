#include "model/MacsecInternalTypes.h"

#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec")

namespace Macsec {

void MkaPamManager::handleTxMessageInfoInit() {
  TRACE(8, "");
  txMessageInfoIs();
  ZEF_ASSERT(txMessageInfo_);
}

void MkaPamManager::rxMessageDeliver(const Lanx::IntfId& intfId, const DecodedMkpdu& message) {
  rxMessageDeliver(message, interfaces_.receiver(intfId, message.baseInfo.ckn));
}

void MkaPamManager::rxMessageDeliver(const DecodedMkpdu& message, const MessageReceiver* receiver) {
  rxMessagesInc(1);
  if (receiver == nullptr) return;
  // A copy: the handler may add or remove receivers, and with them the one it runs from.
  const std::function<void(const DecodedMkpdu&)> receive = receiver->receive;
  receive(message);
}

}  // namespace Macsec
