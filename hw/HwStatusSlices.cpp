#include "hw/HwStatusSlices.h"

#include <string>

namespace Macsec {

namespace {

Zef::Name sliceName(size_t index) { return Zef::Name("slice" + std::to_string(index)); }

}  // namespace

HwStatusSlices::HwStatusSlices()
    : flat_(MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs()),
      sliceDir_(Zef::Dir::DirIs("hwStatusSliceDir")),
      folding_(HwStatusSm::HwStatusSmIs(flat_, sliceDir_)) {}

Zef::Ptr<MacSecStatus> HwStatusSlices::slice(const Zef::Name& name) const {
  return Zef::ptrCast<MacSecStatus>(sliceDir_->entityPtr(name));
}

void HwStatusSlices::interfaceIs(const Lanx::IntfId& intf) {
  if (flat_->statusHas(intf)) return;
  for (size_t index = 0;; ++index) {
    Zef::Ptr<MacSecStatus> room = slice(sliceName(index));
    if (room && room->statusSize() >= kInterfacesPerSlice) continue;
    if (!room) {
      room = MacSecStatus::MacSecStatusIs(sliceName(index));
      sliceDir_->entityPtrIs(room);
    }
    room->statusIs(intf)->macsecCapabilityIs(capability_);
    return;
  }
}

void HwStatusSlices::interfaceDel(const Lanx::IntfId& intf) {
  const Zef::Ptr<MacSecStatus> owner = slice(folding_->sliceMap(intf));
  if (!owner) return;
  owner->statusDel(intf);
  if (owner->statusSize() == 0) sliceDir_->entityPtrDel(owner->name());
}

void HwStatusSlices::macsecCapabilityIs(MacsecCapability capability) {
  capability_ = capability;
  for (auto it = flat_->statusIter(); it; ++it) {
    if (const Zef::Ptr<MacSecIntfStatus> own = status(it.key())) own->macsecCapabilityIs(capability);
  }
}

Zef::Ptr<MacSecIntfStatus> HwStatusSlices::status(const Lanx::IntfId& intf) const {
  const Zef::Ptr<MacSecStatus> owner = slice(folding_->sliceMap(intf));
  return owner ? owner->status(intf) : nullptr;
}

}  // namespace Macsec
