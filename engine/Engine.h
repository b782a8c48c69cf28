#pragma once

// One MKA engine, as its users drive it: what goes in and what comes out. What it is made of is in
// engine/EngineParts.h. The simulator runs several side by side in one process, the daemon runs
// one; nothing of an engine is shared with another but the clock, the debug trace and the
// operators' log, whose records name the engine that speaks.
//
// What goes in: the interfaces as the switch has them (address, link, hardware), their MACsec
// settings and keys, received frames (or, for a simulation that skips the codec, decoded
// MKPDUs), and time, as the timers fall due.
// What comes out: frames to send (or decoded MKPDUs), SA requests in each CpStatus, which the
// hardware emulator answers, status, and the operators' log.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "engine/EngineParts.h"

namespace Macsec {

// How one interface runs MKA: its MACsec settings, and for interfaceIs() its Ethernet address and
// the port number of its SCI.
struct InterfaceSettings {
  Lanx::EthAddr mac;
  uint16_t portId = 1;
  MacsecParams params;
  Dot1x::Dot1xType dot1xType = Dot1x::dot1xTypePreSharedKey;
};

class Engine : public EngineParts {
 public:
  using FrameTransmitter = std::function<void(const Lanx::IntfId& intf, std::string_view frame)>;
  // The message as the actor built it, readable during the call only.
  using MessageTransmitter = std::function<void(const Lanx::IntfId& intf, const DecodedMkpdu& message)>;
  // Runs one hardware confirmation, at once or later.
  using ConfirmationScheduler = std::function<void(std::function<void()> confirm)>;

  explicit Engine(EngineOptions options);
  ~Engine();

  // In: an Ethernet interface of the switch, with its address, port number and link; its link
  // alone; and its going away.
  void ethernetIs(const Lanx::IntfId& intf, const Lanx::EthAddr& addr, uint16_t portId,
                  Interface::LinkStatus link = Interface::linkUp);
  void linkIs(const Lanx::IntfId& intf, Interface::LinkStatus link);
  void ethernetDel(const Lanx::IntfId& intf);
  // In: the interface in the (emulated) hardware's status, and its going away. The hardware
  // publishes its status in slices, as a switch does (`HwStatusSlices`).
  void hardwareIs(const Lanx::IntfId& intf);
  void hardwareDel(const Lanx::IntfId& intf);
  // In: MACsec on an interface, with its settings, written as its IntfStatus directly (below the
  // configuration, for scenarios of the port), and its removal. The codec listens for MKPDUs on
  // every such interface. Configuration writes the IntfStatus through config() instead.
  void macsecIs(const Lanx::IntfId& intf, const InterfaceSettings& settings);
  void macsecDel(const Lanx::IntfId& intf);
  // An interface that is up, in the hardware, with a codec's access point, whose MACsec settings
  // and keys come from the configuration.
  void linkedInterfaceIs(const Lanx::IntfId& intf, const Lanx::EthAddr& addr, uint16_t portId = 1,
                         Interface::LinkStatus link = Interface::linkUp);
  // Such an interface gone from the switch: its status, hardware and access point.
  void linkedInterfaceDel(const Lanx::IntfId& intf);
  // All of the above for an interface that is up, with its settings written below the
  // configuration: the device starts its port.
  void interfaceIs(const Lanx::IntfId& intf, const InterfaceSettings& settings);
  // Stops the interface's port state machine, as the device does when the link goes down.
  void portDel(const Lanx::IntfId& intf);
  // Stops the state machines (the root and what it runs, the forwarding veto, the proxy self
  // test), leaving the status as it is, and starts them again over it, as the agent does across a
  // restart; what changes in between is what changed while it was away. The configuration merge
  // and the hardware aggregation go on.
  void stateMachinesStop();
  void stateMachinesStart();
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
  // A frame an interface sends that the data plane takes as a self-test frame: it gives `answer`
  // what comes back through its cipher path (or stays silent) and says true; false sends the frame
  // to the wire. The hardware emulator's, when there is one.
  using SelfTestLoop = std::function<bool(const Lanx::IntfId& intf, const std::string& frame,
                                          std::function<void(const std::string&)> answer)>;
  void selfTestLoopIs(SelfTestLoop loop) { selfTestLoop_ = std::move(loop); }
  // How the emulated hardware confirms SA requests; by default at once, inside the request.
  void confirmationSchedulerIs(ConfirmationScheduler scheduler);

