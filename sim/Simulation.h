#pragma once

// A simulation of MKA agents on virtual time: several agents, each running its own engine, joined
// by links between (agent, interface) pairs. A link carries every transmitted MKPDU to the other
// end after a delay, from the simulation's loop and never inside the sender's call, as a real
// wire would; it can drop, duplicate and be cut. The loop moves one virtual clock to the next
// timer or delivery.

#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "engine/Engine.h"
#include "engine/StateKeeper.h"
#include "mka/MkaActorSm.h"
#include "model/ReplayGuard.h"
#include "platform/Clock.h"

namespace Sim {

class Simulation;
class Agent;

// How links carry MKPDUs: in the engine's decoded form, or as real frames that each agent's codec
// encodes and decodes.
enum class Wire { decoded, bytes };

// One MKPDU in decoded form, as it travels, with the interface it is sent or received on.
struct Message : Macsec::DecodedMkpdu {
  Lanx::IntfId intfId;
};

// What one interface of an agent is given when it is made.
struct InterfaceConfig : Macsec::InterfaceSettings {
  // Whether the device runs a port state machine on the interface, which makes the actors from
  // its configured keys, as on a real switch; without one, actors are made by hand with actorIs.
  bool runPort = false;
};

// A configured key in clear text, as an operator gives it; the harness stores it encoded.
struct Key {
  Zef::String ckn;
  Zef::String cak;
  // The key's name as the engine holds it.
  Macsec::Ckn name() const { return Macsec::Ckn::fromHex(ckn.view()); }
  // The key as the engine holds it: its name, and the key in stored form.
  Macsec::Cak stored() const;
};

// A wire between interfaces: two ends for a point-to-point link, more for a shared segment. What
// one end sends reaches every other end.
class Link {
 public:
  struct End {
    Agent* agent;
    Lanx::IntfId intfId;
  };

  Link(Simulation& sim, End a, End b, double delay) : sim_(sim), ends_{a, b}, delay_(delay) {}

  // Adds another interface to the segment.
  void endIs(Agent& agent, const Lanx::IntfId& intf);

  double delay() const noexcept { return delay_; }
  void delayIs(double seconds) { delay_ = seconds; }
  // The share of messages lost, and of messages delivered twice, drawn from the simulation's
  // seeded random source.
  void lossIs(double probability) { loss_ = probability; }
  void duplicationIs(double probability) { duplication_ = probability; }
  // The share of frames with one bit flipped (over bytes only), and a random extra delay of up to
  // `seconds` per message, which lets messages overtake each other.
  void corruptionIs(double probability) { corruption_ = probability; }
  void jitterIs(double seconds) { jitter_ = seconds; }
  // A cut link delivers nothing, in either direction, until it is mended; messages already on
  // the wire are lost.
  void cutIs(bool cut);
  bool cut() const noexcept { return cut_; }
  uint64_t carried() const noexcept { return carried_; }
  uint64_t lost() const noexcept { return lost_; }

  // Puts a message (or a frame) sent at one end on its way to the others.
  void send(const Agent* from, const Lanx::IntfId& intf, const Message& message);
  void sendFrame(const Agent* from, const Lanx::IntfId& intf, std::string_view frame);

 private:
  friend class Simulation;
  // What every send does: a cut link or a lost message carries nothing; otherwise each other end
  // gets it (twice when duplicated) after the link's delay and jitter.
  template <class Schedule>
  void carry(const Agent* from, const Lanx::IntfId& intf, Schedule&& schedule);

  Simulation& sim_;
  std::vector<End> ends_;
  double delay_;
  double loss_ = 0;
  double duplication_ = 0;
  double corruption_ = 0;
  double jitter_ = 0;
  bool cut_ = false;
  uint64_t generation_ = 0;  // messages sent before the last cut carry an older generation
  uint64_t carried_ = 0;
  uint64_t lost_ = 0;
};

// One simulated switch: an engine, and the actors a test makes by hand on it.
class Agent {
 public:
  Agent(Simulation& sim, std::string name, uint64_t seed);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  const std::string& name() const noexcept { return engine_.name(); }
  Macsec::Engine& engine() noexcept { return engine_; }
  const Zef::Ptr<Macsec::Status>& status() const noexcept { return engine_.status(); }
  const Zef::Ptr<Macsec::MkaPamManager>& pamManager() const noexcept { return engine_.pamManager(); }
  const Zef::Ptr<Orb::TimerWheel>& wheel() const noexcept { return engine_.wheel(); }
  const Zef::Ptr<Macsec::MacSecIntfStatusPtrDir>& hwStatus() const noexcept { return engine_.hwStatus(); }
  const Zef::Ptr<Macsec::HwEmulator>& emulator() const noexcept { return engine_.emulator(); }
  Zef::Ptr<Macsec::MacSecIntfStatus> hw(const Lanx::IntfId& intf) const { return engine_.hw(intf); }
  // How long the emulated hardware takes to confirm an SA request; 0 confirms inside the request.
  void hardwareLatencyIs(double seconds);

