#include "engine/Engine.h"

#include <cstring>
#include <vector>

#include "platform/Clock.h"
#include "platform/Log.h"

namespace Macsec {

// Hands every MKPDU the actors send to the engine, which passes it on.
class EngineParts::TxReactor : public MkaMessageInfo::NotifieeConst {
 public:
  TxReactor(const Zef::Ptr<MkaMessageInfo>& tx, std::function<void()> sent)
      : NotifieeConst(tx), sent_(std::move(sent)) {
    hasNotificationActiveIs(true);
  }
  void onCount() override {
    if (sent_) sent_();
  }
  void sentIs(std::function<void()> sent) { sent_ = std::move(sent); }

 private:
  std::function<void()> sent_;
};

// Keeps MACsec running unless the configuration shuts it down.
class EngineParts::ShutdownReactor : public Config::NotifieeConst {
 public:
  ShutdownReactor(const Zef::Ptr<Config>& config, const Zef::Ptr<Status>& status)
      : NotifieeConst(config), status_(status) {
    hasNotificationActiveIs(true);
    onShutdown();
  }
  void onShutdown() override { status_->macsecEnabledIs(!notifier()->shutdown()); }

 private:
  Zef::Ptr<Status> status_;
};

// One action on the engine's timer wheel, run once.
class EngineParts::Deferred : public Orb::TimerWheel::Notifiee {
 public:
  Deferred(const Zef::Ptr<Orb::TimerWheel>& wheel, std::function<void()> action)
      : Notifiee(wheel), action_(std::move(action)) {}
  void onTime() override {
    std::function<void()> action = std::move(action_);
    done_ = true;
    action();
  }
  bool done() const noexcept { return done_; }

