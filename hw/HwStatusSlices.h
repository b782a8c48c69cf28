#pragma once

// The hardware status as the hardware side publishes it and owns it: slices of up to
// `kInterfacesPerSlice` interfaces, one MacSecStatus each, in a directory by slice name, as a
// switch's hardware does; and the one flat directory that `HwStatusSm` folds from the slices for
// every reader. The hardware side's writers (the emulator, a kernel data plane) change an
// interface's status here, through the slice that owns it; readers only ever see it as const.

#include <cstddef>

#include "hw/HwStatusSm.h"
#include "model/HwStatus.h"
#include "platform/Dir.h"
#include "platform/PtrInterface.h"

namespace Macsec {

class HwStatusSlices : public Zef::PtrInterface {
 public:
  static constexpr size_t kInterfacesPerSlice = 16;
  static Zef::Ptr<HwStatusSlices> HwStatusSlicesIs() { return Zef::Ptr<HwStatusSlices>(new HwStatusSlices()); }

  // An interface comes into the first slice with room, or a new slice when all are full; it goes
  // from its slice, and the slice with its last interface.
  void interfaceIs(const Lanx::IntfId& intf);
  void interfaceDel(const Lanx::IntfId& intf);
  // What the data plane offers on every interface, those it has and those to come.
  void macsecCapabilityIs(MacsecCapability capability);
  // The status of an interface, for its writer; null if the hardware does not have it.
  Zef::Ptr<MacSecIntfStatus> status(const Lanx::IntfId& intf) const;

  // The flat directory that every reader uses.
  const Zef::Ptr<MacSecIntfStatusPtrDir>& flat() const noexcept { return flat_; }
  // The slices by name, as the hardware publishes them.
  const Zef::Ptr<Zef::Dir>& sliceDir() const noexcept { return sliceDir_; }

 private:
  HwStatusSlices();
  Zef::Ptr<MacSecStatus> slice(const Zef::Name& name) const;

  Zef::Ptr<MacSecIntfStatusPtrDir> flat_;
  Zef::Ptr<Zef::Dir> sliceDir_;
  Zef::Ptr<HwStatusSm> folding_;
  MacsecCapability capability_ = macsecNotImplemented;
};

}  // namespace Macsec
