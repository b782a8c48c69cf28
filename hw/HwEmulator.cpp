#include "hw/HwEmulator.h"

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
}

void HwEmulator::ZefStatus::ZefCpStatus::updateRxSaStatus(const AssociationNumber& an) {
  const Lanx::IntfId intfId = notifier()->intfId();
  TRACE(8, "intf: " << intfId);
  // A key removed from the requests leaves its record: the hardware keeps the SA until replaced.
  const Sak sak = notifier()->rxSak(an);
  if (sak.empty()) return;
  HwEmulator* emulator = stateMachine();
  if (emulator == nullptr) return;
  Zef::Ptr<MacSecIntfStatusPtrDir> allMacsec = emulator->allMacsec();
  confirm(*emulator, [allMacsec, intfId, sak] {
    Zef::Ptr<MacSecIntfStatus> hw = Zef::constPtrCast<MacSecIntfStatus>(allMacsec->status(intfId));
    ZEF_ASSERT(hw);
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
  Zef::Ptr<MacSecIntfStatusPtrDir> allMacsec = emulator->allMacsec();
  const uint32_t value = emulator->txSaValue();
  confirm(*emulator, [allMacsec, intfId, sak, value] {
    Zef::Ptr<MacSecIntfStatus> hw = Zef::constPtrCast<MacSecIntfStatus>(allMacsec->status(intfId));
    ZEF_ASSERT(hw);
    hw->txSaStatusIs(SaStatus{AssociationNumber(sak.an), sak.mi, sak.keyNum, value});
  });
}

}  // namespace Macsec
