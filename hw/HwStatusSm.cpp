#include "hw/HwStatusSm.h"

#include "platform/HashTable.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::HwStatusSm")

namespace Macsec {

Zef::Name HwStatusSm::sliceMap(const Lanx::IntfId& intfId) const {
  const auto it = sliceMap_.find(intfId);
  return it == sliceMap_.end() ? Zef::Name() : it->second;
}

void HwStatusSm::doInit() {
  TRACE(0, "");
  for (const Zef::Name& name : Zef::keysOf<Zef::Name>(hwStatusSliceDir()->entityPtrIter())) handleSliceDir(name);
}

void HwStatusSm::handleSliceDir(const Zef::Name& sliceName) {
  TRACE(8, ": " << sliceName);
  const Zef::Ptr<MacSecStatus const> slice = Zef::ptrCast<MacSecStatus const>(hwStatusSliceDir()->entry(sliceName));
  const Zef::Ptr<ZefHwSlice> current = hwSlice(sliceName);
  if (current && current->notifier() == slice) return;
  if (current) hwSliceDel(sliceName);
  // A slice that arrives with interfaces already in it adds them all. One that replaces another
  // object under its name hands its readers over: an interface of both stays in the directory,
  // with the new status, so that its port carries on.
  if (slice) {
    const Zef::Ptr<ZefHwSlice> reactor = hwSliceIs(sliceName, slice);
    for (auto it = reactor->intfHwStatusIter(); it; ++it) reactor->handleIntfStatus(Lanx::IntfId(it.key()));
  }
  // What the slice supplied and has no longer goes: all of it when the slice goes, or when an
  // entity of another type takes its name.
  if (current) handleSliceStatusDelete(sliceName);
}

void HwStatusSm::ZefHwSlice::handleIntfStatus(const Lanx::IntfId& intfId) {
  HwStatusSm* sm = owner();
  if (sm == nullptr) return;
  TRACE(8, ": " << intfId);
  const Zef::Ptr<ZefIntfHwStatus> reactor = intfHwStatus(intfId);
  sm->doUpdateHwStatus(reactor ? reactor->notifier() : nullptr, key(), intfId);
}

void HwStatusSm::doUpdateHwStatus(const Zef::Ptr<MacSecIntfStatus const>& intfHwStatus, const Zef::Name& sliceName,
                                  const Lanx::IntfId& intfId) {
  // No arbitration between slices: the last one to supply an interface has it, and any slice that
  // drops the interface removes it.
  if (intfHwStatus) {
    TRACE(8, ": " << sliceName << "/" << intfId << " added ");
    // The slice is known before readers hear of the interface: a writer that answers at once
    // finds the status through it.
    sliceMap_[intfId] = sliceName;
    hwStatus()->statusIs(intfHwStatus);
  } else {
    TRACE(8, ": " << sliceName << "/" << intfId << " deleted ");
    hwStatus()->statusDel(intfId);
    sliceMap_.erase(intfId);
  }
  trace();
}

void HwStatusSm::handleSliceStatusDelete(const Zef::Name& sliceName) {
  TRACE(8, ": " << sliceName);
  // Only the interfaces credited to the slice go, and not those the slice of that name has now;
  // one that another slice supplied since stays.
  const Zef::Ptr<ZefHwSlice> now = hwSlice(sliceName);
  for (auto it = sliceMap_.begin(); it != sliceMap_.end();) {
    const auto [intfId, owner] = *it++;
    if (owner != sliceName || !hwStatus()->statusHas(intfId)) continue;
    if (now && now->intfHwStatus(intfId)) continue;
    doUpdateHwStatus(nullptr, sliceName, intfId);
  }
}

void HwStatusSm::trace() const {
  if (!zefTraceHandle().isEnabled(8)) return;
  for (auto slice = hwSliceIter(); slice; ++slice) {
    for (auto intf = slice->intfHwStatusIter(); intf; ++intf) {
      TRACE(8, ": hwStatusSliceDir/" << slice.key() << " has " << intf.key());
    }
  }
}

}  // namespace Macsec
