// mkasim: simulated switches that secure their links with MKA, over real MKPDU frames, on virtual
// time. Prints the operators' log as it happens and a table of every interface at the end.

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "model/Crypto.h"
#include "platform/Log.h"
#include "sim/Simulation.h"

namespace {

struct Options {
  int switches = 2;
  int links = 1;
  std::string ckn = "96437a93ccf10d9dfe347846cce52c7d";
  std::string cak;  // by cipher when not given
  bool cakGiven = false;
  std::string cipher = "128";
  bool delayProtection = false;
  bool fips = false;
  double duration = 60;
  std::string pcap;
  double latency = 0;
  double loss = 0;
  unsigned seed = 1;
  bool quiet = false;
};

const char* kUsage =
    "usage: mkasim [options]\n"
    "  --switches N          switches in a chain (2 or more; default 2)\n"
    "  --links N             links between neighbouring switches (default 1)\n"
    "  --ckn HEX             connectivity association key name (1 to 32 octets)\n"
    "  --cak HEX             connectivity association key (32 or 64 hex digits, with either cipher)\n"
    "  --cipher SUITE        128, 256, xpn-128 or xpn-256: GCM-AES, with extended packet numbers\n"
    "                        for xpn (default 128)\n"
    "  --delay-protection    MKPDUs every 0.5 s with delay protection\n"
    "  --fips                FIPS mode: each port waits for its hardware's power-on self test\n"
    "  --duration SECONDS    virtual time to run (default 60)\n"
    "  --latency SECONDS     time the emulated hardware takes to confirm a key (default 0)\n"
    "  --loss P              share of frames lost on every link (default 0)\n"
    "  --seed N              seed of the random losses and start times (default 1)\n"
    "  --pcap FILE           write every MKPDU on the links to a pcap file\n"
    "  --quiet               print only the final table\n";

[[noreturn]] void refuse(const std::string& message) {
  std::cerr << "mkasim: " << message << "\n" << kUsage;
  std::exit(2);
}

Macsec::CipherSuite suiteOf(const std::string& name) {
  if (name == "128") return Macsec::cipherSuiteGcmAes128;
  if (name == "256") return Macsec::cipherSuiteGcmAes256;
  if (name == "xpn-128") return Macsec::cipherSuiteGcmAesXpn128;
  if (name == "xpn-256") return Macsec::cipherSuiteGcmAesXpn256;
  return Macsec::cipherSuiteNone;
}

bool isHex(const std::string& text) {
  Macsec::KeyBytes bytes;
  return Macsec::hexToBytes(text, bytes);
}

// A finite decimal number, whole text; anything else is refused naming the flag.
double number(const std::string& flag, const char* text) {
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || errno == ERANGE || !std::isfinite(value)) {
    refuse(flag + " takes a finite number, not '" + text + "'");
  }
  return value;
}

// A whole decimal number within [low, high], checked before any conversion.
long long integer(const std::string& flag, const char* text, long long low, long long high) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  if (end == text || *end != '\0' || errno == ERANGE || value < low || value > high) {
    refuse(flag + " takes a whole number from " + std::to_string(low) + " to " + std::to_string(high) + ", not '" +
           text + "'");
  }
  return value;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) refuse(flag + " needs a value");
      return argv[++i];
    };
    if (flag == "--switches") {
      o.switches = static_cast<int>(integer(flag, value(), 2, 64));
    } else if (flag == "--links") {
      o.links = static_cast<int>(integer(flag, value(), 1, 4096));
    } else if (flag == "--ckn") {
      o.ckn = value();
    } else if (flag == "--cak") {
      o.cak = value();
      o.cakGiven = true;
    } else if (flag == "--cipher") {
      o.cipher = value();
    } else if (flag == "--delay-protection") {
      o.delayProtection = true;
    } else if (flag == "--fips") {
      o.fips = true;
    } else if (flag == "--duration") {
      o.duration = number(flag, value());
    } else if (flag == "--latency") {
      o.latency = number(flag, value());
    } else if (flag == "--loss") {
      o.loss = number(flag, value());
    } else if (flag == "--seed") {
      o.seed = static_cast<unsigned>(integer(flag, value(), 0, UINT32_MAX));
    } else if (flag == "--pcap") {
      o.pcap = value();
    } else if (flag == "--quiet") {
      o.quiet = true;
    } else if (flag == "--help" || flag == "-h") {
      std::cout << kUsage;
      std::exit(0);
    } else {
      refuse("unknown option " + flag);
    }
  }
  if (suiteOf(o.cipher) == Macsec::cipherSuiteNone) refuse("--cipher must be 128, 256, xpn-128 or xpn-256");
  if (!o.cakGiven) {
    o.cak = Macsec::keyBitsOf(suiteOf(o.cipher)) == 128
                ? "135bd758b0ee5c11c55ff6ab19fdb199"
                : "a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e";
  }
  if (!isHex(o.ckn) || o.ckn.empty() || o.ckn.size() > 64) refuse("--ckn must be 1 to 32 octets of hexadecimal text");
  if (!isHex(o.cak) || (o.cak.size() != 32 && o.cak.size() != 64)) refuse("--cak must be 32 or 64 hexadecimal digits");
  if (o.duration <= 0 || o.duration > 86400) refuse("--duration must be above 0 and at most 86400 seconds");
  if (o.latency < 0 || o.latency > 10) refuse("--latency must be from 0 to 10 seconds");
  if (o.loss < 0 || o.loss >= 1) refuse("--loss must be from 0 up to but not 1");
  return o;
}

