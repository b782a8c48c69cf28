#include "agent/StatusReport.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <type_traits>

#include "platform/Clock.h"

namespace Macsec {

namespace {

template <class Value>
std::string text(const Value& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

// A key by its identity only: the key server's member identifier, the key number and the
// association number.
nlohmann::json keyReport(const KeyIdentity& key) {
  return nlohmann::json{{"key-number", key.keyNum}, {"an", key.an}, {"key-server-mi", key.mi.hex().stdString()}};
}
nlohmann::json keyReport(const Sak& sak) {
  if (sak.empty()) return nullptr;
  return keyReport(KeyIdentity{sak.mi, sak.keyNum, sak.an});
}

// A moment of the engine's clock as the wall clock's.
double utcOf(double engineTime) { return Zef::System::currentTimeUtc() - (Zef::System::currentTime() - engineTime); }

nlohmann::json countersReport(const MacsecCounters& counters) {
  nlohmann::json report = nlohmann::json::object();
  for (const MacsecCounter& counter : counters) report[counter.name] = counter.value;
  return report;
}

// The kernel's counters of the interface's MACsec link, by the names `ip -s macsec show` prints.
nlohmann::json kernelCountersReport(const MacsecLinkCounters& link) {
  nlohmann::json report{{"secy", countersReport(link.secy)}, {"tx-sc", countersReport(link.txSc)}};
  nlohmann::json& txSas = report["tx-sa"] = nlohmann::json::object();
  for (const auto& [an, counters] : link.txSas) txSas[std::to_string(an)] = countersReport(counters);
  // The next packet number of each transmit SA, in 64 bits for the extended packet number suites.
  nlohmann::json& nextPn = report["tx-next-pn"] = nlohmann::json::object();
  for (const auto& [an, pn] : link.txNextPn) nextPn[std::to_string(an)] = pn;
  nlohmann::json& rxScs = report["rx-sc"] = nlohmann::json::array();
  for (const MacsecLinkCounters::RxSc& sc : link.rxScs) {
    char sci[17];
    const uint8_t* o = sc.sci.octets;
    std::snprintf(sci, sizeof sci, "%02x%02x%02x%02x%02x%02x%02x%02x", o[0], o[1], o[2], o[3], o[4], o[5], o[6], o[7]);
    nlohmann::json channel{{"sci", sci}, {"counters", countersReport(sc.counters)}};
    nlohmann::json& sas = channel["rx-sa"] = nlohmann::json::object();
    for (const auto& [an, counters] : sc.sas) sas[std::to_string(an)] = countersReport(counters);
    rxScs.push_back(channel);
  }
  return report;
}

// A cipher suite by the name the configuration file gives it: "gcm-aes-xpn-256".
std::string cipherSuiteName(CipherSuite suite) {
  std::string text;
  ProfileSettings::forEach([&]<class S>(S) {
    if constexpr (std::is_same_v<typename S::Type, CipherSuite>) {
      for (const auto& [name, value] : S::names) {
        if (value == suite) text = name;
      }
    }
  });
  return text;
}

nlohmann::json peerReport(const MkaPeer& peer, const char* state) {
  nlohmann::json report{{"sci", sciText(peer.baseInfo().sci)},
                        {"member-identifier", peer.id().hex().stdString()},
                        {"state", state},
                        {"key-server-priority", peer.baseInfo().keyServerPriority}};
  // The packet number the peer last reported for the key it transmits on, which the key server
  // watches for the key's wearing out.
  const SakUseInfo& use = peer.sakUseInfo();
  const KeyInfo& transmitted = use.oldKey.tx ? use.oldKey : use.latestKey;
  report["transmit-pn"] = transmitted.tx ? nlohmann::json(transmitted.lpn) : nullptr;
  return report;
}

const char* saState(bool enabled, bool installed) {
  if (enabled) return "in use";
  return installed ? "installed" : "none";
}

// A profile's settings by their keys in the configuration file, named values by their names.
nlohmann::json settingsReport(const Profile& profile) {
  nlohmann::json report = nlohmann::json::object();
  ProfileSettings::forEach([&]<class S>(S) {
    nlohmann::json& field = report[std::string(S::fileKey)];
    if constexpr (requires { S::names; }) {
      for (const auto& [name, value] : S::names) {
        if (value == S::of(profile)) field = std::string(name);
      }
    } else if constexpr (std::is_same_v<typename S::Type, Zef::String>) {
      field = S::of(profile).stdString();
    } else {
      field = S::of(profile);
    }
  });
  return report;
}

}  // namespace

nlohmann::json keyChainReport(const std::string& name, const KeyChain& chain, double now) {
  const ChainKey* inUse = chainKeyAt(chain, now);
  const std::optional<double> next = nextRollover(chain, now);
  return nlohmann::json{{"name", name},
                        {"key-in-use", inUse ? nlohmann::json(inUse->key.ckn.hex().stdString()) : nullptr},
                        {"next-rollover", next ? nlohmann::json(rfc3339(*next)) : nullptr},
                        {"warnings", chainWarnings(chain, now)}};
}

nlohmann::json dataPlaneReport(DataPlane plane) {
  nlohmann::json report{{"data-plane", dataPlaneName(plane)}, {"encrypted", plane == DataPlane::kernel}};
  if (plane == DataPlane::emulated) report["warning"] = "the emulated data plane encrypts nothing";
  return report;
}

nlohmann::json interfaceReport(const Engine& engine, const Lanx::IntfId& intf, bool present, DataPlane plane,
                               const SessionHistory::Interface* history, const MacsecLinkCounters* kernel) {
  const Zef::Ptr<Status>& status = engine.status();
  nlohmann::json report{{"name", intf.stringValue()}, {"present", present}};
  report.update(dataPlaneReport(plane));
  if (const Zef::Ptr<IntfConfig> config = engine.mergedConfig()->intfConfig(intf)) {
    report["profile"] = config->profileName().stdString();
    if (const Zef::Ptr<Profile> profile = engine.mergedConfig()->profile(Zef::Name(config->profileName()))) {
      report["settings"] = settingsReport(*profile);
    }
  }
  const Zef::Ptr<Interface::EthIntfStatus> eth = engine.ethIntfStatusDir()->intfStatus(intf);
  const bool up = eth && eth->linkStatus() == Interface::linkUp;
  report["link"] = !present ? "absent" : up ? "up" : "down";

  // Who this port is, and who runs the session with it.
  const Zef::Ptr<MkaPortStatus> port = status->portStatus(intf);
  const Zef::Ptr<MkaActorStatus> actor = principalActor(port);
  report["sci"] = port && !port->mySci().isZero() ? nlohmann::json(sciText(port->mySci())) : nullptr;
  report["member-identifier"] = actor ? nlohmann::json(actor->msgId().hex().stdString()) : nullptr;
  report["ckn"] = actor ? nlohmann::json(actor->ckn().hex().stdString()) : nlohmann::json(nullptr);
  report["is-key-server"] = actor && actor->electedSelf();
  report["key-server"] = nullptr;
  if (actor && !actor->keyServer().isZero()) {
    uint8_t priority = 0;
    if (const Zef::Ptr<IntfStatus> own = status->intfStatus(intf); own && actor->electedSelf()) {
      priority = own->keyServerPriority();
    }
    for (auto it = actor->livePeerIter(); it; ++it) {
      const BasicInfo& info = actor->livePeer(it.key())->baseInfo();
      if (info.sci == actor->keyServer()) priority = info.keyServerPriority;
    }
    report["key-server"] = {{"sci", sciText(actor->keyServer())}, {"key-server-priority", priority}};
  }
  report["live-peers"] = actor ? actor->livePeerSize() : 0;
  report["potential-peers"] = actor ? actor->potentialPeerSize() : 0;
  nlohmann::json& peers = report["peers"] = nlohmann::json::array();
  if (actor) {
    for (auto it = actor->livePeerIter(); it; ++it) peers.push_back(peerReport(*actor->livePeer(it.key()), "live"));
    for (auto it = actor->potentialPeerIter(); it; ++it) {
      peers.push_back(peerReport(*actor->potentialPeer(it.key()), "potential"));
    }
  }

  // The keys, by identity: the one transmitted on, those received on, and the one on its way in.
  const Zef::Ptr<CpStatus> cp = status->cpStatus(intf);
  const SakContext latest = cp ? cp->latestSakContext() : SakContext{};
  const SakContext old = cp ? cp->oldSakContext() : SakContext{};
  report["macsec-cipher-suite"] = cp ? nlohmann::json(cipherSuiteName(cp->macsecParams().cipherSuite)) : nullptr;
  // Octets in the clear before confidentiality starts, as the key server keys.
  // Integrity only has no offset.
  const bool confidential = !cp || cp->confidentialityOffset() != kNoConfidentiality;
  report["confidentiality"] = confidential;
  report["confidentiality-offset"] =
      confidential ? nlohmann::json(cp ? cp->confidentialityOffset() : 0) : nlohmann::json(nullptr);
  const std::optional<KeyIdentity> transmit = transmitKeyOf(cp);
  report["transmit-key"] = transmit ? keyReport(*transmit) : nullptr;
  if (transmit && history && history->transmitKey == transmit) {
    report["transmit-key"]["since"] = rfc3339(history->transmitSince);
  }
  // The next packet number of the key transmitted on, as the data plane last read it (0, which no
  // frame carries, when it reads none).
  for (const SakContext& slot : {old, latest}) {
    if (transmit && slot.txInstalled && slot.txSaValue != 0 && slot.sak.mi == transmit->mi &&
        slot.sak.keyNum == transmit->keyNum) {
      report["transmit-key"]["next-pn"] = slot.txSaValue;
    }
  }
  nlohmann::json& receive = report["receive-keys"] = nlohmann::json::array();
  for (const SakContext& context : {old, latest}) {
    if (context.rxEnabled && !context.sak.empty()) receive.push_back(keyReport(context.sak));
  }
  report["incoming-key"] = nullptr;
  if (actor && !actor->distSak().empty() &&
      !(transmit && actor->distSak().keyNum == transmit->keyNum && actor->distSak().mi == transmit->mi)) {
    report["incoming-key"] = keyReport(actor->distSak());
  }
  report["latest-key"] = keyReport(latest.sak);
  report["old-key"] = keyReport(old.sak);
  report["tx-sa"] = saState(latest.txEnabled || old.txEnabled, latest.txInstalled || old.txInstalled);
  report["rx-sa"] = saState(latest.rxEnabled || old.rxEnabled, latest.rxInstalled || old.rxInstalled);
  const std::string controlledPort = controlledPortState(cp);
  report["controlled-port"] = controlledPort;
  // A port that lost its last live peer keeps its keys for its profile's keys-without-peer, and
  // says so: it is not "secured" with anybody meanwhile.
  const double peerlessSince = port ? port->noLivePeerSince() : 0;
  const std::string peerless = peerlessSince > 0 ? rfc3339(utcOf(peerlessSince)) : std::string();
  report["no-live-peer-since"] = peerlessSince > 0 ? nlohmann::json(peerless) : nullptr;
  report["status"] = !present                     ? "waiting for the interface"
                     : !up                        ? "link down"
                     : !actor                     ? "no key"
                     : peerlessSince > 0          ? "no live peer since " + peerless + ", keys kept"
                     : actor->livePeerSize() == 0 ? "no peer"
                                                  : controlledPort;
  report["secured-since"] = nullptr;
  report["secured-seconds"] = nullptr;
  if (history && history->securedSince > 0) {
    report["secured-since"] = rfc3339(history->securedSince);
    report["secured-seconds"] = std::max(0.0, Zef::System::currentTimeUtc() - history->securedSince);
  }
  report["transmit-key-changes"] = history ? history->transmitKeyChanges : 0;
  // Worn keys this port's key server has replaced, its own or its peers', in this session.
  report["pn-exhaustions"] = actor ? actor->llpnExhaustion() : 0;
  report["last-change"] = nullptr;
  if (history && history->lastChange) {
    report["last-change"] = {{"at", rfc3339(history->lastChange->at)}, {"reason", history->lastChange->reason}};
  }
  // Frames say whether the session protects anything: the peers may report a key in use that
  // their data plane never took.
  if (history && history->noFrameDecrypts) {
    report["frames-warning"] = "the peer reports the key in use, but no frame from it decrypts";
  }
  report["frames-not-decrypting"] = history ? history->noFrameDecryptsCount : 0;
  if (kernel) report["kernel-counters"] = kernelCountersReport(*kernel);
  return report;
}

namespace {

// A count by a small number's name, for the numbers that have one: what IEEE 802.1X and RFC 3748
// call them.
template <class Count, class Name>
nlohmann::json countsByName(Count count, Name name, uint8_t last) {
  nlohmann::json report = nlohmann::json::object();
  for (unsigned number = 0; number <= last; ++number) {
    if (const uint64_t n = count(static_cast<uint8_t>(number))) report[name(static_cast<uint8_t>(number))] = n;
  }
  return report;
}

const char* eapCodeName(uint8_t code) {
  static constexpr const char* kNames[] = {"other", "request", "response", "success", "failure"};
  return code < std::size(kNames) ? kNames[code] : "other";
}

// Counts by reason, from an iterator over them.
template <class Iterator>
nlohmann::json byReason(Iterator it) {
  nlohmann::json report = nlohmann::json::object();
  for (; it; ++it) report[it.key().stdString()] = it.value();
  return report;
}

}  // namespace

nlohmann::json authenticationReport(const Dot1x::PaePortStatus& pae) {
  const auto when = [](double engineTime) {
    return engineTime > 0 ? nlohmann::json(rfc3339(utcOf(engineTime))) : nlohmann::json(nullptr);
  };
  // Passed through, the TLS of the exchange was the server's, and so was what it saw of the peer.
  const bool passedThrough = !pae.radiusServer().empty();
  const bool succeeded = pae.successes() > 0 && !passedThrough;
  nlohmann::json report{
      {"role", Dot1x::paeRoleText(pae.role())},
      {"state", Dot1x::paeStateText(pae.state())},
      {"reauthenticating", pae.reauthenticating()},
      {"method", "tls"},
      {"peer-identity",
       pae.peerIdentity().empty() ? nlohmann::json(nullptr) : nlohmann::json(pae.peerIdentity().stdString())},
      {"peer-subject", succeeded ? nlohmann::json(pae.peerSubject().stdString()) : nlohmann::json(nullptr)},
      {"tls-version", succeeded ? nlohmann::json(Dot1x::tlsVersionText(pae.tlsVersion())) : nlohmann::json(nullptr)},
      {"radius-server", passedThrough ? nlohmann::json(pae.radiusServer().stdString()) : nlohmann::json(nullptr)},
      {"authenticated-at", when(pae.authenticatedAt())},
      {"next-reauthentication", when(pae.nextReauthAt())},
      {"last-failure", pae.lastFailure().empty() ? nlohmann::json(nullptr)
                                                 : nlohmann::json{{"reason", pae.lastFailure().stdString()},
                                                                  {"at", rfc3339(utcOf(pae.lastFailureAt()))}}},
  };
  const auto eapolName = [](uint8_t type) {
    return std::string(Dot1x::eapolTypeText(static_cast<Dot1x::EapolType>(type)));
  };
  const auto last = static_cast<uint8_t>(Dot1x::kEapolTypes - 1);
  report["counters"] = {
      {"eapol-received", countsByName([&](uint8_t t) { return pae.eapolReceived(t); }, eapolName, last)},
      {"eapol-sent", countsByName([&](uint8_t t) { return pae.eapolSent(t); }, eapolName, last)},
      {"eap-received", countsByName([&](uint8_t c) { return pae.eapReceived(c); }, eapCodeName, 4)},
      {"eap-sent", countsByName([&](uint8_t c) { return pae.eapSent(c); }, eapCodeName, 4)},
      {"discarded", byReason(pae.discardedIter())},
      {"failures", byReason(pae.failuresIter())},
      {"successes", pae.successes()},
  };
  return report;
}

nlohmann::json radiusServersReport(const Dot1x::PaeStatusDir& paes,
                                   const std::map<std::string, RadiusServerConfig>& servers) {
  nlohmann::json report = nlohmann::json::array();
  for (const auto& [name, server] : servers) {
    const Zef::Ptr<Dot1x::RadiusServerStatus const> status = paes.radiusServer(Zef::String(name));
    nlohmann::json entry{{"name", name},
                         {"address", server.endpoint.text},
                         {"transport", Dot1x::radiusTransportText(server.settings.transport)},
                         {"up", !status || status->up()}};
    entry["round-trip-ms"] = status && status->roundTrip() > 0 ? nlohmann::json(std::lround(status->roundTrip() * 1000))
                                                               : nlohmann::json(nullptr);
    entry["counters"] = {
        {"requests", status ? status->requests() : 0},
        {"retransmissions", status ? status->retransmissions() : 0},
        {"accepts", status ? status->accepts() : 0},
        {"rejects", status ? status->rejects() : 0},
        {"challenges", status ? status->challenges() : 0},
        {"timeouts", status ? status->timeouts() : 0},
        {"discarded", status ? byReason(status->discardedIter()) : nlohmann::json::object()},
    };
    report.push_back(entry);
  }
  return report;
}

nlohmann::json countersReport(const Engine& engine, const Lanx::IntfId& intf, bool sinceCleared) {
  const Zef::Ptr<Memtab::MessageCounters>& counters = engine.counters();
  const Memtab::MessageCounterData live = counters->row(intf);
  const Memtab::MessageCounterData cleared =
      sinceCleared ? counters->msgCounterSnapshot(intf) : Memtab::MessageCounterData{};
  auto since = [](uint64_t now, uint64_t then) { return now >= then ? now - then : now; };
  return nlohmann::json{
      {"name", intf.stringValue()},
      {"in-mkpdu", since(live.inMkpdus, cleared.inMkpdus)},
      {"out-mkpdu", since(live.outMkpdus, cleared.outMkpdus)},
      {"out-mkpdu-errors", since(live.outErrors, cleared.outErrors)},
      {"in-mkpdu-validation-errors", since(live.inMalformed, cleared.inMalformed)},
      {"in-mkpdu-not-mka-errors", since(live.inNotMka, cleared.inNotMka)},
      {"in-mkpdu-version-errors", since(live.inBadVersion, cleared.inBadVersion)},
      {"in-mkpdu-agility-errors", since(live.inUnsupportedAgility, cleared.inUnsupportedAgility)},
      {"in-mkpdu-unknown-ckn-errors", since(live.inUnknownCkn, cleared.inUnknownCkn)},
      {"in-mkpdu-icv-verification-errors", since(live.inBadIcv, cleared.inBadIcv)},
      {"sak-decryption-errors", since(live.inBadKeyWrap, cleared.inBadKeyWrap)},
      {"in-mkpdu-bad-peer-errors", since(live.inReplayed, cleared.inReplayed)},
      {"in-mkpdu-not-key-server-errors", since(live.inNotKeyServer, cleared.inNotKeyServer)},
      {"sak-offset-errors", since(live.inOffsetRefused, cleared.inOffsetRefused)},
      {"eap-key-errors", since(live.eapKeysRefused, cleared.eapKeysRefused)},
  };
}

}  // namespace Macsec
