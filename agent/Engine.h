#pragma once

// The one assembly of an MKA engine: the entities a switch's agent creates for the state machines
// (status, message hand-off, timer wheel, hardware status) and the machinery around them (the
// MKPDU codec, the hardware emulator, the ports). The simulator runs several side by side in one
// process, the daemon runs one; nothing of an engine is shared with another but the clock, the
// debug trace and the operators' log, whose records name the engine that speaks.
//
// What goes in: interfaces with their settings and keys, received frames (or, for a simulation
// that skips the codec, decoded MKPDUs), and time, as the timers fall due.
// What comes out: frames to send (or decoded MKPDUs), SA requests in each CpStatus, which the
// hardware emulator answers, status, and the operators' log.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "hw/HwEmulator.h"
#include "mka/MkaPortSm.h"
#include "mkpdu/MkpduCodec.h"
#include "model/HwStatus.h"
#include "model/MacsecInternalTypes.h"
#include "model/Status.h"
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
};

// How one interface runs MKA.
struct InterfaceSettings {
  Lanx::EthAddr mac;
  uint16_t portId = 1;
  MacsecParams params;
  uint8_t keyServerPriority = 16;
  Dot1x::Dot1xType dot1xType = Dot1x::dot1xTypePreSharedKey;
};

class Engine {
 public:
  using FrameTransmitter = std::function<void(const Lanx::IntfId& intf, const std::string& frame)>;
  using MessageTransmitter = std::function<void(const Lanx::IntfId& intf, const DecodedMkpdu& message)>;
  // Runs one hardware confirmation, at once or later.
  using ConfirmationScheduler = std::function<void(std::function<void()> confirm)>;

  explicit Engine(EngineOptions options);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const std::string& name() const noexcept { return options_.name; }
  bool frames() const noexcept { return options_.frames; }

  // In: an interface's status (IntfStatus, CpStatus, MkaPortStatus with the SCI made from its
  // address), its hardware status and its access point for MKPDUs.
  void interfaceIs(const Lanx::IntfId& intf, const InterfaceSettings& settings);
  // In: a port state machine that runs the interface's actors from its configured keys, once the
  // interface is there.
  void portIs(const Lanx::IntfId& intf);
  // Stops the interface's port state machine, as the device does when MKA stops on it.
  void portDel(const Lanx::IntfId& intf);
  // In: an interface's primary and fallback keys; an empty key removes it. An interface the engine
  // does not have is ignored, as are frames for one.
  void keyIs(const Lanx::IntfId& intf, const Cak& key);
  void defaultKeyIs(const Lanx::IntfId& intf, const Cak& key);

  // In: a frame received on an interface (with frames), or a decoded MKPDU (without). Every state
  // machine has reacted to it when the call returns.
  void frameIs(const Lanx::IntfId& intf, const uint8_t* frame, size_t length);
  void messageIs(const Lanx::IntfId& intf, const DecodedMkpdu& message);

  // In: time. The earliest deadline of the engine's timers, and the firing of the earliest one if
  // it is due (the caller's clock says when); returns whether one fired.
  double nextDeadline() const noexcept { return wheel_->nextDeadline(); }
  bool serviceOneTimer();

  // Out: where frames (with frames) go, and every MKPDU the actors send, in decoded form, before
  // the codec encodes it.
  void frameTransmitterIs(FrameTransmitter transmitter) { frameTransmitter_ = std::move(transmitter); }
  void messageTransmitterIs(MessageTransmitter transmitter) { messageTransmitter_ = std::move(transmitter); }
  // How the emulated hardware confirms SA requests; by default at once, inside the request.
  void confirmationSchedulerIs(ConfirmationScheduler scheduler);

  // Out: the engine's entities, for status and for state machines built around it.
  const Zef::Ptr<Status>& status() const noexcept { return status_; }
  const Zef::Ptr<MkaPamManager>& pamManager() const noexcept { return pamManager_; }
  const Zef::Ptr<Orb::TimerWheel>& wheel() const noexcept { return wheel_; }
  const Zef::Ptr<MacSecIntfStatusPtrDir>& hwStatus() const noexcept { return hwStatus_; }
  const Zef::Ptr<HwEmulator>& emulator() const noexcept { return emulator_; }
  const Zef::Ptr<MkpduCodec>& codec() const noexcept { return codec_; }
  // The hardware status of an interface, as the emulated hardware writes it.
  Zef::Ptr<MacSecIntfStatus> hw(const Lanx::IntfId& intf) const { return slice_->status(intf); }
  Zef::Ptr<MkaPortSm> port(const Lanx::IntfId& intf) const;

  // Runs work as this engine: the operators' log names it as the source.
  template <class Work>
  decltype(auto) as(Work&& work) const {
    const Speaking speaking(name());
    return std::forward<Work>(work)();
  }

 private:
  class TxReactor;
  // The log source for the time of one call, and the one before it back after.
  class Speaking {
   public:
    explicit Speaking(const std::string& name);
    ~Speaking();

   private:
    const char* previous_;
  };

  void transmitted();

  EngineOptions options_;
  Zef::Ptr<Status> status_;
  Zef::Ptr<Interface::EthDevPamCollection> pams_;
  Zef::Ptr<MkaPamManager> pamManager_;
  Zef::Ptr<Orb::TimerWheel> wheel_;
  Zef::Ptr<MacSecIntfStatusPtrDir> hwStatus_;
  Zef::Ptr<MacSecStatus> slice_;
  Zef::Ptr<HwEmulator> emulator_;
  Zef::Ptr<TxReactor> txReactor_;
  Zef::Ptr<MkpduCodec> codec_;
  std::map<Lanx::IntfId, Zef::Ptr<MkaPortSm>> ports_;
  FrameTransmitter frameTransmitter_;
  MessageTransmitter messageTransmitter_;
};

}  // namespace Macsec
