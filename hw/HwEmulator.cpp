#include "hw/HwEmulator.h"

#include "model/Crypto.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::HwEmulator")

namespace Macsec {

namespace {

// Confirms through the scheduler if there is one, else at once. The confirmation reads what was
// requested when it was requested, as hardware programs the request it was given.
void confirm(HwEmulator& emulator, std::function<void()> write) {
  if (emulator.confirmationScheduler()) {
    emulator.confirmationScheduler()(std::move(write));
  } else {
    write();
  }
}

}  // namespace

void HwEmulator::handleInitialized() {
  TRACE(8, "");
  initializedIs(true);
  // It encrypts nothing, so it takes any confidentiality offset.
  hardware()->macsecCapabilityIs(macsecConfidentialityAnyOffset);
}

void HwEmulator::ZefStatus::ZefCpStatus::updateRxSaStatus(const AssociationNumber& an) {
  const Lanx::IntfId intfId = notifier()->intfId();
  TRACE(8, "intf: " << intfId);
  // A key removed from the requests leaves its record: the hardware keeps the SA until replaced.
  const Sak sak = notifier()->rxSak(an);
  if (sak.empty()) return;
  HwEmulator* emulator = stateMachine();
  if (emulator == nullptr) return;
  Zef::Ptr<HwStatusSlices> hardware = emulator->hardware();
  confirm(*emulator, [hardware, intfId, sak] {
    Zef::Ptr<MacSecIntfStatus> hw = hardware->status(intfId);
    if (!hw) return;  // the interface left the hardware before the confirmation
    // Delete before write: a reader sees the replaced key go, then the new one come.
    const AssociationNumber key(sak.an);
    if (hw->rxSaStatusHas(key)) hw->rxSaStatusDel(key);
    hw->rxSaStatusIs(key, sak.mi, sak.keyNum);
  });
}

void HwEmulator::ZefStatus::ZefCpStatus::updateRxSaStatus() {
  TRACE(8, "intf: " << notifier()->intfId());
  for (auto it = notifier()->rxSakIter(); it; ++it) updateRxSaStatus(AssociationNumber(it.key()));
}

void HwEmulator::ZefStatus::ZefCpStatus::updateTxSaStatus() {
  const Lanx::IntfId intfId = notifier()->intfId();
  TRACE(8, "intf: " << intfId);
  const Sak sak = notifier()->txSak();
  if (sak.empty()) return;
  HwEmulator* emulator = stateMachine();
  if (emulator == nullptr) return;
  Zef::Ptr<HwStatusSlices> hardware = emulator->hardware();
  const uint64_t value = emulator->txSaValue();
  confirm(*emulator, [hardware, intfId, sak, value] {
    Zef::Ptr<MacSecIntfStatus> hw = hardware->status(intfId);
    if (!hw) return;  // the interface left the hardware before the confirmation
    hw->txSaStatusIs(SaStatus{AssociationNumber(sak.an), sak.mi, sak.keyNum, value});
  });
}

void HwEmulator::ZefStatus::ZefCpStatus::updatePostStatus() {
  HwEmulator* emulator = stateMachine();
  if (emulator == nullptr || emulator->selfTestResponder() == selfTestResponderOff) return;
  const Lanx::IntfId intfId = notifier()->intfId();
  const POSTStage stage = notifier()->postStatus();
  TRACE(8, "intf: " << intfId << " postStatus " << stage);
  // The hardware is ready for the stage the test asks for (or has reset itself for a retry).
  Zef::Ptr<HwStatusSlices> hardware = emulator->hardware();
  confirm(*emulator, [hardware, intfId, stage] {
    const Zef::Ptr<MacSecIntfStatus> hw = hardware->status(intfId);
    if (hw) hw->hwPostStatusIs(stage);
  });
}

bool HwEmulator::selfTestFrameIs(const Lanx::IntfId& intfId, const std::string& frame,
                                 std::function<void(const std::string&)> answer) {
  if (selfTestResponder() == selfTestResponderOff) return false;
  const Zef::Ptr<MacSecIntfStatus const> hw = hardware()->status(intfId);
  if (!hw) return false;
  // The stage says what the cipher path is set up to do with the frame.
  const std::optional<POSTTest> test = postTestOf(hw->hwPostStatus());
  std::string back = test ? selfTestLoopedBack(*test, frame) : std::string();
  if (back.empty()) return false;
  TRACE(8, "intf: " << intfId << " self-test frame of " << frame.size() << " bytes");
  if (selfTestResponder() == selfTestResponderSilent) return true;
  if (selfTestResponder() == selfTestResponderCorrupt) back.back() = static_cast<char>(back.back() ^ 0x01);
  confirm(*this, [answer = std::move(answer), back] { answer(back); });
  return true;
}

}  // namespace Macsec
