#include "sim/Simulation.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "engine/SavedState.h"
#include "platform/HashTable.h"
#include "platform/Log.h"

namespace Sim {

void Link::cutIs(bool cut) {
  if (cut && !cut_) ++generation_;
  cut_ = cut;
}

void Link::endIs(Agent& agent, const Lanx::IntfId& intf) {
  ends_.push_back(End{&agent, intf});
  agent.linkIs(intf, this);
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

void Link::sendFrame(const Agent* from, const Lanx::IntfId& intf, std::string_view frame) {
  sim_.capture(frame);
  carry(from, intf, [&](const End& to, double delay) {
    std::string carried = sim_.spareBuffer();
    carried.assign(frame);
    std::uniform_real_distribution<double> draw(0.0, 1.0);
    if (corruption_ > 0 && draw(sim_.random_) < corruption_ && !carried.empty()) {
      const size_t bit = std::uniform_int_distribution<size_t>(0, carried.size() * 8 - 1)(sim_.random_);
      carried[bit / 8] = static_cast<char>(carried[bit / 8] ^ (1 << (bit % 8)));
    }
    sim_.scheduleFrame(this, to.agent, to.intfId, std::move(carried), delay);
  });
}

void Link::send(const Agent* from, const Lanx::IntfId& intf, const Message& message) {
  carry(from, intf, [&](const End& to, double delay) {
    Message carried = message;
    carried.intfId = to.intfId;
    sim_.schedule(this, to.agent, carried, delay);
  });
}

Agent::Agent(Simulation& sim, std::string name, uint64_t seed)
    : sim_(sim), engine_(Macsec::EngineOptions{std::move(name), sim.wire() == Wire::bytes, seed, true, seed | 1}) {
  engine_.messageTransmitterIs(
      [this](const Lanx::IntfId& intf, const Macsec::DecodedMkpdu& message) { transmitted(intf, message); });
  engine_.frameTransmitterIs([this](const Lanx::IntfId& intf, std::string_view frame) {
    if (muted_) return;
    if (Link* link = linkOf(intf)) link->sendFrame(this, intf, frame);
  });
}

void Agent::hardwareLatencyIs(double seconds) {
  if (seconds <= 0) {
    engine_.confirmationSchedulerIs(nullptr);
    return;
  }
  engine_.confirmationSchedulerIs([this, seconds](std::function<void()> confirm) {
    sim_.after(seconds, [this, confirm = std::move(confirm)] { engine_.as(confirm); });
  });
}

Agent::~Agent() {
  // The hand-made actors go first, while the engine they run in is still there.
  engine_.as([&] { actors_.clear(); });
}

void Agent::interfaceIs(const Lanx::IntfId& intf, const InterfaceConfig& config) {
  if (config.runPort) {
    // Configured as the daemon configures: a profile of its own for the interface.
    engine_.linkedInterfaceIs(intf, config.mac, config.portId);
    const Zef::Ptr<Macsec::Profile> profile = this->profile(intf);
    Macsec::ProfileSettings::forEach([&]<class S>(S) {
      if constexpr (S::reach == Zef::SettingReach::param) S::set(*profile, config.params.*S::param);
    });
    engine_.config()->intfConfigIs(intf)->profileNameIs(profile->name());
    return;
  }
  // Without a port, the interface's status is made here, as the device would make it, and its
  // Ethernet interface stays unknown to the device, which therefore starts no port on it.
  engine_.hardwareIs(intf);
  engine_.macsecIs(intf, config);
  engine_.as([&] {
    status()->cpStatusIs(intf, config.params);
    status()->portStatusIs(intf)->mySciIs(Macsec::Sci{config.mac, config.portId});
  });
}

void Agent::savedStateKept() {
  if (keeper_) return;
  engine_.as([&] {
    keeper_ = Macsec::StateKeeper::StateKeeperIs(status());
    keeper_->writeNow();
  });
}

void Agent::processStop(bool graceful) {
  processRunning_ = false;
  engine_.as([&] {
    if (keeper_ && graceful) keeper_->writeNow();
    if (keeper_) {
      savedState_ = keeper_->document();
      keeper_->hasNotificationActiveIs(false);
    }
    keeper_ = nullptr;
    engine_.stateMachinesStop();
    // What the process held goes, bottom up; the data plane's SAs stay.
    for (const Lanx::IntfId& intf : Zef::keysOf<Lanx::IntfId>(status()->portStatusIter())) {
      status()->portStatus(intf)->actorStatusDelAll();
      status()->portStatusDel(intf);
    }
    status()->cpStatusDelAll();
  });
}

std::vector<std::string> Agent::processStart() {
  processRunning_ = true;
  std::vector<std::string> afresh;
  std::string why;
  const auto saved = Macsec::interfacesOf(savedState_, why);
  if (!saved) afresh.push_back("the saved state is not used: " + why);
  if (saved) {
    for (const auto& [intf, state] : *saved) {
      if (const std::optional<std::string> reason = Macsec::resumeInterface(engine_, intf, state)) {
        afresh.push_back(intf.stringValue() + ": " + *reason);
      }
    }
  }
  engine_.as([&] { engine_.stateMachinesStart(); });
  savedStateKept();
  return afresh;
}

Macsec::Cak Key::stored() const {
  if (ckn.empty()) return Macsec::Cak();
  return Macsec::Cak{name(), Macsec::StoredKey::ofHex(cak.view())};
}

Zef::Ptr<Macsec::Profile> Agent::profile(const Lanx::IntfId& intf) {
  return engine_.config()->profileIs(Zef::Name("intf " + intf.stringValue()));
}

void Agent::keyIs(const Lanx::IntfId& intf, const Key& key) {
  if (engine_.config()->intfConfigHas(intf)) {
    engine_.as([&] { profile(intf)->keyIs(key.stored()); });
  } else {
    engine_.keyIs(intf, key.stored());
  }
}

void Agent::defaultKeyIs(const Lanx::IntfId& intf, const Key& key) {
  if (engine_.config()->intfConfigHas(intf)) {
    engine_.as([&] { profile(intf)->defaultKeyIs(key.stored()); });
  } else {
    engine_.defaultKeyIs(intf, key.stored());
  }
}

Zef::Ptr<Macsec::MkaActorSm> Agent::actorIs(const Lanx::IntfId& intf, const Zef::String& ckn,
                                            const Zef::String& clearCak) {
  const Macsec::StoredKey stored = Macsec::StoredKey::ofHex(clearCak.view());
  const Macsec::Ckn name = Macsec::Ckn::fromHex(ckn.view());
  status()->portStatus(intf)->actorStatusIs(name);
  Zef::Ptr<Macsec::MkaActorSm> actor = engine_.as([&] {
    return Macsec::MkaActorSm::MkaActorSmIs(name, stored, intf, status(), pamManager(), hwStatus(), wheel());
  });
  actor->memtabCountersIs(engine_.counters());
  actors_[{intf, ckn}] = actor;
  return actor;
}

void Agent::actorDel(const Lanx::IntfId& intf, const Zef::String& ckn) {
  engine_.as([&] { actors_.erase({intf, ckn}); });
}

Zef::Ptr<Macsec::MkaActorSm> Agent::actor(const Lanx::IntfId& intf, const Zef::String& ckn) const {
  auto it = actors_.find({intf, ckn});
  return it == actors_.end() ? nullptr : it->second;
}

Zef::Ptr<Macsec::MkaActorStatus> Agent::actorStatus(const Lanx::IntfId& intf, const Zef::String& ckn) const {
  Zef::Ptr<Macsec::MkaPortStatus> port = status()->portStatus(intf);
  return port ? port->actorStatus(Macsec::Ckn::fromHex(ckn.view())) : nullptr;
}

void Agent::transmitted(const Lanx::IntfId& intf, const Macsec::DecodedMkpdu& sent) {
  ++sent_;
  if (keeper_) keeper_->beforeTransmit(intf);
  if (sim_.sent_) sim_.sent_(*this, intf, sent.baseInfo);
  // Over bytes, the codec sends the frame: the message is wanted only by a tap.
  if (muted_ || (engine_.frames() && !sim_.tap_)) return;
  Message message;
  static_cast<Macsec::DecodedMkpdu&>(message) = sent;
  message.intfId = intf;
  if (sim_.tap_) sim_.tap_(*this, message);
  if (engine_.frames()) return;
  if (Link* link = linkOf(intf)) link->send(this, intf, message);
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
  if (pcap_) std::fclose(pcap_);
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

void Simulation::capture(std::string_view frame) {
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
  // Each agent's timing comes from its own source, seeded from the simulation's, so that a run
  // repeats exactly.
  if (!slot) {
    slot = std::make_unique<Agent>(*this, name, random_());
    byName_.clear();
    for (const auto& entry : agents_) byName_.push_back(entry.second.get());
    deadlines_.assign(byName_.size(), Orb::never);
  }
  return *slot;
}

Link& Simulation::linkIs(Agent& a, const Lanx::IntfId& intfA, Agent& b, const Lanx::IntfId& intfB, double delay) {
  links_.push_back(std::make_unique<Link>(*this, Link::End{&a, intfA}, Link::End{&b, intfB}, delay));
  Link* link = links_.back().get();
  a.linkIs(intfA, link);
  b.linkIs(intfB, link);
  return *link;
}

bool Agent::numberAccepted(const Message& message) {
  const size_t intf = message.intfId.value();
  if (intf >= replay_.size()) replay_.resize(intf + 1);
  return replay_[intf].accept(message.baseInfo.ckn, message.baseInfo.msgId, message.baseInfo.msgNum);
}

Link* Agent::linkOf(const Lanx::IntfId& intf) const {
  return intf.value() < links_.size() ? links_[intf.value()] : nullptr;
}

void Agent::linkIs(const Lanx::IntfId& intf, Link* link) {
  if (intf.value() >= links_.size()) links_.resize(intf.value() + 1, nullptr);
  if (!links_[intf.value()]) links_[intf.value()] = link;
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
    if (!to->numberAccepted(message)) return;
    ++deliveries_;
    to->deliver(message);
  });
}

void Simulation::scheduleFrame(Link* link, Agent* to, const Lanx::IntfId& intf, std::string frame, double delay) {
  eventIs(Event{now() + delay, ++sequence_, nullptr, Frame{link, link->generation_, to, intf, std::move(frame)}});
}

void Simulation::deliver(Frame& frame) {
  Link* link = frame.link;
  if (link->cut_ || frame.generation != link->generation_) {
    ++link->lost_;
    return;
  }
  ++link->carried_;
  ++deliveries_;
  frame.to->deliverFrame(frame.intf, frame.bytes);
  spareBuffers_.push_back(std::move(frame.bytes));
}

std::string Simulation::spareBuffer() {
  if (spareBuffers_.empty()) return std::string();
  std::string buffer = std::move(spareBuffers_.back());
  spareBuffers_.pop_back();
  return buffer;
}

void Simulation::after(double delay, std::function<void()> action) {
  eventIs(Event{now() + delay, ++sequence_, std::move(action), Frame{}});
}

void Simulation::eventIs(Event event) {
  if (inOrder_.empty() || !Later()(inOrder_.back(), event)) {
    inOrder_.push_back(std::move(event));
    return;
  }
  events_.push_back(std::move(event));
  std::push_heap(events_.begin(), events_.end(), Later());
}

Simulation::Event Simulation::nextEventOut() {
  if (events_.empty() || (!inOrder_.empty() && Later()(events_.front(), inOrder_.front()))) {
    Event event = std::move(inOrder_.front());
    inOrder_.pop_front();
    return event;
  }
  std::pop_heap(events_.begin(), events_.end(), Later());
  Event event = std::move(events_.back());
  events_.pop_back();
  return event;
}

double Simulation::nextQueuedTime() const {
  double next = std::numeric_limits<double>::infinity();
  if (!inOrder_.empty()) next = inOrder_.front().time;
  if (!events_.empty()) next = std::min(next, events_.front().time);
  return next;
}

double Simulation::nextEvent() {
  double next = nextQueuedTime();
  for (size_t i = 0; i < byName_.size(); ++i) {
    deadlines_[i] = byName_[i]->engine().nextDeadline();
    next = std::min(next, deadlines_[i]);
  }
  return next;
}

void Simulation::afterEvent() {
  for (Agent* agent : byName_) {
    if (agent->keeper_) agent->keeper_->refresh();
  }
  if (observer_) observer_();
}

void Simulation::runUntil(double t) {
  for (;;) {
    const double next = nextEvent();
    if (next > t) break;
    clock_.timeIs(next);
    // Events due now go first, one at a time, then the timers, one at a time.
    if (nextQueuedTime() <= now()) {
      Event event = nextEventOut();
      if (event.action) {
        event.action();
      } else {
        deliver(event.frame);
      }
      afterEvent();
      continue;
    }
    // The first agent, by name, with a timer due: the deadlines were read just now.
    for (size_t i = 0; i < byName_.size(); ++i) {
      if (deadlines_[i] <= now() && byName_[i]->engine().serviceOneTimer()) {
        afterEvent();
        break;
      }
    }
  }
  clock_.timeIs(t);
}

}  // namespace Sim
