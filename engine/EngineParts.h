#pragma once

// What one engine is made of: the entities a switch's agent creates for the state machines
// (status, message hand-off, timer wheel, interface and hardware status, configuration sources)
// and the machinery around them (the MKPDU codec, the hardware emulator and its status slices, the
// configuration merge, the root state machine, which runs the device and its ports, the
// forwarding veto, the self test of proxy interfaces and the port access entities of 802.1X).
// `Engine` (engine/Engine.h) builds them and runs them; the accessors here serve status, tests,
// and state machines built around an engine, such as a data plane.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config/MacsecConfigMergeSm.h"
#include "dot1x/PaeManager.h"
#include "hw/HwEmulator.h"
#include "hw/HwStatusSlices.h"
#include "hw/MacsecForwardingModelSm.h"
#include "hw/MacsecProxyPostSm.h"
#include "mka/MkaRootSm.h"
#include "mkpdu/MkpduCodec.h"
#include "model/HwStatus.h"
#include "model/MacsecInternalTypes.h"
#include "model/Status.h"
#include "platform/Dir.h"
#include "platform/ForwardingModel.h"
#include "platform/PacketAccess.h"
#include "platform/TimerWheel.h"

namespace Macsec {

struct EngineOptions {
  // Names the engine in the operators' log.
  std::string name;
  // Whether MKPDUs go in and out as frames through the engine's codec, or as decoded messages.
  bool frames = true;
  // Seeds the engine's timing (the actors' random start), so that a run repeats exactly.
  uint64_t randomSeed = 1;
  // Whether the hardware emulator answers the SA requests; without it, another data plane must.
  bool emulatedHardware = true;
  // A simulation's seed for member identifiers and key nonces, so that a run replays exactly; 0 (a
  // real member) draws them from the random number generator.
  uint64_t replaySeed = 0;
};

class EngineParts {
 public:
  const std::string& name() const noexcept { return options_.name; }
  bool frames() const noexcept { return options_.frames; }

  const Zef::Ptr<MkaPamManager>& pamManager() const noexcept { return pamManager_; }
  const Zef::Ptr<Orb::TimerWheel>& wheel() const noexcept { return wheel_; }
  // The hardware status as every reader sees it, and the hardware side's own handle on it, for a
  // data plane that stands in for the emulator.
  const Zef::Ptr<MacSecIntfStatusPtrDir>& hwStatus() const noexcept { return hardware_->flat(); }
  const Zef::Ptr<HwStatusSlices>& hardware() const noexcept { return hardware_; }
  // The hardware status of an interface, as the hardware writes it.
  Zef::Ptr<MacSecIntfStatus> hw(const Lanx::IntfId& intf) const { return hardware_->status(intf); }
  const Zef::Ptr<HwEmulator>& emulator() const noexcept { return emulator_; }
  const Zef::Ptr<MkpduCodec>& codec() const noexcept { return codec_; }
  const Zef::Ptr<Memtab::MessageCounters>& counters() const noexcept { return counters_; }
  Zef::Ptr<MkaPortSm> port(const Lanx::IntfId& intf) const;
  // The device state machine while MACsec is enabled, else null.
  Zef::Ptr<MkaSm> device() const { return root_ ? root_->mkaSm() : nullptr; }
  const Zef::Ptr<Interface::EthIntfStatusDir>& ethIntfStatusDir() const noexcept { return ethIntfStatusDir_; }

 protected:
  class TxReactor;
  class ShutdownReactor;
  class Deferred;

  explicit EngineParts(EngineOptions options);
  ~EngineParts();
  EngineParts(const EngineParts&) = delete;
  EngineParts& operator=(const EngineParts&) = delete;

  EngineOptions options_;
  Zef::Ptr<Status> status_;
  Zef::Ptr<Interface::EthDevPamCollection> pams_;
  Zef::Ptr<MkaPamManager> pamManager_;
  Zef::Ptr<Orb::TimerWheel> wheel_;
  Zef::Ptr<HwStatusSlices> hardware_;
  Zef::Ptr<HwEmulator> emulator_;
  Zef::Ptr<TxReactor> txReactor_;
  Zef::Ptr<Memtab::MessageCounters> counters_;
  Zef::Ptr<MkpduCodec> codec_;
  Zef::Ptr<Interface::EthIntfStatusDir> ethIntfStatusDir_;
  Zef::Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir_;
  // The access points attached through the device, by interface; a frame received on an
  // interface reaches each of them as well as the codec.
  std::multimap<Lanx::IntfId, Zef::Ptr<Lanx::Pam>> attached_;
  Zef::Ptr<Zef::Dir> configSources_;
  Zef::Ptr<Config> config_;
  Zef::Ptr<Config> mergedConfig_;
  Zef::Ptr<MacsecConfigMergeSm> merge_;
  Zef::Ptr<Dot1x::EapKeyStatus> eapKeyStatus_;
  Zef::Ptr<Dot1x::PaeStatusDir> paeStatus_;
  Zef::Ptr<Dot1x::PaeManager> paes_;
  Zef::Ptr<ShutdownReactor> shutdownReactor_;
  Zef::Ptr<Interface::IntfForwardingModelInputDir> forwardingModel_;
  Zef::Ptr<MacsecProxy::Status> proxyStatus_;
  Zef::Ptr<MkaRootSm> root_;
  Zef::Ptr<MacsecForwardingModelSm> forwardingModelSm_;
  Zef::Ptr<MacsecProxy::MacsecProxyPOSTSm> proxyPostSm_;
  std::vector<Zef::Ptr<Deferred>> deferred_;
};

}  // namespace Macsec
