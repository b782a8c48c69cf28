#include "sim/Simulation.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/Log.h"

namespace Sim {

// Stands in for the codec of a real agent: it takes each message the actors send and puts it on
// the interface's link.
class Agent::TxReactor : public Macsec::MkaMessageInfo::NotifieeConst {
 public:
  TxReactor(const Zef::Ptr<Macsec::MkaMessageInfo>& tx, Agent* agent) : NotifieeConst(tx), agent_(agent) {
    hasNotificationActiveIs(true);
  }
  void onCount() override {
    if (agent_) agent_->transmit();
  }
  void agentIs(Agent* agent) { agent_ = agent; }

 private:
  Agent* agent_;
};

void Link::cutIs(bool cut) {
  if (cut && !cut_) ++generation_;
  cut_ = cut;
}

bool Link::joins(const Agent* agent, const Lanx::IntfId& intf) const {
  for (const End& end : ends_) {
    if (end.agent == agent && end.intfId == intf) return true;
  }
  return false;
}

template <class Schedule>
void Link::carry(const Agent* from, const Lanx::IntfId& intf, Schedule&& schedule) {
  if (cut_) {
    ++lost_;
    return;
  }
  std::uniform_real_distribution<double> draw(0.0, 1.0);
  if (loss_ > 0 && draw(sim_.random_) < loss_) {
    ++lost_;
    return;
  }
  const bool duplicate = duplication_ > 0 && draw(sim_.random_) < duplication_;
  for (const End& to : ends_) {
    if (to.agent == from && to.intfId == intf) continue;
    const double delay = delay_ + (jitter_ > 0 ? draw(sim_.random_) * jitter_ : 0.0);
    schedule(to, delay);
    if (duplicate) schedule(to, delay);
  }
}

void Link::sendFrame(const Agent* from, const Lanx::IntfId& intf, const std::string& frame) {
  sim_.capture(frame);
  carry(from, intf, [&](const End& to, double delay) {
    std::string carried = frame;
    std::uniform_real_distribution<double> draw(0.0, 1.0);
    if (corruption_ > 0 && draw(sim_.random_) < corruption_ && !carried.empty()) {
      const size_t bit = std::uniform_int_distribution<size_t>(0, carried.size() * 8 - 1)(sim_.random_);
      carried[bit / 8] = static_cast<char>(carried[bit / 8] ^ (1 << (bit % 8)));
    }
    sim_.scheduleFrame(this, to.agent, to.intfId, carried, delay);
  });
}

void Link::send(const Agent* from, const Lanx::IntfId& intf, const Message& message) {
  carry(from, intf, [&](const End& to, double delay) {
    Message carried = message;
    carried.intfId = to.intfId;
    sim_.schedule(this, to.agent, carried, delay);
  });
}

Agent::Agent(Simulation& sim, std::string name)
    : sim_(sim),
      name_(std::move(name)),
      status_(Macsec::Status::StatusIs()),
      pamManager_(Macsec::MkaPamManager::MkaPamManagerIs(nullptr)),
      wheel_(Orb::TimerWheel::TimerWheelIs()),
      hwStatus_(Macsec::MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs()),
      slice_(Macsec::MacSecStatus::MacSecStatusIs()),
      emulator_(Macsec::HwEmulator::HwEmulatorIs(status_, hwStatus_)),
      txReactor_(new TxReactor(pamManager_->txMessageInfo(), this)) {
  // Each agent's timing comes from its own source, seeded from the simulation's, so that a run
  // repeats exactly.
  wheel_->randomSeedIs(sim.random_());
  status_->macsecEnabledIs(true);
  if (sim.wire() == Wire::bytes) {
    pams_ = Interface::EthDevPamCollection::EthDevPamCollectionIs("pamCollection");
    pamManager_ = Macsec::MkaPamManager::MkaPamManagerIs(pams_);
    txReactor_ = Zef::Ptr<TxReactor>(new TxReactor(pamManager_->txMessageInfo(), this));
    codec_ = Macsec::MkpduCodec::MkpduCodecIs(status_, pamManager_, pams_);
  }
}

void Agent::hardwareLatencyIs(double seconds) {
  if (seconds <= 0) {
    emulator_->confirmationSchedulerIs(nullptr);
    return;
  }
  emulator_->confirmationSchedulerIs([this, seconds](std::function<void()> confirm) { sim_.after(seconds, confirm); });
}

Agent::~Agent() {
  // Ports and actors go first, while everything they use is still there.
  ports_.clear();
  actors_.clear();
  txReactor_->agentIs(nullptr);
}

void Agent::portIs(const Lanx::IntfId& intf, const PortConfig& config) {
  Zef::Ptr<Macsec::IntfStatus> intfStatus = status_->intfStatusIs(intf, config.params);
  intfStatus->keyServerPriorityIs(config.keyServerPriority);
  intfStatus->dot1xTypeIs(config.dot1xType);
  status_->cpStatusIs(intf, config.params);
  status_->portStatusIs(intf)->mySciIs(Macsec::Sci{config.mac, config.portId});
  hwStatus_->statusIs(slice_->statusIs(intf));
  if (codec_) {
    // The codec opens an access point for the interface; what it sends goes on the link.
    pamManager_->mkaIntfIs(intf);
    pams_->pam(intf)->transmitterIs([this, intf](const Zef::Ptr<Lanx::Pkt>& pkt) {
      if (muted_) return;
      if (Link* link = sim_.linkOf(this, intf)) link->sendFrame(this, intf, pkt->bytes());
    });
  }
  if (config.runPort) {
    ports_[intf] = Macsec::MkaPortSm::MkaPortSmIs(intf, status_, pamManager_, hwStatus_, wheel_);
  }
}

namespace {

Macsec::Cak storedKey(const Key& key) {
  if (key.ckn.empty()) return Macsec::Cak();
  return Macsec::Cak{key.ckn, Macsec::StoredKey::ofHex(key.cak.view())};
}

}  // namespace

void Agent::keyIs(const Lanx::IntfId& intf, const Key& key) { status_->intfStatus(intf)->keyIs(storedKey(key)); }

void Agent::defaultKeyIs(const Lanx::IntfId& intf, const Key& key) {
  status_->intfStatus(intf)->defaultKeyIs(storedKey(key));
}

Zef::Ptr<Macsec::MkaPortSm> Agent::port(const Lanx::IntfId& intf) const {
  auto it = ports_.find(intf);
  return it == ports_.end() ? nullptr : it->second;
}

void Agent::portDel(const Lanx::IntfId& intf) {
  auto it = ports_.find(intf);
  if (it == ports_.end()) return;
  Zef::Ptr<Macsec::MkaPortSm> port = std::move(it->second);
  ports_.erase(it);
  port->hasNotificationActiveIs(false);
}

Zef::Ptr<Macsec::MkaActorSm> Agent::actorIs(const Lanx::IntfId& intf, const Zef::String& ckn,
                                            const Zef::String& clearCak) {
  const Macsec::StoredKey stored = Macsec::StoredKey::ofHex(clearCak.view());
  status_->portStatus(intf)->actorStatusIs(ckn);
  Zef::Ptr<Macsec::MkaActorSm> actor =
      Macsec::MkaActorSm::MkaActorSmIs(ckn, stored, intf, status_, pamManager_, hwStatus_, wheel_);
  actors_[{intf, ckn}] = actor;
  return actor;
}

void Agent::actorDel(const Lanx::IntfId& intf, const Zef::String& ckn) { actors_.erase({intf, ckn}); }

Zef::Ptr<Macsec::MkaActorSm> Agent::actor(const Lanx::IntfId& intf, const Zef::String& ckn) const {
  auto it = actors_.find({intf, ckn});
  return it == actors_.end() ? nullptr : it->second;
}

Zef::Ptr<Macsec::MkaActorStatus> Agent::actorStatus(const Lanx::IntfId& intf, const Zef::String& ckn) const {
  Zef::Ptr<Macsec::MkaPortStatus> port = status_->portStatus(intf);
  return port ? port->actorStatus(ckn) : nullptr;
}

void Agent::transmit() {
  const Zef::Ptr<Macsec::MkaMessageInfo>& tx = pamManager_->txMessageInfo();
  ++sent_;
  if (muted_) return;
  Message message;
  static_cast<Macsec::DecodedMkpdu&>(message) = Macsec::decodedMessageOf(*tx);
  message.intfId = tx->intfId();
  if (sim_.tap_) sim_.tap_(*this, message);
  // Over bytes, the codec sends the frame.
  if (codec_) return;
  if (Link* link = sim_.linkOf(this, tx->intfId())) link->send(this, tx->intfId(), message);
}

void Agent::deliverFrame(const Lanx::IntfId& intf, const std::string& frame) {
  const Zef::Ptr<Lanx::Pam> pam = pams_ ? pams_->pam(intf) : nullptr;
  if (!pam) return;
  const Zef::Ptr<Lanx::Pkt> pkt = Lanx::globalPktManager().newPkt();
  std::memcpy(pkt->newHeadData(frame.size()), frame.data(), frame.size());
  pam->rxPktIs(pkt);
}

void Agent::deliver(const Message& message) {
  const Zef::Ptr<Macsec::MkaMessageInfo>& rx = pamManager_->rxMessageInfo();
  Macsec::messageInfoIs(*rx, message.intfId, message);
  rx->countInc(1);
}

namespace {

Wire wireFromEnvironment() {
  const char* wire = std::getenv("MKA_SIM_WIRE");
  return wire && std::string_view(wire) == "bytes" ? Wire::bytes : Wire::decoded;
}

}  // namespace

Simulation::Simulation(double start, uint32_t seed) : Simulation(start, seed, wireFromEnvironment()) {}

Simulation::Simulation(double start, uint32_t seed, Wire wire)
    : wire_(wire), clock_(start), scoped_(clock_), random_(seed) {}

Simulation::~Simulation() {
  // Agents go before the clock that their timers read.
  agents_.clear();
  Zef::logSourceIs(nullptr);
  if (pcap_) std::fclose(pcap_);
}

template <class F>
void Simulation::as(const Agent* agent, F&& work) {
  Zef::logSourceIs(agent ? agent->name().c_str() : nullptr);
  work();
  Zef::logSourceIs(nullptr);
}

bool Simulation::pcapIs(const std::string& path) {
  if (pcap_) std::fclose(pcap_);
  pcap_ = std::fopen(path.c_str(), "wb");
  if (!pcap_) return false;
  // The classic pcap header: microsecond stamps, Ethernet frames.
  const uint32_t magic = 0xa1b2c3d4;
  const uint16_t major = 2, minor = 4;
  const int32_t zone = 0;
  const uint32_t sigfigs = 0, snaplen = 65535, linktype = 1;
  std::fwrite(&magic, 4, 1, pcap_);
  std::fwrite(&major, 2, 1, pcap_);
  std::fwrite(&minor, 2, 1, pcap_);
  std::fwrite(&zone, 4, 1, pcap_);
  std::fwrite(&sigfigs, 4, 1, pcap_);
  std::fwrite(&snaplen, 4, 1, pcap_);
  std::fwrite(&linktype, 4, 1, pcap_);
  return true;
}

void Simulation::capture(const std::string& frame) {
  if (!pcap_) return;
  const double utc = clock_.utcTime();
  const uint32_t seconds = static_cast<uint32_t>(utc);
  const uint32_t micros = static_cast<uint32_t>((utc - seconds) * 1e6);
  const uint32_t length = static_cast<uint32_t>(frame.size());
  std::fwrite(&seconds, 4, 1, pcap_);
  std::fwrite(&micros, 4, 1, pcap_);
  std::fwrite(&length, 4, 1, pcap_);
  std::fwrite(&length, 4, 1, pcap_);
  std::fwrite(frame.data(), 1, frame.size(), pcap_);
  std::fflush(pcap_);  // readable while the simulation runs
}

Agent& Simulation::agentIs(const std::string& name) {
  auto& slot = agents_[name];
  if (!slot) slot = std::make_unique<Agent>(*this, name);
  return *slot;
}

Link& Simulation::linkIs(Agent& a, const Lanx::IntfId& intfA, Agent& b, const Lanx::IntfId& intfB, double delay) {
  links_.push_back(std::make_unique<Link>(*this, Link::End{&a, intfA}, Link::End{&b, intfB}, delay));
  return *links_.back();
}

Link* Simulation::linkOf(const Agent* agent, const Lanx::IntfId& intf) const {
  for (const auto& link : links_) {
    if (link->joins(agent, intf)) return link.get();
  }
  return nullptr;
}

void Simulation::schedule(Link* link, Agent* to, const Message& message, double delay) {
  const uint64_t generation = link->generation_;
  after(delay, [this, link, generation, to, message] {
    // A cut since the message was sent loses it.
    if (link->cut_ || generation != link->generation_) {
      ++link->lost_;
      return;
    }
    ++link->carried_;
    ++deliveries_;
    as(to, [&] { to->deliver(message); });
  });
}

void Simulation::scheduleFrame(Link* link, Agent* to, const Lanx::IntfId& intf, const std::string& frame,
                               double delay) {
  const uint64_t generation = link->generation_;
  after(delay, [this, link, generation, to, intf, frame] {
    if (link->cut_ || generation != link->generation_) {
      ++link->lost_;
      return;
    }
    ++link->carried_;
    ++deliveries_;
    as(to, [&] { to->deliverFrame(intf, frame); });
  });
}

void Simulation::after(double delay, std::function<void()> action) {
  events_.push(Event{now() + delay, ++sequence_, std::move(action)});
}

double Simulation::nextEvent() const {
  double next = std::numeric_limits<double>::infinity();
  if (!events_.empty()) next = events_.top().time;
  for (const auto& [name, agent] : agents_) next = std::min(next, agent->wheel()->nextDeadline());
  return next;
}

void Simulation::runUntil(double t) {
  for (;;) {
    const double next = nextEvent();
    if (next > t) break;
    clock_.timeIs(next);
    // Events due now go first, one at a time, then the timers, one at a time.
    if (!events_.empty() && events_.top().time <= now()) {
      Event event = events_.top();
      events_.pop();
      event.action();
      if (observer_) observer_();
      continue;
    }
    for (const auto& entry : agents_) {
      Agent* agent = entry.second.get();
      bool fired = false;
      as(agent, [&] { fired = agent->wheel()->serviceOneTimer(); });
      if (fired) {
        if (observer_) observer_();
        break;
      }
    }
  }
  clock_.timeIs(t);
}

}  // namespace Sim