  // Gives the engine an interface: with runPort, one that is up, configured and in the hardware,
  // on which the device starts a port; without, only its status, made here, for hand-made actors.
  void interfaceIs(const Lanx::IntfId& intf, const InterfaceConfig& config);
  // The profile of an interface with a port: the interface's own, in its engine's configuration.
  Zef::Ptr<Macsec::Profile> profile(const Lanx::IntfId& intf);
  // Configures an interface's primary and fallback keys; an empty key removes it.
  void keyIs(const Lanx::IntfId& intf, const Key& key);
  void defaultKeyIs(const Lanx::IntfId& intf, const Key& key);
  Zef::Ptr<Macsec::MkaPortSm> port(const Lanx::IntfId& intf) const { return engine_.port(intf); }
  // Removes an interface's port state machine, as the device does when MKA stops on it.
  void portDel(const Lanx::IntfId& intf) { engine_.portDel(intf); }
  // Makes an actor for a key (CKN and clear CAK text) on an interface.
  Zef::Ptr<Macsec::MkaActorSm> actorIs(const Lanx::IntfId& intf, const Zef::String& ckn, const Zef::String& clearCak);
  void actorDel(const Lanx::IntfId& intf, const Zef::String& ckn);
  Zef::Ptr<Macsec::MkaActorSm> actor(const Lanx::IntfId& intf, const Zef::String& ckn) const;
  Zef::Ptr<Macsec::MkaActorStatus> actorStatus(const Lanx::IntfId& intf, const Zef::String& ckn) const;
  // Silences the agent: nothing it sends leaves it (its actors keep running).
  void mutedIs(bool muted) { muted_ = muted; }

  // Keeps a saved state from now on, as the daemon does for restarts of its process: written
  // again after each event that changed it, and before a frame carries numbers beyond it.
  void savedStateKept();
  // The saved state as last written; empty if none is kept. (The keeper holds what it last wrote,
  // and the text is made from it only when asked, not at every write.)
  std::string savedState() const { return keeper_ ? keeper_->document() : savedState_; }
  // Replaces it, as a damaged or foreign file would while the process is away.
  void savedStateIs(std::string document) { savedState_ = std::move(document); }
  // False between a stop of the agent's process and its start.
  bool processRunning() const noexcept { return processRunning_; }
  // The agent's process stops (a graceful stop writes the saved state first; a crash does not):
  // its state machines stop, and all it held is lost but its configuration and the SAs of its data
  // plane. Frames that reach it meanwhile find nobody.
  void processStop(bool graceful);
  // A new process starts over the saved state: each interface goes on from it, or afresh. Returns
  // why each interface that starts afresh could not go on.
  std::vector<std::string> processStart();

  // Hands a decoded message to the agent's actors, as its codec would.
  void deliver(const Message& message) { engine_.messageIs(message.intfId, message); }
  // Whether a decoded message that a link carries may be handed on: as the codec does with frames,
  // one whose member number is not above the last one accepted from that member is dropped, so
  // that messages a link reorders or duplicates are taken as they would be over bytes.
  bool numberAccepted(const Message& message);
  // Hands a frame to the access point of an interface (over bytes).
  void deliverFrame(const Lanx::IntfId& intf, const std::string& frame) {
    engine_.frameIs(intf, reinterpret_cast<const uint8_t*>(frame.data()), frame.size());
  }
  const Zef::Ptr<Macsec::MkpduCodec>& codec() const noexcept { return engine_.codec(); }
  uint64_t sent() const noexcept { return sent_; }

 private:
  friend class Link;
  friend class Simulation;
  void transmitted(const Lanx::IntfId& intf, const Macsec::DecodedMkpdu& message);
  // The link of each interface, the first one made where several share it, by the interface's
  // identifier, which is a small number.
  Link* linkOf(const Lanx::IntfId& intf) const;
  void linkIs(const Lanx::IntfId& intf, Link* link);