 private:
  std::function<void()> action_;
  bool done_ = false;
};

void Engine::later(std::function<void()> action) {
  std::erase_if(deferred_, [](const Zef::Ptr<Deferred>& d) { return d->done(); });
  const Zef::Ptr<Deferred> deferred(new Deferred(wheel_, [this, action = std::move(action)] { as(action); }));
  deferred->hasNotificationActiveIs(true);
  deferred->timeMinIs(Zef::System::currentTime());
  deferred_.push_back(deferred);
}

Engine::Speaking::Speaking(const std::string& name) : previous_(Zef::logSource()) { Zef::logSourceIs(name.c_str()); }

Engine::Speaking::~Speaking() { Zef::logSourceIs(previous_); }

EngineParts::EngineParts(EngineOptions options)
    : options_(std::move(options)),
      status_(Status::StatusIs()),
      pams_(options_.frames ? Interface::EthDevPamCollection::EthDevPamCollectionIs("pamCollection") : nullptr),
      pamManager_(MkaPamManager::MkaPamManagerIs(pams_)),
      wheel_(Orb::TimerWheel::TimerWheelIs()),
      hardware_(HwStatusSlices::HwStatusSlicesIs()),
      emulator_(options_.emulatedHardware ? HwEmulator::HwEmulatorIs(status_, hardware_) : nullptr),
      counters_(Memtab::MessageCounters::MessageCountersIs()),
      ethIntfStatusDir_(Interface::EthIntfStatusDir::EthIntfStatusDirIs("ethIntfStatusDir")),
      deviceIntfStatusDir_(Interface::DeviceIntfStatusDir::DeviceIntfStatusDirIs("deviceIntfStatusDir")) {}

EngineParts::~EngineParts() = default;

Engine::Engine(EngineOptions options) : EngineParts(std::move(options)) {
  const Speaking speaking(name());
  wheel_->randomSeedIs(options_.randomSeed);
  status_->replaySeedIs(options_.replaySeed);
  // The engine hears what the actors send before the codec encodes it.
  txReactor_ = Zef::Ptr<TxReactor>(new TxReactor(pamManager_->txMessageInfo(), [this] { transmitted(); }));
  if (options_.frames) codec_ = MkpduCodec::MkpduCodecIs(status_, pamManager_, pams_, counters_);
  deviceIntfStatusDir_->attacherIs([this](const Zef::Ptr<Lanx::Pam>& pam) { attach(pam); });
  configSources_ = Zef::Dir::DirIs("configSources");
  mergedConfig_ = Config::ConfigIs("merged");
  merge_ = MacsecConfigMergeSm::MacsecConfigMergeSmIs(configSources_, mergedConfig_);
  config_ = configSourceIs("cli", kCliPriority);
  eapKeyStatus_ = Dot1x::EapKeyStatus::EapKeyStatusIs();
  paeStatus_ = Dot1x::PaeStatusDir::PaeStatusDirIs("paeStatus");
  paes_ = Dot1x::PaeManager::PaeManagerIs(paeStatus_, eapKeyStatus_, ethIntfStatusDir_, wheel_);
  paes_->transmitIs([this](const Lanx::IntfId& intf, std::string_view frame) {
    if (frameTransmitter_) frameTransmitter_(intf, frame);
  });
  // MACsec runs unless the configuration shuts it down.
  shutdownReactor_ = Zef::Ptr<ShutdownReactor>(new ShutdownReactor(mergedConfig_, status_));
  forwardingModel_ = Interface::IntfForwardingModelInputDir::IntfForwardingModelInputDirIs("forwardingModelInputDir");
  proxyStatus_ = MacsecProxy::Status::StatusIs();
  if (emulator_) {
    selfTestLoop_ = [emulator = emulator_.ptr()](const Lanx::IntfId& intf, const std::string& frame,
                                                 std::function<void(const std::string&)> answer) {
      return emulator->selfTestFrameIs(intf, frame, std::move(answer));
    };
  }
  stateMachinesStart();
}

Engine::~Engine() {
  // The device and its ports go first, while everything they use is still there.
  stateMachinesStop();
  const Speaking speaking(name());
  paes_ = nullptr;
  deferred_.clear();
  deviceIntfStatusDir_->attacherIs(nullptr);
  txReactor_->sentIs(nullptr);
}

void Engine::ethernetIs(const Lanx::IntfId& intf, const Lanx::EthAddr& addr, uint16_t portId,
                        Interface::LinkStatus link) {
  const Speaking speaking(name());
  const Zef::Ptr<Interface::EthIntfStatus> eth = ethIntfStatusDir_->intfStatusIs(intf);
  eth->addrIs(addr);
  eth->portIdIs(portId);
  eth->linkStatusIs(link);
}

void Engine::linkIs(const Lanx::IntfId& intf, Interface::LinkStatus link) {
  const Speaking speaking(name());
  if (const Zef::Ptr<Interface::EthIntfStatus> eth = ethIntfStatusDir_->intfStatus(intf)) eth->linkStatusIs(link);
}

void Engine::ethernetDel(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  paes_->paeDel(intf);
  ethIntfStatusDir_->intfStatusDel(intf);
}

void Engine::hardwareIs(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  hardware_->interfaceIs(intf);
}

void Engine::hardwareDel(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  hardware_->interfaceDel(intf);
}

Zef::Ptr<Config> Engine::configSourceIs(const Zef::Name& name, uint32_t priority) {
  const Speaking speaking(this->name());
  if (const Zef::Ptr<Config> existing = Zef::ptrCast<Config>(configSources_->entityPtr(name))) return existing;
  // The priority is read as each entry registers, so it is set before the source joins.
  const Zef::Ptr<Config> source = Config::ConfigIs(name);
  source->configPriorityIs(priority);
  configSources_->entityPtrIs(source);
  return source;
}

void Engine::configSourceDel(const Zef::Name& name) {
  const Speaking speaking(this->name());
  configSources_->entityPtrDel(name);
}

void Engine::macsecIs(const Lanx::IntfId& intf, const InterfaceSettings& settings) {
  const Speaking speaking(name());
  // An interface's parameters are fixed for its IntfStatus: new ones make a new one.
  if (const Zef::Ptr<IntfStatus> existing = status_->intfStatus(intf);
      existing && existing->macsecParams() != settings.params) {
    status_->intfStatusDel(intf);
  }
  openAccessPoint(intf);
  // The settings are read by the actors, which come with the first key.
  const Zef::Ptr<IntfStatus> intfStatus = status_->intfStatusIs(intf, settings.params);
  intfStatus->dot1xTypeIs(settings.dot1xType);
}

void Engine::openAccessPoint(const Lanx::IntfId& intf) {
  if (!codec_) return;
  // The codec opens an access point for the interface; what it sends there leaves the engine.
  pamManager_->mkaIntfIs(intf);
  pams_->pam(intf)->transmitterIs([this, intf](std::string_view frame) {
    if (frameTransmitter_) frameTransmitter_(intf, frame);
  });
}

void Engine::macsecDel(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  status_->intfStatusDel(intf);
  if (codec_) pamManager_->mkaIntfDel(intf);
}

void Engine::interfaceIs(const Lanx::IntfId& intf, const InterfaceSettings& settings) {
  hardwareIs(intf);
  ethernetIs(intf, settings.mac, settings.portId);
  macsecIs(intf, settings);
}

void Engine::linkedInterfaceIs(const Lanx::IntfId& intf, const Lanx::EthAddr& addr, uint16_t portId,
                               Interface::LinkStatus link) {
  hardwareIs(intf);
  ethernetIs(intf, addr, portId, link);
  const Speaking speaking(name());
  openAccessPoint(intf);
}

void Engine::linkedInterfaceDel(const Lanx::IntfId& intf) {
  ethernetDel(intf);
  hardwareDel(intf);
  const Speaking speaking(name());
  if (codec_) pamManager_->mkaIntfDel(intf);
}

Zef::Ptr<MkaPortSm> EngineParts::port(const Lanx::IntfId& intf) const {
  const Zef::Ptr<MkaSm> sm = device();
  return sm ? sm->mkaPortSm(intf) : nullptr;
}

void Engine::portDel(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  if (const Zef::Ptr<MkaSm> sm = device()) sm->mkaPortSmDel(intf);
}

void Engine::stateMachinesStop() {
  const Speaking speaking(name());
  if (proxyPostSm_) proxyPostSm_->hasNotificationActiveIs(false);
  proxyPostSm_ = nullptr;
  if (forwardingModelSm_) forwardingModelSm_->hasNotificationActiveIs(false);
  forwardingModelSm_ = nullptr;
  if (root_) root_->hasNotificationActiveIs(false);
  root_ = nullptr;
}

void Engine::stateMachinesStart() {
  const Speaking speaking(name());
  if (root_) return;
  root_ = MkaRootSm::MkaRootSmIs(mergedConfig_, status_, eapKeyStatus_, ethIntfStatusDir_, deviceIntfStatusDir_,
                                 pamManager_, hardware_->flat(), wheel_, counters_);
  forwardingModelSm_ = MacsecForwardingModelSm::MacsecForwardingModelSmIs(status_, forwardingModel_);
  proxyPostSm_ = MacsecProxy::MacsecProxyPOSTSm::MacsecProxyPOSTSmIs(proxyStatus_, status_, hardware_->flat(),
                                                                     deviceIntfStatusDir_, ethIntfStatusDir_, wheel_);
}

void Engine::keyIs(const Lanx::IntfId& intf, const Cak& key) {
  const Speaking speaking(name());
  if (const Zef::Ptr<IntfStatus> intfStatus = status_->intfStatus(intf)) intfStatus->keyIs(key);
}

void Engine::defaultKeyIs(const Lanx::IntfId& intf, const Cak& key) {
  const Speaking speaking(name());
  if (const Zef::Ptr<IntfStatus> intfStatus = status_->intfStatus(intf)) intfStatus->defaultKeyIs(key);
}

namespace {

Zef::Ptr<Lanx::Pkt> packetOf(const uint8_t* frame, size_t length) {
  // Room for the frame and no more: one buffer, filled once.
  const Zef::Ptr<Lanx::Pkt> pkt = Lanx::globalPktManager().newPkt(length);
  if (length > 0) std::memcpy(pkt->newHeadData(length), frame, length);
  return pkt;
}

}  // namespace

bool Engine::paeIs(const Lanx::IntfId& intf, const Dot1x::PaeSettings& settings) {
  const Speaking speaking(name());
  return paes_->paeIs(intf, settings);
}

void Engine::paeDel(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  paes_->paeDel(intf);
}

bool Engine::paeReauthenticate(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  return paes_->reauthenticate(intf);
}

bool Engine::paeLoggedOffIs(const Lanx::IntfId& intf, bool loggedOff) {
  const Speaking speaking(name());
  return paes_->loggedOffIs(intf, loggedOff);
}

void Engine::radiusTransmitterIs(Dot1x::RadiusClient::Transmit transmitter) {
  paes_->radiusTransmitIs(std::move(transmitter));
}

void Engine::radiusAnswerIs(const std::string& server, uint32_t channel, std::string_view bytes) {
  const Speaking speaking(name());
  paes_->radiusAnswerIs(server, channel, bytes);
}

void Engine::frameIs(const Lanx::IntfId& intf, const uint8_t* frame, size_t length) {
  const Speaking speaking(name());
  // EAPOL frames other than MKPDUs are the port access entity's, if the interface has one.
  Dot1x::EapolFrame eapol;
  const std::string_view bytes(reinterpret_cast<const char*>(frame), length);
  if (Dot1x::decodeEapol(bytes, eapol) == Dot1x::EapolRefusal::none && eapol.type != Dot1x::EapolType::mka &&
      paes_->frameIs(intf, eapol)) {
    return;
  }
  forgetDetached();
  const auto [first, last] = attached_.equal_range(intf);
  // Most frames have one reader, the codec, which takes a frame of an interface in MKA operation
  // straight, as it would from the interface's access point; others are points of a self test.
  if (first == last && codec_ && codec_->frameIs(intf, frame, length)) return;
  const Zef::Ptr<Lanx::Pam> pam = pams_ ? pams_->pam(intf) : nullptr;
  if (first == last) {
    if (pam) pam->rxPktIs(packetOf(frame, length));
    return;
  }
  std::vector<Zef::Ptr<Lanx::Pam>> readers;
  if (pam) readers.push_back(pam);
  for (auto it = first; it != last; ++it) readers.push_back(it->second);
  for (const Zef::Ptr<Lanx::Pam>& reader : readers) reader->rxPktIs(packetOf(frame, length));
}

void Engine::forgetDetached() {
  // Points that their manager has let go are held by nobody else.
  std::erase_if(attached_, [](const auto& entry) { return entry.second->references() == 1; });
}

void Engine::attach(const Zef::Ptr<Lanx::Pam>& pam) {
  forgetDetached();
  const Lanx::IntfId intf = pam->intfId();
  attached_.emplace(intf, pam);
  // What the point sends goes to the data plane's self-test loop if it takes it (a self-test frame
  // it loops back), else to the wire. The point is not captured by its own transmitter, which it
  // holds.
  Lanx::Pam* sender = pam.ptr();
  pam->transmitterIs([this, intf, sender](std::string_view sent) {
    const std::string frame(sent);
    const Zef::Ptr<Lanx::Pam> back(sender);
    const bool looped = selfTestLoop_ && selfTestLoop_(intf, frame, [this, back](const std::string& answer) {
                          later([back, answer] {
                            back->rxPktIs(packetOf(reinterpret_cast<const uint8_t*>(answer.data()), answer.size()));
                          });
                        });
    if (!looped && frameTransmitter_) frameTransmitter_(intf, frame);
  });
}

void Engine::messageIs(const Lanx::IntfId& intf, const DecodedMkpdu& message) {
  const Speaking speaking(name());
  pamManager_->rxMessageDeliver(intf, message);
}

bool Engine::serviceOneTimer() {
  const Speaking speaking(name());
  return wheel_->serviceOneTimer();
}

void Engine::confirmationSchedulerIs(ConfirmationScheduler scheduler) {
  if (emulator_) emulator_->confirmationSchedulerIs(std::move(scheduler));
}

void Engine::transmitted() {
  if (!messageTransmitter_) return;
  const OutgoingMkpdu& out = pamManager_->txMessageInfo()->outgoing();
  messageTransmitter_(out.intfId, out.message);
}

}  // namespace Macsec