  // Out: the status of every interface, port and actor. The rest of what the engine is made of is
  // in EngineParts.
  const Zef::Ptr<Status>& status() const noexcept { return status_; }
  // In: the operators' configuration (profiles, interfaces, switch-wide settings), the source
  // named "cli". It is one of the sources that the engine merges, and the only one whose
  // switch-wide settings count. MACsec runs unless it says shutdown.
  const Zef::Ptr<Config>& config() const noexcept { return config_; }
  static constexpr uint32_t kCliPriority = 100;
  // In: another source of configuration, made with its priority if it is new, and its removal;
  // for each profile and each interface the source of the highest priority that has it wins.
  Zef::Ptr<Config> configSourceIs(const Zef::Name& name, uint32_t priority);
  void configSourceDel(const Zef::Name& name);
  // Out: the configuration the engine runs, merged from all sources.
  const Zef::Ptr<Config>& mergedConfig() const noexcept { return mergedConfig_; }
  // Out: the veto on forwarding of each interface whose controlled port is closed.
  const Zef::Ptr<Interface::IntfForwardingModelInputDir>& forwardingModel() const noexcept { return forwardingModel_; }
  // In: the proxy interfaces, whose cipher path is tested while their hardware is at the start.
  const Zef::Ptr<MacsecProxy::Status>& proxyStatus() const noexcept { return proxyStatus_; }
  // In: the keys of finished EAP exchanges, by interface, as the port access entities (or another
  // 802.1X agent) give them.
  const Zef::Ptr<Dot1x::EapKeyStatus>& eapKeyStatus() const noexcept { return eapKeyStatus_; }
  // In: an Ethernet interface's port access entity, which authenticates the port with 802.1X and
  // gives its EAP key; made anew when its settings change. False if the engine has no such
  // Ethernet interface. Its frames come and go as frames, whether MKPDUs do or not.
  bool paeIs(const Lanx::IntfId& intf, const Dot1x::PaeSettings& settings);
  void paeDel(const Lanx::IntfId& intf);
  // In: the operator's word for a port access entity: a new exchange now, and a supplicant's
  // logoff (true) and its return (false). False if the interface has no such entity.
  bool paeReauthenticate(const Lanx::IntfId& intf);
  bool paeLoggedOffIs(const Lanx::IntfId& intf, bool loggedOff);
  // Out: what each port access entity says of itself, and what the RADIUS servers of those that
  // pass EAP through answered.
  const Zef::Ptr<Dot1x::PaeStatusDir>& paeStatus() const noexcept { return paeStatus_; }
  // Out: the requests of the authenticators that pass EAP through, to a server (by the name of
  // its settings) on one of its channels: the transport opens each channel as it is first used.
  // In: what came back from a server on a channel.
  void radiusTransmitterIs(Dot1x::RadiusClient::Transmit transmitter);
  void radiusAnswerIs(const std::string& server, uint32_t channel, std::string_view bytes);

  // Runs work as this engine: the operators' log names it as the source.
  template <class Work>
  decltype(auto) as(Work&& work) const {
    const Speaking speaking(name());
    return std::forward<Work>(work)();
  }

 private:
  // The log source for the time of one call, and the one before it back after.
  class Speaking {
   public:
    explicit Speaking(const std::string& name);
    ~Speaking();

   private:
    const char* previous_;
  };

  void transmitted();
  // Attaches an access point that a state machine opened (the self test's) to the hardware and
  // the wire.
  void attach(const Zef::Ptr<Lanx::Pam>& pam);
  void forgetDetached();
  void openAccessPoint(const Lanx::IntfId& intf);
  // Runs an action from the engine's timers, at the current time: after the call that asked for
  // it has returned, as hardware answers.
  void later(std::function<void()> action);

  FrameTransmitter frameTransmitter_;
  MessageTransmitter messageTransmitter_;
  SelfTestLoop selfTestLoop_;
};

}  // namespace Macsec
