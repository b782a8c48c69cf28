#include "agent/StatusReport.h"

#include <ctime>
#include <sstream>

#include "platform/Clock.h"

namespace Macsec {

namespace {

template <class Value>
std::string text(const Value& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

// The actor whose key the port uses: the principal one, else the first there is.
Zef::Ptr<MkaActorStatus> principalActor(const Zef::Ptr<MkaPortStatus>& port) {
  if (!port) return nullptr;
  Zef::Ptr<MkaActorStatus> first;
  for (auto it = port->actorStatusIter(); it; ++it) {
    const Zef::Ptr<MkaActorStatus> actor = port->actorStatus(it.key());
    if (actor->principal()) return actor;
    if (!first) first = actor;
  }
  return first;
}

// A key by its identity only: the key server's member identifier, the key number and the
// association number.
nlohmann::json keyReport(const Sak& sak) {
  if (sak.empty()) return nullptr;
  return nlohmann::json{{"key-number", sak.keyNum}, {"an", sak.an}, {"key-server-mi", sak.mi.hex().stdString()}};
}

const char* saState(bool enabled, bool installed) {
  if (enabled) return "in use";
  return installed ? "installed" : "none";
}

// A moment of the engine's clock as the wall clock's UTC, to the second: "2026-11-26T03:10:05Z".
std::string utcText(double engineTime) {
  const double utc = Zef::System::currentTimeUtc() - (Zef::System::currentTime() - engineTime);
  const std::time_t seconds = static_cast<std::time_t>(utc);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

const char* controlledPort(const Zef::Ptr<CpStatus>& cp) {
  if (!cp || !cp->controlledPortEnabled()) return "closed";
  return cp->unprotectedTraffic() ? "open, unprotected" : "secured";
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
    } else {
      field = S::of(profile);
    }
  });
  return report;
}

}  // namespace

nlohmann::json dataPlaneReport(DataPlane plane) {
  nlohmann::json report{{"data-plane", dataPlaneName(plane)}, {"encrypted", plane == DataPlane::kernel}};
  if (plane == DataPlane::emulated) report["warning"] = "the emulated data plane encrypts nothing";
  return report;
}

nlohmann::json interfaceReport(const Engine& engine, const Lanx::IntfId& intf, bool present, DataPlane plane) {
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

  const Zef::Ptr<MkaActorStatus> actor = principalActor(status->portStatus(intf));
  report["ckn"] = actor ? nlohmann::json(actor->ckn().hex().stdString()) : nlohmann::json(nullptr);
  report["key-server"] = actor && !actor->keyServer().isZero() ? nlohmann::json(text(actor->keyServer())) : nullptr;
  report["is-key-server"] = actor && actor->electedSelf();
  report["live-peers"] = actor ? actor->livePeerSize() : 0;
  report["potential-peers"] = actor ? actor->potentialPeerSize() : 0;

  const Zef::Ptr<CpStatus> cp = status->cpStatus(intf);
  const SakContext latest = cp ? cp->latestSakContext() : SakContext{};
  const SakContext old = cp ? cp->oldSakContext() : SakContext{};
  report["latest-key"] = keyReport(latest.sak);
  report["old-key"] = keyReport(old.sak);
  report["tx-sa"] = saState(latest.txEnabled || old.txEnabled, latest.txInstalled || old.txInstalled);
  report["rx-sa"] = saState(latest.rxEnabled || old.rxEnabled, latest.rxInstalled || old.rxInstalled);
  report["controlled-port"] = controlledPort(cp);
  // Octets in the clear before confidentiality starts, as the key server keys.
  report["confidentiality-offset"] = cp ? cp->confidentialityOffset() : 0;
  // A port that lost its last live peer keeps its keys for its profile's keys-without-peer, and
  // says so: it is not "secured" with anybody meanwhile.
  const Zef::Ptr<MkaPortStatus> port = status->portStatus(intf);
  const double peerlessSince = port ? port->noLivePeerSince() : 0;
  report["no-live-peer-since"] = peerlessSince > 0 ? nlohmann::json(utcText(peerlessSince)) : nullptr;
  report["status"] = !present                     ? "waiting for the interface"
                     : !up                        ? "link down"
                     : !actor                     ? "no key"
                     : peerlessSince > 0          ? "no live peer since " + utcText(peerlessSince) + ", keys kept"
                     : actor->livePeerSize() == 0 ? "no peer"
                                                  : controlledPort(cp);
  return report;
}

nlohmann::json countersReport(const Engine& engine, const Lanx::IntfId& intf) {
  const Zef::Ptr<Memtab::MessageCounters>& counters = engine.counters();
  const Memtab::MessageCounterData live = counters->row(intf);
  const Memtab::MessageCounterData cleared = counters->msgCounterSnapshot(intf);
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