std::string switchName(int s) { return "sw" + std::to_string(s + 1); }

// Switch s reaches the next switch on Ethernet1..N and the previous one on EthernetN+1..2N.
Lanx::IntfId intfOf(int link, bool towardsNext, int links) {
  return Lanx::IntfId("Ethernet" + std::to_string(towardsNext ? link + 1 : links + link + 1));
}

std::string keyText(const Macsec::Sak& sak) {
  if (sak.empty()) return "-";
  std::ostringstream out;
  out << +sak.an << ":" << Macsec::keyServerTail(sak.mi) << ":" << sak.keyNum;
  return out.str();
}

void printTable(Sim::Simulation& sim, const Options& o) {
  // Wide enough for the longest interface name and a space.
  const int intfWidth = std::max(12, static_cast<int>(intfOf(o.links - 1, false, o.links).stringValue().size()) + 1);
  std::cout << "\n"
            << std::left << std::setw(8) << "switch" << std::setw(intfWidth) << "interface" << std::setw(7) << "peers"
            << std::setw(30) << "key server" << std::setw(18) << "key in use" << std::setw(20) << "port"
            << "forwarding\n";
  for (int s = 0; s < o.switches; ++s) {
    Sim::Agent& agent = sim.agent(switchName(s));
    for (bool towardsNext : {false, true}) {
      if ((!towardsNext && s == 0) || (towardsNext && s == o.switches - 1)) continue;
      for (int l = 0; l < o.links; ++l) {
        const Lanx::IntfId intf = intfOf(l, towardsNext, o.links);
        const Zef::Ptr<Macsec::CpStatus> cp = agent.status()->cpStatus(intf);
        const Zef::Ptr<Macsec::MkaActorStatus> actor = agent.actorStatus(intf, o.ckn);
        std::string server = "-";
        if (actor && !actor->keyServer().isZero()) {
          std::ostringstream text;
          text << actor->keyServer() << (actor->electedSelf() ? " (self)" : "");
          server = text.str();
        }
        const char* port = !cp->controlledPortEnabled() ? "closed"
                           : cp->unprotectedTraffic()   ? "open, unprotected"
                                                        : "secured";
        // The interface layer holds back an interface that MACsec vetoes.
        const bool vetoed = agent.engine().forwardingModel()->forwardingModelInputHas(intf);
        std::cout << std::left << std::setw(8) << agent.name() << std::setw(intfWidth) << intf.stringValue()
                  << std::setw(7) << (actor ? actor->livePeerSize() : 0) << std::setw(30) << server << std::setw(18)
                  << keyText(cp->oldSakContext().sak) << std::setw(20) << port << (vetoed ? "held back" : "allowed")
                  << "\n";
      }
    }
  }
}