  Simulation& sim_;
  Macsec::Engine engine_;
  std::map<std::pair<Lanx::IntfId, Zef::String>, Zef::Ptr<Macsec::MkaActorSm>> actors_;
  std::vector<Link*> links_;
  std::vector<Macsec::ReplayGuard> replay_;  // by the interface's identifier
  bool muted_ = false;
  uint64_t sent_ = 0;
  Zef::Ptr<Macsec::StateKeeper> keeper_;
  std::string savedState_;
  bool processRunning_ = true;
};

class Simulation {
 public:
  // The wire defaults to decoded messages, or to bytes when the environment variable
  // MKA_SIM_WIRE is "bytes", so that every scenario can run both ways.
  explicit Simulation(double start = 0.0, uint32_t seed = 1);
  Simulation(double start, uint32_t seed, Wire wire);
  ~Simulation();

  Agent& agentIs(const std::string& name);
  Agent& agent(const std::string& name) { return *agents_.at(name); }
  Link& linkIs(Agent& a, const Lanx::IntfId& intfA, Agent& b, const Lanx::IntfId& intfB, double delay = 0.001);

  Wire wire() const noexcept { return wire_; }
  // Writes every frame put on a link to a pcap file (over bytes), stamped with virtual time.
  bool pcapIs(const std::string& path);
  double now() const { return clock_.monotonicTime(); }
  Zef::System::VirtualClock& clock() { return clock_; }
  // Runs every delivery and timer due up to `t`, in time order, and leaves the clock at `t`.
  void runUntil(double t);
  void runFor(double seconds) { runUntil(now() + seconds); }
  // Called after every delivered message and every fired timer, to check what must always hold.
  void observerIs(std::function<void()> observer) { observer_ = std::move(observer); }
  // Runs an action after a delay of virtual time, from the loop.
  void after(double delay, std::function<void()> action);
  // Called with every message an agent sends on a link, before the link decides its fate.
  void tapIs(std::function<void(const Agent&, const Message&)> tap) { tap_ = std::move(tap); }
  // Called with the interface and the basic parameter set of every MKPDU an agent sends, before it
  // leaves, muted or not; cheaper than a tap, which decodes the whole message.
  using Sent = std::function<void(const Agent&, const Lanx::IntfId&, const Macsec::BasicInfo&)>;
  void sentIs(Sent sent) { sent_ = std::move(sent); }
  uint64_t deliveries() const noexcept { return deliveries_; }

 private:
  friend class Link;
  friend class Agent;
  // A frame on a link, held in its event rather than in a function: there is one per MKPDU.
  struct Frame {
    Link* link = nullptr;
    uint64_t generation = 0;
    Agent* to = nullptr;
    Lanx::IntfId intf;
    std::string bytes;
  };
  // Runs its action or, without one, delivers its frame.
  struct Event {
    double time;
    uint64_t sequence;
    std::function<void()> action;
    Frame frame;
  };
  struct Later {
    bool operator()(const Event& a, const Event& b) const {
      return a.time > b.time || (a.time == b.time && a.sequence > b.sequence);
    }
  };
  void schedule(Link* link, Agent* to, const Message& message, double delay);
  void scheduleFrame(Link* link, Agent* to, const Lanx::IntfId& intf, std::string frame, double delay);
  void capture(std::string_view frame);
  // The time of the next event or timer of any agent; notes each agent's next deadline.
  double nextEvent();
  // An empty string with room, from a delivered frame if there is one.
  std::string spareBuffer();
  // After each event: the agents' saved states follow, then the observer checks.
  void afterEvent();
  void eventIs(Event event);
  void deliver(Frame& frame);

  Wire wire_;
  Zef::System::VirtualClock clock_;
  Zef::System::ScopedClock scoped_;
  std::FILE* pcap_ = nullptr;
  std::mt19937 random_;
  std::map<std::string, std::unique_ptr<Agent>> agents_;
  // The same agents in the order of their names, the order in which their timers take turns, and
  // each one's next deadline as the loop last read it.
  std::vector<Agent*> byName_;
  std::vector<double> deadlines_;
  // The buffers of frames delivered, kept for the next frames sent: a frame costs a copy, not an
  // allocation.
  std::vector<std::string> spareBuffers_;
  std::vector<std::unique_ptr<Link>> links_;
  // Events due in order of scheduling, the common case, as a link's delay is fixed: a queue,
  // which keeps thousands of frames sent at one instant in one run of memory. The others (jitter,
  // actions) wait in a heap ordered by Later, kept by hand so that the earliest event moves out
  // rather than copies. The next event is the earlier of the two fronts.
  std::deque<Event> inOrder_;
  std::vector<Event> events_;
  // The time of the next event of either, and the event itself, taken out of whichever holds it.
  double nextQueuedTime() const;
  Event nextEventOut();
  uint64_t sequence_ = 0;
  uint64_t deliveries_ = 0;
  std::function<void()> observer_;
  std::function<void(const Agent&, const Message&)> tap_;
  Sent sent_;
};

}  // namespace Sim
