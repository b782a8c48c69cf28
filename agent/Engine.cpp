#include "agent/Engine.h"

#include <cstring>

#include "mkpdu/HandOff.h"
#include "platform/Log.h"

namespace Macsec {

// Hands every MKPDU the actors send to the engine, which passes it on in decoded form.
class Engine::TxReactor : public MkaMessageInfo::NotifieeConst {
 public:
  TxReactor(const Zef::Ptr<MkaMessageInfo>& tx, Engine* engine) : NotifieeConst(tx), engine_(engine) {
    hasNotificationActiveIs(true);
  }
  void onCount() override {
    if (engine_) engine_->transmitted();
  }
  void engineIs(Engine* engine) { engine_ = engine; }

 private:
  Engine* engine_;
};

Engine::Speaking::Speaking(const std::string& name) : previous_(Zef::logSource()) { Zef::logSourceIs(name.c_str()); }

Engine::Speaking::~Speaking() { Zef::logSourceIs(previous_); }

Engine::Engine(EngineOptions options)
    : options_(std::move(options)),
      status_(Status::StatusIs()),
      pams_(options_.frames ? Interface::EthDevPamCollection::EthDevPamCollectionIs("pamCollection") : nullptr),
      pamManager_(MkaPamManager::MkaPamManagerIs(pams_)),
      wheel_(Orb::TimerWheel::TimerWheelIs()),
      hwStatus_(MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs()),
      slice_(MacSecStatus::MacSecStatusIs()),
      emulator_(HwEmulator::HwEmulatorIs(status_, hwStatus_)) {
  wheel_->randomSeedIs(options_.randomSeed);
  status_->macsecEnabledIs(true);
  // The engine hears what the actors send before the codec encodes it.
  txReactor_ = Zef::Ptr<TxReactor>(new TxReactor(pamManager_->txMessageInfo(), this));
  if (options_.frames) codec_ = MkpduCodec::MkpduCodecIs(status_, pamManager_, pams_);
}

Engine::~Engine() {
  // Ports go first, while everything they use is still there.
  const Speaking speaking(name());
  for (auto& [intf, port] : ports_) port->hasNotificationActiveIs(false);
  ports_.clear();
  txReactor_->engineIs(nullptr);
}

void Engine::interfaceIs(const Lanx::IntfId& intf, const InterfaceSettings& settings) {
  const Speaking speaking(name());
  const Zef::Ptr<IntfStatus> intfStatus = status_->intfStatusIs(intf, settings.params);
  intfStatus->keyServerPriorityIs(settings.keyServerPriority);
  intfStatus->dot1xTypeIs(settings.dot1xType);
  status_->cpStatusIs(intf, settings.params);
  status_->portStatusIs(intf)->mySciIs(Sci{settings.mac, settings.portId});
  hwStatus_->statusIs(slice_->statusIs(intf));
  if (!codec_) return;
  // The codec opens an access point for the interface; what it sends there leaves the engine.
  pamManager_->mkaIntfIs(intf);
  pams_->pam(intf)->transmitterIs([this, intf](const Zef::Ptr<Lanx::Pkt>& pkt) {
    if (frameTransmitter_) frameTransmitter_(intf, pkt->bytes());
  });
}

void Engine::portIs(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  if (ports_.contains(intf) || !status_->intfStatus(intf)) return;
  ports_[intf] = MkaPortSm::MkaPortSmIs(intf, status_, pamManager_, hwStatus_, wheel_);
}

void Engine::portDel(const Lanx::IntfId& intf) {
  const Speaking speaking(name());
  auto it = ports_.find(intf);
  if (it == ports_.end()) return;
  const Zef::Ptr<MkaPortSm> port = std::move(it->second);
  ports_.erase(it);
  port->hasNotificationActiveIs(false);
}

Zef::Ptr<MkaPortSm> Engine::port(const Lanx::IntfId& intf) const {
  auto it = ports_.find(intf);
  return it == ports_.end() ? nullptr : it->second;
}

void Engine::keyIs(const Lanx::IntfId& intf, const Cak& key) {
  const Speaking speaking(name());
  if (const Zef::Ptr<IntfStatus> intfStatus = status_->intfStatus(intf)) intfStatus->keyIs(key);
}

void Engine::defaultKeyIs(const Lanx::IntfId& intf, const Cak& key) {
  const Speaking speaking(name());
  if (const Zef::Ptr<IntfStatus> intfStatus = status_->intfStatus(intf)) intfStatus->defaultKeyIs(key);
}

void Engine::frameIs(const Lanx::IntfId& intf, const uint8_t* frame, size_t length) {
  const Speaking speaking(name());
  const Zef::Ptr<Lanx::Pam> pam = pams_ ? pams_->pam(intf) : nullptr;
  if (!pam) return;
  const Zef::Ptr<Lanx::Pkt> pkt = Lanx::globalPktManager().newPkt();
  std::memcpy(pkt->newHeadData(length), frame, length);
  pam->rxPktIs(pkt);
}

void Engine::messageIs(const Lanx::IntfId& intf, const DecodedMkpdu& message) {
  const Speaking speaking(name());
  const Zef::Ptr<MkaMessageInfo>& rx = pamManager_->rxMessageInfo();
  messageInfoIs(*rx, intf, message);
  rx->countInc(1);
}

bool Engine::serviceOneTimer() {
  const Speaking speaking(name());
  return wheel_->serviceOneTimer();
}

void Engine::confirmationSchedulerIs(ConfirmationScheduler scheduler) {
  emulator_->confirmationSchedulerIs(std::move(scheduler));
}

void Engine::transmitted() {
  if (!messageTransmitter_) return;
  const Zef::Ptr<MkaMessageInfo>& tx = pamManager_->txMessageInfo();
  messageTransmitter_(tx->intfId(), decodedMessageOf(*tx));
}

}  // namespace Macsec
