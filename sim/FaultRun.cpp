#include "sim/FaultRun.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include "mkpdu/MkpduCoding.h"
#include "model/LogMessages.h"
#include "platform/Log.h"
#include "sim/Simulation.h"

namespace Sim {

namespace {

// One interface at one end of a link.
struct End {
  Agent* agent;
  Lanx::IntfId intf;
  std::string name;  // the switch's and the interface's, as the checks name it
};

// A broken rule ends the run where it is found.
struct Broken {
  std::string rule;
};

// Built by hand rather than with a stream: the checks after every event name keys this way, and a
// stream per key was most of a fault run's time.
std::string text(const Macsec::SaStatus& sa) {
  return std::to_string(sa.an.value()) + ":" + sa.mi.hex().stdString() + ":" + std::to_string(sa.keyNum);
}

const std::string& text(const End& end) { return end.name; }

bool sameKey(const Macsec::SaStatus& a, const Macsec::SaStatus& b) {
  return a.an == b.an && a.mi == b.mi && a.keyNum == b.keyNum;
}

// The principal actor of an interface, with its CKN, or none.
struct Principal {
  Macsec::Ckn ckn;
  Zef::Ptr<Macsec::MkaActorStatus> actor;
};

Principal principalOf(const End& end) {
  const Zef::Ptr<Macsec::MkaPortStatus> port = end.agent->status()->portStatus(end.intf);
  if (!port) return {};
  for (auto it = port->actorStatusIter(); it; ++it) {
    if (it->principal()) return {it.key(), it.ptr()};
  }
  return {};
}

bool holdsLive(const Zef::Ptr<Macsec::MkaActorStatus>& actor, const Macsec::Sci& sci) {
  if (!actor) return false;
  for (auto it = actor->livePeerIter(); it; ++it) {
    if (it->baseInfo().sci == sci) return true;
  }
  return false;
}

// The member identifier of the key server that an actor follows, or itself.
Macsec::MemberId keyServerMi(const Zef::Ptr<Macsec::MkaActorStatus>& actor) {
  if (actor->electedSelf()) return actor->msgId();
  for (auto it = actor->livePeerIter(); it; ++it) {
    if (it->baseInfo().sci == actor->keyServer()) return it.key();
  }
  return Macsec::MemberId();
}

// The interface's SCI; none while its switch's process is away.
Macsec::Sci sciOf(const End& end) {
  const Zef::Ptr<Macsec::MkaPortStatus> port = end.agent->status()->portStatus(end.intf);
  return port ? port->mySci() : Macsec::Sci();
}

// Whether an interface's data plane receives on a key: asked for in its requests and confirmed by
// the hardware. (The emulated hardware keeps the record of a withdrawn key until another takes its
// association number; a real data plane deletes the SA.)
bool receives(const End& end, const Macsec::SaStatus& key) {
  const Zef::Ptr<Macsec::CpStatus> cp = end.agent->status()->cpStatus(end.intf);
  const Zef::Ptr<Macsec::MacSecIntfStatus> hw = end.agent->hw(end.intf);
  if (!cp || !hw || !cp->rxSakHas(key.an) || !hw->rxSaStatusHas(key.an)) return false;
  const Macsec::Sak& asked = cp->rxSak(key.an);
  return asked.an == key.an.value() && asked.mi == key.mi && asked.keyNum == key.keyNum &&
         sameKey(hw->rxSaStatus(key.an), key);
}

class FaultRunner {
 public:
  static Wire wireOf(bool bytes, const FaultOptions& options) {
    return bytes || !options.forged.empty() ? Wire::bytes : Wire::decoded;
  }

  FaultRunner(uint32_t seed, const FaultOptions& options)
      : options_(options), seed_(seed), draw_(seed), sim_(0.0, seed, wireOf(chance(0.5), options)) {}

  FaultOutcome run();