// The links whose two ends do not both run an open, protected port on one key.
int unsecuredLinks(Sim::Simulation& sim, const Options& o) {
  int unsecured = 0;
  for (int s = 0; s + 1 < o.switches; ++s) {
    for (int l = 0; l < o.links; ++l) {
      const Zef::Ptr<Macsec::CpStatus> here = sim.agent(switchName(s)).status()->cpStatus(intfOf(l, true, o.links));
      const Zef::Ptr<Macsec::CpStatus> there =
          sim.agent(switchName(s + 1)).status()->cpStatus(intfOf(l, false, o.links));
      auto secured = [](const Zef::Ptr<Macsec::CpStatus>& cp) {
        return cp && cp->controlledPortEnabled() && !cp->unprotectedTraffic() && !cp->oldSakContext().sak.empty();
      };
      const bool oneKey = secured(here) && secured(there) &&
                          here->oldSakContext().sak.mi == there->oldSakContext().sak.mi &&
                          here->oldSakContext().sak.keyNum == there->oldSakContext().sak.keyNum;
      unsecured += oneKey ? 0 : 1;
    }
  }
  return unsecured;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  // One seed for the links' losses and the actors' random start, so that a run repeats event for
  // event. Member identifiers and keys still come from the cryptographic source and differ.
  Sim::Simulation sim(0.0, o.seed, Sim::Wire::bytes);
  Zef::logSinkIs([&](const Zef::LogRecord& r) {
    if (o.quiet) return;
    std::cout << "[" << std::fixed << std::setprecision(3) << std::setw(9) << sim.now() << "] " << r.source << " "
              << r.handle->name() << ": " << r.text << "\n";
  });
  if (!o.pcap.empty() && !sim.pcapIs(o.pcap)) {
    std::cerr << "mkasim: cannot write " << o.pcap << "\n";
    return 1;
  }

  // The switches, configured as the daemon configures: one profile with the key and the cipher
  // suite, named by every interface, and the switch-wide delay protection.
  std::vector<Sim::Agent*> switches;
  for (int s = 0; s < o.switches; ++s) {
    Sim::Agent& agent = sim.agentIs(switchName(s));
    agent.hardwareLatencyIs(o.latency);
    const Zef::Ptr<Macsec::Config>& config = agent.engine().config();
    config->delayProtectionIs(o.delayProtection);
    const Zef::Ptr<Macsec::Profile> profile = config->profileIs(Zef::Name("mkasim"));
    profile->cipherSuiteIs(suiteOf(o.cipher));
    profile->keyIs(Macsec::Cak{Macsec::Ckn::fromHex(o.ckn), Macsec::StoredKey::ofHex(o.cak)});
    // Simulated FIPS mode: the ports wait for the emulated hardware's self test; the process's
    // crypto library is not switched.
    if (o.fips) {
      agent.status()->fipsStatusIs(Macsec::FipsStatus{true, true});
      agent.emulator()->selfTestResponderIs(Macsec::selfTestResponderOn);
    }
    switches.push_back(&agent);
  }
  for (int s = 0; s + 1 < o.switches; ++s) {
    for (int l = 0; l < o.links; ++l) {
      Sim::Link& link = sim.linkIs(*switches[s], intfOf(l, true, o.links), *switches[s + 1], intfOf(l, false, o.links));
      link.lossIs(o.loss);
    }
  }
  for (int s = 0; s < o.switches; ++s) {
    for (bool towardsNext : {false, true}) {
      if ((!towardsNext && s == 0) || (towardsNext && s == o.switches - 1)) continue;
      for (int l = 0; l < o.links; ++l) {
        const Lanx::IntfId intf = intfOf(l, towardsNext, o.links);
        Macsec::Engine& engine = switches[s]->engine();
        // 02:HH:00:SS:DD:LL, with the link's number split over HH and LL.
        const int number = l + 1;
        engine.linkedInterfaceIs(
            intf, Lanx::EthAddr({0x02, static_cast<uint8_t>(number >> 8), 0x00, static_cast<uint8_t>(s + 1),
                                 static_cast<uint8_t>(towardsNext), static_cast<uint8_t>(number)}));
        engine.config()->intfConfigIs(intf)->profileNameIs("mkasim");
      }
    }
  }

  sim.runFor(o.duration);
  printTable(sim, o);
  Zef::logSinkIs(nullptr);
  // A script may trust the exit status: 0 only if every link ended secured, both ends on one key.
  const int unsecured = unsecuredLinks(sim, o);
  if (unsecured > 0) std::cerr << "mkasim: " << unsecured << " links are not secured on one key\n";
  return unsecured == 0 ? 0 : 1;
}