 private:
  double uniform(double low, double high) { return std::uniform_real_distribution<double>(low, high)(draw_); }
  int integer(int low, int high) { return std::uniform_int_distribution<int>(low, high)(draw_); }
  bool chance(double p) { return uniform(0, 1) < p; }
  template <class T>
  T pick(std::initializer_list<T> choices) {
    return *(choices.begin() + integer(0, static_cast<int>(choices.size()) - 1));
  }
  std::string hex(int octets);

  void drawNetwork();
  void drawFaults();
  void drawEvents();
  void drawProcessRestarts();
  void drawForgeries();
  void forge(const uint8_t* how);
  void mend();
  void rest();
  bool settled() const;
  void keyIs(Agent& agent, const std::string& ckn, const std::string& cak);
  void rekeyPeriodIs(uint32_t seconds);
  void note(const std::string& event);

  // What must hold after every event, and after the rest.
  void checkSent(const Agent& from, const Lanx::IntfId& intf, const Macsec::BasicInfo& base);
  void checkAlways();
  void checkTransmitsAhead(const std::vector<End>& ends, const End& from);
  void checkKeysTakenAway(const std::vector<End>& ends, const End& to);
  void checkRested();
  std::optional<Broken> unrested() const;
  void checkLogs();

  FaultOptions options_;
  uint32_t seed_;
  std::mt19937 draw_;
  Simulation sim_;
  std::ostringstream drawn_;
  std::vector<Agent*> agents_;
  std::vector<Link*> links_;
  std::vector<std::vector<End>> ends_;  // of each link
  std::vector<std::string> secrets_;    // every CAK, as lower-case hexadecimal
  std::vector<std::string> logged_;
  // The keys that each interface received on, and the one it transmitted on with its port open
  // (or none), at the last check.
  std::map<std::string, std::set<std::string>> receiving_;
  std::map<std::string, std::string> transmitting_;
  // The last MKPDU each interface sent (with forgeries), the highest message number each member
  // identifier sent, and the first number sent twice.
  std::map<std::string, Message> lastSent_;
  std::map<Macsec::MemberId, uint32_t> highestSent_;
  std::optional<Broken> sentTwice_;
  Macsec::CipherSuite suite_ = Macsec::cipherSuiteGcmAes128;
};

std::string FaultRunner::hex(int octets) {
  std::ostringstream out;
  for (int i = 0; i < octets; ++i) out << std::hex << std::setw(2) << std::setfill('0') << integer(0, 255);
  return out.str();
}

void FaultRunner::note(const std::string& event) {
  if (options_.verbose) std::cout << "[" << std::fixed << std::setprecision(3) << sim_.now() << "] " << event << "\n";
}

void FaultRunner::keyIs(Agent& agent, const std::string& ckn, const std::string& cak) {
  agent.engine().as([&] {
    agent.engine()
        .config()
        ->profileIs(Zef::Name("fault"))
        ->keyIs(Macsec::Cak{Macsec::Ckn::fromHex(ckn), Macsec::StoredKey::ofHex(cak)});
  });
}

void FaultRunner::rekeyPeriodIs(uint32_t seconds) {
  for (Agent* agent : agents_) {
    agent->engine().as([&] { agent->engine().config()->profileIs(Zef::Name("fault"))->sessionReKeyPeriodIs(seconds); });
  }
}

// Switches in a chain, neighbours joined by one or two links, or three or four switches on one
// shared segment; every interface on one profile.
void FaultRunner::drawNetwork() {
  const bool segment = chance(0.3) && !options_.pairOnly;
  const int switches = segment ? integer(3, 4) : options_.pairOnly ? 2 : integer(2, 4);
  const int links = segment || options_.pairOnly ? 1 : integer(1, 2);
  suite_ = pick({Macsec::cipherSuiteGcmAes128, Macsec::cipherSuiteGcmAes256, Macsec::cipherSuiteGcmAesXpn128,
                 Macsec::cipherSuiteGcmAesXpn256});
  const bool delayProtection = chance(0.5);
  const uint32_t rekeyPeriod = pick({0u, 0u, 10u, 30u});
  const std::string ckn = hex(integer(1, 32));
  const std::string cak = hex(pick({16, 32}));
  secrets_.push_back(cak);
  drawn_ << (segment ? "segment" : "chain") << " of " << switches << " switches, " << links << " link(s) each, "
         << (sim_.wire() == Wire::bytes ? "frames" : "messages") << ", suite " << suite_ << ", delay protection "
         << delayProtection << ", rekey " << rekeyPeriod << " s";

  for (int s = 0; s < switches; ++s) {
    Agent& agent = sim_.agentIs("sw" + std::to_string(s + 1));
    agents_.push_back(&agent);
    const Zef::Ptr<Macsec::Config>& config = agent.engine().config();
    config->delayProtectionIs(delayProtection);
    const Zef::Ptr<Macsec::Profile> profile = config->profileIs(Zef::Name("fault"));
    profile->cipherSuiteIs(suite_);
    profile->sessionReKeyPeriodIs(rekeyPeriod);
    keyIs(agent, ckn, cak);
  }
  auto interfaceIs = [&](int s, int side, int l) {
    // Names that tell the switch: Ethernet312 is switch 3, side 1, link 2.
    const Lanx::IntfId intf("Ethernet" + std::to_string((s + 1) * 100 + side * 10 + l + 1));
    Macsec::Engine& engine = agents_[s]->engine();
    engine.linkedInterfaceIs(intf, Lanx::EthAddr({0x02, 0x00, 0x00, static_cast<uint8_t>(s + 1),
                                                  static_cast<uint8_t>(side), static_cast<uint8_t>(l + 1)}));
    engine.config()->intfConfigIs(intf)->profileNameIs("fault");
    return End{agents_[s], intf, agents_[s]->name() + " " + intf.stringValue()};
  };
  if (segment) {
    std::vector<End> ends;
    for (int s = 0; s < switches; ++s) ends.push_back(interfaceIs(s, 0, 0));
    Link& link = sim_.linkIs(*ends[0].agent, ends[0].intf, *ends[1].agent, ends[1].intf);
    for (size_t e = 2; e < ends.size(); ++e) link.endIs(*ends[e].agent, ends[e].intf);
    links_.push_back(&link);
    ends_.push_back(ends);
    return;
  }
  for (int s = 0; s + 1 < switches; ++s) {
    for (int l = 0; l < links; ++l) {
      const End here = interfaceIs(s, 0, l);
      const End there = interfaceIs(s + 1, 1, l);
      links_.push_back(&sim_.linkIs(*here.agent, here.intf, *there.agent, there.intf));
      ends_.push_back({here, there});
    }
  }
}

// Each link's loss, duplication, corruption (of frames) and reordering, and each switch's
// hardware lag.
void FaultRunner::drawFaults() {
  if (options_.pairOnly) return;
  for (Link* link : links_) {
    link->lossIs(chance(0.8) ? uniform(0, 0.3) : 0);
    link->duplicationIs(chance(0.5) ? uniform(0, 0.1) : 0);
    if (sim_.wire() == Wire::bytes) link->corruptionIs(chance(0.5) ? uniform(0, 0.05) : 0);
    link->jitterIs(chance(0.5) ? uniform(0, 0.3) : 0);
  }
  drawn_ << ", hardware lag";
  for (Agent* agent : agents_) {
    const double lag = pick({0.0, 0.0, 0.02, 0.3, 1.0});
    agent->hardwareLatencyIs(lag);
    drawn_ << " " << lag;
  }
}

// Cuts, key changes (reaching the switches one after another), agent restarts (state machines
// rebuilt over the status they left) and changes of the rekey period, at random times of the
// fault period; each is over before the rest begins.
void FaultRunner::drawEvents() {
  const int events = options_.pairOnly ? 0 : integer(0, 12);
  drawn_ << ", " << events << " events";
  const double last = options_.faultSeconds - 10;
  std::vector<double> times;
  for (int e = 0; e < events; ++e) times.push_back(uniform(1, std::max(1.0, last)));
  std::sort(times.begin(), times.end());
  // Each switch takes the key changes in the order they were made, whatever their spread.
  std::map<Agent*, double> lastKey;
  for (const double at : times) {
    switch (integer(0, 3)) {
      case 0: {
        const size_t l = static_cast<size_t>(integer(0, static_cast<int>(links_.size()) - 1));
        const double length = uniform(0.5, 20);
        sim_.after(at, [this, l, length] {
          note("cut link " + std::to_string(l) + " for " + std::to_string(length) + " s");
          links_[l]->cutIs(true);
        });
        sim_.after(at + length, [this, l] {
          note("mend link " + std::to_string(l));
          links_[l]->cutIs(false);
        });
        break;
      }
      case 1: {
        const std::string ckn = hex(integer(1, 32));
        const std::string cak = hex(pick({16, 32}));
        secrets_.push_back(cak);
        for (Agent* agent : agents_) {
          lastKey[agent] = std::max(at + uniform(0, 5), lastKey[agent] + 0.01);
          sim_.after(lastKey[agent], [this, agent, ckn, cak] {
            note("new key " + ckn + " on " + agent->name());
            keyIs(*agent, ckn, cak);
          });
        }
        break;
      }
      case 2: {
        Agent* agent = agents_[static_cast<size_t>(integer(0, static_cast<int>(agents_.size()) - 1))];
        const double away = uniform(0, 8);
        sim_.after(at, [this, agent] {
          if (!agent->processRunning()) return;
          note("restart " + agent->name());
          agent->engine().as([&] { agent->engine().stateMachinesStop(); });
        });
        sim_.after(at + away, [this, agent] {
          if (!agent->processRunning()) return;
          note("restarted " + agent->name());
          agent->engine().as([&] { agent->engine().stateMachinesStart(); });
        });
        break;
      }
      default: {
        const uint32_t period = pick({0u, 5u, 10u, 30u});
        sim_.after(at, [this, period] {
          note("rekey period " + std::to_string(period) + " s");
          rekeyPeriodIs(period);
        });
      }
    }
  }
}

// Restarts of a switch's process, through its saved state: a graceful stop, or a crash at whatever
// point of its work the time falls on; mostly back within a second, as a supervisor restarts it,
// sometimes later. Drawn from a stream of their own, so that the other draws of a seed stay what
// they were before there were process restarts.
void FaultRunner::drawProcessRestarts() {
  std::mt19937 draw(seed_ ^ 0x9e3779b9u);
  auto uniform = [&](double low, double high) { return std::uniform_real_distribution<double>(low, high)(draw); };
  const int restarts = options_.pairOnly ? 0 : std::uniform_int_distribution<int>(0, 3)(draw);
  drawn_ << ", " << restarts << " process restarts";
  if (restarts == 0) return;
  for (Agent* agent : agents_) agent->savedStateKept();
  for (int r = 0; r < restarts; ++r) {
    Agent* agent = agents_[std::uniform_int_distribution<size_t>(0, agents_.size() - 1)(draw)];
    const double at = uniform(1, std::max(1.0, options_.faultSeconds - 10));
    const bool graceful = uniform(0, 1) < 0.5;
    const double away = uniform(0, 1) < 0.8 ? uniform(0.01, 1) : uniform(1, 8);
    sim_.after(at, [this, agent, graceful, away] {
      if (!agent->processRunning()) return;
      note((graceful ? "process stop " : "process crash ") + agent->name());
      agent->processStop(graceful);
      sim_.after(away, [this, agent] {
        note("process start " + agent->name());
        for (const std::string& afresh : agent->processStart()) note("afresh: " + afresh);
      });
    });
  }
}

// Forged frames at times of the fault period, after the members' last MKPDUs.
void FaultRunner::drawForgeries() {
  if (options_.forged.empty()) return;
  sim_.tapIs([this](const Agent& from, const Message& message) {
    lastSent_[from.name() + " " + message.intfId.stringValue()] = message;
  });
  const std::string& bytes = options_.forged;
  for (size_t at = 0; at + 8 <= bytes.size(); at += 8) {
    std::array<uint8_t, 8> how;
    std::copy_n(reinterpret_cast<const uint8_t*>(bytes.data() + at), 8, how.begin());
    const double when = 1 + (options_.faultSeconds - 6) * how[0] / 256.0;
    sim_.after(when, [this, how] { forge(how.data() + 1); });
  }
  drawn_ << ", " << bytes.size() / 8 << " forged frames";
}

// One forged frame: `how` picks the interface whose last MKPDU it changes, the change, and its
// values; the frame goes to every other end of that interface's link.
void FaultRunner::forge(const uint8_t* how) {
  std::vector<std::pair<const End*, const std::vector<End>*>> all;
  for (const std::vector<End>& ends : ends_) {
    for (const End& end : ends) all.push_back({&end, &ends});
  }
  const auto [from, ends] = all[how[0] % all.size()];
  const auto sent = lastSent_.find(text(*from));
  if (sent == lastSent_.end()) return;
  Message m = sent->second;
  const int kind = how[1] % 8;
  switch (kind) {
    case 0:  // the same, with a new number
    case 1:  // the same, number and all: a replay
      break;
    case 2:  // another priority, key server flag or capability
      m.baseInfo.keyServerPriority = how[2];
      m.baseInfo.keyServer = how[3] & 1;
      m.baseInfo.macsecDesired = how[3] & 2;
      m.baseInfo.macsecCapability = (how[3] >> 2) & 3;
      break;
    case 3: {  // a peer list with an entry less, or one more
      auto& list = how[2] & 1 ? m.livePeers : m.potentialPeers;
      if (how[2] & 2 && !list.empty()) {
        list.erase(list.begin() + how[3] % list.size());
      } else {
        std::ostringstream mi;
        mi << std::hex << std::setfill('0') << std::setw(24) << (how[3] * 65536 + how[4] * 256 + how[5]);
        list.push_back({Macsec::MemberId::fromHex(mi.str()), how[4]});
      }
      break;
    }
    case 4: {  // a SAK use set that says something else
      Macsec::KeyInfo& key = how[2] & 1 ? m.sakUseInfo.latestKey : m.sakUseInfo.oldKey;
      key.an = how[3] & 3;
      key.tx = how[3] & 4;
      key.rx = how[3] & 8;
      key.keyNum += static_cast<int8_t>(how[4]) % 3;
      if (how[2] & 2) key.mi = m.baseInfo.msgId;
      m.sakUseInfo.plainTx = how[2] & 4;
      m.sakUseInfo.plainRx = how[2] & 8;
      break;
    }
    case 5:  // a distributed key with another number, association number or cipher suite
      m.sakDistInfo.distributedAN = how[2] & 3;
      m.sakDistInfo.keyNumber += how[3] % 3;
      if (how[4] & 1) m.sakDistInfo.cipherSuite = Macsec::cipherSuiteGcmAes256;
      if (m.sakDistInfo.wrappedSak.empty()) m.sakDistInfo.wrappedSak = Macsec::StoredKey::ofHex(hex(16));
      break;
    case 6: {  // a member that does not exist, on the same port
      std::ostringstream mi;
      mi << std::hex << std::setfill('0') << std::setw(24) << (how[2] * 65536 + how[3] * 256 + how[4]);
      m.baseInfo.msgId = Macsec::MemberId::fromHex(mi.str());
      m.baseInfo.msgNum = how[5] + 1u;
      break;
    }
    default:  // sets left out
      if (how[2] & 1) m.sakUseInfo = Macsec::SakUseInfo();
      if (how[2] & 2) m.sakDistInfo = Macsec::SakDistInfo();
      if (how[2] & 4) m.livePeers.clear();
      break;
  }
  // The member's next number, which passes the replay guard once: the member's own next MKPDU is
  // refused instead. (Numbers far ahead would silence the member for as long as it takes to catch
  // up, which the protocol means to happen and no rest would outlast.)
  if (kind != 1 && kind != 6) m.baseInfo.msgNum += 1;
  // Signed with the keys the member's own codec holds ready.
  const Macsec::MkpduCodec& codec = *from->agent->codec();
  const std::optional<Macsec::ActorKeys> keys = codec.actorKeys(
      from->intf, m.baseInfo.ckn, codec.pamManager()->interfaces().receiver(from->intf, m.baseInfo.ckn));
  std::string frame;
  if (!keys || !Macsec::encodeMkpdu(m, m.baseInfo.sci.addr, *keys, frame)) return;
  note("forged frame from " + text(*from));
  for (const End& to : *ends) {
    if (&to != from) to.agent->deliverFrame(to.intf, frame);
  }
}

// Every link mended and clean, and no more rekeys.
void FaultRunner::mend() {
  note("rest");
  for (Link* link : links_) {
    link->cutIs(false);
    link->lossIs(0);
    link->duplicationIs(0);
    link->corruptionIs(0);
    link->jitterIs(0);
  }
  rekeyPeriodIs(0);
}

// No member identifier sends a message number twice, across restarts of its process too. The
// MKPDU is on its way out of the engine: what it breaks is told at the next check.
void FaultRunner::checkSent(const Agent& from, const Lanx::IntfId& intf, const Macsec::BasicInfo& base) {
  uint32_t& highest = highestSent_[base.msgId];
  if (base.msgNum <= highest && !sentTwice_) {
    sentTwice_ = Broken{"message number sent twice: " + from.name() + " " + intf.stringValue() + " sent " +
                        std::to_string(base.msgNum) + " after " + std::to_string(highest)};
  }
  highest = std::max(highest, base.msgNum);
}

void FaultRunner::checkAlways() {
  if (sentTwice_) throw *sentTwice_;
  for (const std::vector<End>& ends : ends_) {
    for (const End& end : ends) {
      const Zef::Ptr<Macsec::CpStatus> cp = end.agent->status()->cpStatus(end.intf);
      const Zef::Ptr<Macsec::MacSecIntfStatus> hw = end.agent->hw(end.intf);
      if (!cp || !hw || !cp->controlledPortEnabled()) continue;
      // An open port protects its traffic (unprotected traffic is not allowed here).
      if (cp->unprotectedTraffic() || hw->txSaStatus().empty()) {
        throw Broken{"open without transmit SA: " + text(end)};
      }
    }
    // A forged SAK use or distribution set can make a member believe what its peer never said, so
    // that it stops receiving on a key in use: an insider with the CAK can do that much. With
    // forgeries, what holds is the rest of the checks, and the end.
    if (!options_.forged.empty()) continue;
    for (const End& from : ends) checkTransmitsAhead(ends, from);
    for (const End& to : ends) checkKeysTakenAway(ends, to);
  }
}

// Nobody asks its data plane to transmit on a key that a member it is live with (each holds the
// other live) does not receive on: not the key server on a new key, not a follower that follows
// it, not on the first key of a session. (A member still joining, or one that becomes live while
// the key is on its way into service or in it, gets the key from the key server.)
void FaultRunner::checkTransmitsAhead(const std::vector<End>& ends, const End& from) {
  // While its process is away, the data plane goes on transmitting on the key it had.
  if (!from.agent->processRunning()) return;
  const Zef::Ptr<Macsec::CpStatus> cp = from.agent->status()->cpStatus(from.intf);
  const Macsec::SaStatus tx = cp && !cp->txSak().empty() ? Macsec::SaStatus{Macsec::AssociationNumber(cp->txSak().an),
                                                                            cp->txSak().mi, cp->txSak().keyNum, 0}
                                                         : Macsec::SaStatus();
  const std::string now = tx.empty() ? std::string() : text(tx);
  std::string& before = transmitting_[text(from)];
  if (now == before) return;
  before = now;
  if (now.empty()) return;
  const Principal sender = principalOf(from);
  for (const End& to : ends) {
    if ((to.agent == from.agent && to.intf == from.intf) || !holdsLive(sender.actor, sciOf(to)) || receives(to, tx)) {
      continue;
    }
    const Principal receiver = principalOf(to);
    if (receiver.ckn != sender.ckn || !holdsLive(receiver.actor, sciOf(from))) continue;
    throw Broken{"transmits ahead: " + text(from) + " asks to transmit on " + now + ", which " + text(to) +
                 ", a live peer, does not receive on"};
  }
}

// A key is not taken away from a port while a peer transmits on it: among members of one
// connectivity association that hold each other live, none stops receiving on a key of its key
// server that another transmits on. (A member that comes back may transmit on a key retired while
// it was away, until it has the current one: that takes no key away.)
void FaultRunner::checkKeysTakenAway(const std::vector<End>& ends, const End& to) {
  // While its process is away, the data plane goes on receiving on the keys it had; once back, the
  // process must ask for them again.
  if (!to.agent->processRunning()) return;
  std::set<std::string>& before = receiving_[text(to)];
  std::set<std::string> now;
  for (auto it = to.agent->hw(to.intf)->rxSaStatusIter(); it; ++it) {
    if (receives(to, it.value())) now.insert(text(it.value()));
  }
  const Principal receiver = principalOf(to);
  for (const End& from : ends) {
    if (from.agent == to.agent && from.intf == to.intf) continue;
    const Zef::Ptr<Macsec::CpStatus> cp = from.agent->status()->cpStatus(from.intf);
    const Macsec::SaStatus tx = from.agent->hw(from.intf)->txSaStatus();
    if (!cp || !cp->controlledPortEnabled() || tx.empty() || !before.count(text(tx)) || now.count(text(tx))) continue;
    const Principal sender = principalOf(from);
    if (!sender.actor || !receiver.actor || receiver.ckn != sender.ckn || !holdsLive(sender.actor, sciOf(to)) ||
        !holdsLive(receiver.actor, sciOf(from)) || tx.mi != keyServerMi(receiver.actor)) {
      continue;
    }
    throw Broken{"key taken away: " + text(to) + " stopped receiving on " + text(tx) + ", which " + text(from) +
                 " transmits on"};
  }
  before = std::move(now);
}

std::optional<Broken> FaultRunner::unrested() const {
  for (const std::vector<End>& ends : ends_) {
    const Macsec::SaStatus key = ends[0].agent->hw(ends[0].intf)->txSaStatus();
    for (const End& end : ends) {
      const Zef::Ptr<Macsec::CpStatus> cp = end.agent->status()->cpStatus(end.intf);
      const Zef::Ptr<Macsec::MacSecIntfStatus> hw = end.agent->hw(end.intf);
      if (!cp->controlledPortEnabled() || hw->txSaStatus().empty() || !sameKey(hw->txSaStatus(), key)) {
        return Broken{"not secured at the end: " + text(end) + " port " +
                      (cp->controlledPortEnabled() ? "open" : "closed") + ", transmits on " + text(hw->txSaStatus()) +
                      ", " + text(ends[0]) + " on " + text(key)};
      }
      if (!receives(end, key)) {
        return Broken{"not secured at the end: " + text(end) + " does not receive on " + text(key)};
      }
      for (auto it = cp->rxSakIter(); it; ++it) {
        const Macsec::SaStatus asked{Macsec::AssociationNumber(it.value().an), it.value().mi, it.value().keyNum, 0};
        if (!sameKey(asked, key)) {
          return Broken{"stale receive SA at the end: " + text(end) + " receives on " + text(asked) + " beside " +
                        text(key)};
        }
      }
      const Principal principal = principalOf(end);
      for (const End& other : ends) {
        if (&other != &end && !holdsLive(principal.actor, sciOf(other))) {
          return Broken{"not live at the end: " + text(end) + " does not hold " + text(other)};
        }
      }
    }
  }
  return std::nullopt;
}

bool FaultRunner::settled() const {
  if (unrested()) return false;
  // Nothing left to happen: each member holds exactly the others live and nobody else (a forged
  // member has aged out), the key is in service with no successor on its way, and no key server
  // owes a key.
  for (const std::vector<End>& ends : ends_) {
    for (const End& end : ends) {
      const Principal principal = principalOf(end);
      const Zef::Ptr<Macsec::CpStatus> cp = end.agent->status()->cpStatus(end.intf);
      if (principal.actor->livePeerSize() != ends.size() - 1 || principal.actor->potentialPeerSize() != 0 ||
          principal.actor->newSak() || (principal.actor->electedSelf() && !principal.actor->sakTransmit()) ||
          cp->latestSakContext() != Macsec::SakContext()) {
        return false;
      }
    }
  }
  return true;
}

// The rest: its whole length, or until the network has stayed settled for an MKPDU period (a
// check a second).
void FaultRunner::rest() {
  if (!options_.stopWhenSettled) {
    sim_.runFor(options_.restSeconds);
    return;
  }
  const double end = sim_.now() + options_.restSeconds;
  for (int settledChecks = 0; sim_.now() < end;) {
    sim_.runFor(std::min(1.0, end - sim_.now()));
    settledChecks = settled() ? settledChecks + 1 : 0;
    if (settledChecks == 2) {
      note("settled");
      return;
    }
  }
}

void FaultRunner::checkRested() {
  if (const std::optional<Broken> broken = unrested()) throw *broken;
}

void FaultRunner::checkLogs() {
  for (const std::string& line : logged_) {
    std::string lower = line;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const std::string& secret : secrets_) {
      if (lower.find(secret) != std::string::npos) throw Broken{"clear key in the log: " + line};
    }
  }
}

FaultOutcome FaultRunner::run() {
  // Nothing of an earlier run in this process is held back: a run goes as it would alone.
  Macsec::clearLogHistory();
  Zef::logSinkIs([this](const Zef::LogRecord& record) {
    std::string line =
        std::string(record.source) + " " + std::string(record.handle->name().view()) + ": " + record.text;
    if (options_.verbose) std::cout << "[" << std::fixed << std::setprecision(3) << sim_.now() << "] " << line << "\n";
    logged_.push_back(std::move(line));
  });
  drawNetwork();
  drawFaults();
  drawEvents();
  drawProcessRestarts();
  drawForgeries();
  sim_.sentIs([this](const Agent& from, const Lanx::IntfId& intf, const Macsec::BasicInfo& base) {
    checkSent(from, intf, base);
  });
  sim_.observerIs([this] { checkAlways(); });
  FaultOutcome outcome;
  outcome.drawn = drawn_.str();
  try {
    sim_.runUntil(options_.faultSeconds);
    mend();
    rest();
    checkRested();
    checkLogs();
  } catch (const Broken& broken) {
    outcome.passed = false;
    outcome.failure = broken.rule;
    outcome.time = sim_.now();
  }
  sim_.observerIs(nullptr);
  Zef::logSinkIs(nullptr);
  return outcome;
}

}  // namespace

FaultOutcome faultRun(uint32_t seed, const FaultOptions& options) {
  FaultRunner runner(seed, options);
  return runner.run();
}

FaultOptions forgedOptions() {
  FaultOptions options;
  options.faultSeconds = 10;
  options.restSeconds = 40;
  options.stopWhenSettled = true;
  return options;
}

FaultOutcome forgedRun(const std::string& input, const FaultOptions& timing) {
  if (input.size() < 2) return FaultOutcome{};
  FaultOptions options = timing;
  options.pairOnly = true;
  options.forged = input.substr(2, 64 * 8);
  const uint32_t seed = static_cast<uint8_t>(input[0]) | static_cast<uint32_t>(static_cast<uint8_t>(input[1])) << 8;
  return faultRun(seed, options);
}

}  // namespace Sim
