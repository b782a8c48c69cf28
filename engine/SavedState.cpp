#include "engine/SavedState.h"

#include <sstream>

#include "model/Crypto.h"
#include "model/ProfileParams.h"
#include "platform/Clock.h"

namespace Macsec {

namespace {

using nlohmann::json;

// What moves with every MKPDU, and is left out of the comparison of two states: numbers, packet
// numbers, and the peer last heard on a shared segment.
const char* const kMovingKeys[] = {"mn", "lowest-pn", "tx-sa-value", "lowest-pns", "rx-lpns", "peer-ssci"};

std::string text(const Zef::String& value) { return std::string(value.view()); }

json sciJson(const Sci& sci) { return {{"address", sci.addr.stringValue()}, {"port", sci.portId}}; }

Sci sciOf(const json& j) {
  Sci sci;
  if (!Lanx::EthAddr::parse(j.at("address").get<std::string>(), sci.addr)) throw std::invalid_argument("address");
  sci.portId = j.at("port").get<uint16_t>();
  return sci;
}

MemberId memberIdOf(const json& j) {
  const std::string hex = j.get<std::string>();
  const MemberId mi = MemberId::fromHex(hex);
  if (mi.empty() && !hex.empty()) throw std::invalid_argument("member identifier");
  return mi;
}

// A key by its identifier, without its octets.
json sakJson(const Sak& sak) {
  if (sak.empty()) return nullptr;
  return {{"an", sak.an}, {"mi", text(sak.mi.hex())}, {"kn", sak.keyNum}, {"salt", text(sak.salt.hex())}};
}

Sak sakOf(const json& j) {
  Sak sak;
  if (j.is_null()) return sak;
  sak.an = AssociationNumber(j.at("an").get<unsigned>());
  sak.mi = memberIdOf(j.at("mi"));
  sak.keyNum = j.at("kn").get<uint32_t>();
  sak.salt = Salt::fromHex(j.at("salt").get<std::string>());
  return sak;
}

json keyInfoJson(const KeyInfo& key) {
  return {{"an", key.an},     {"tx", key.tx},        {"rx", key.rx}, {"mi", text(key.mi.hex())},
          {"kn", key.keyNum}, {"lowest-pn", key.lpn}};
}

KeyInfo keyInfoOf(const json& j) {
  KeyInfo key;
  key.an = AssociationNumber(j.at("an").get<unsigned>());
  key.tx = j.at("tx").get<bool>();
  key.rx = j.at("rx").get<bool>();
  key.mi = memberIdOf(j.at("mi"));
  key.keyNum = j.at("kn").get<uint32_t>();
  key.lpn = j.at("lowest-pn").get<uint64_t>();
  return key;
}

json sakUseJson(const SakUseInfo& use) {
  return {{"latest", keyInfoJson(use.latestKey)},
          {"old", keyInfoJson(use.oldKey)},
          {"plain-tx", use.plainTx},
          {"plain-rx", use.plainRx},
          {"delay-protect", use.delayProtect}};
}

SakUseInfo sakUseOf(const json& j) {
  return SakUseInfo{keyInfoOf(j.at("latest")), keyInfoOf(j.at("old")), j.at("plain-tx").get<bool>(),
                    j.at("plain-rx").get<bool>(), j.at("delay-protect").get<bool>()};
}

// A live peer as its last MKPDU described it.
json peerJson(const MkaPeer& peer) {
  const BasicInfo& base = peer.baseInfo();
  return {{"mi", text(peer.id().hex())},
          {"mn", base.msgNum},
          {"sci", sciJson(base.sci)},
          {"priority", base.keyServerPriority},
          {"key-server", base.keyServer},
          {"macsec-desired", base.macsecDesired},
          {"capability", base.macsecCapability},
          {"sak-use", sakUseJson(peer.sakUseInfo())}};
}

json slotJson(const SakContext& slot) {
  return {{"sak", sakJson(slot.sak)},     {"tx-sa-value", slot.txSaValue},    {"tx-enabled", slot.txEnabled},
          {"rx-enabled", slot.rxEnabled}, {"tx-installed", slot.txInstalled}, {"rx-installed", slot.rxInstalled}};
}

SakContext slotOf(const json& j) {
  return SakContext{sakOf(j.at("sak")),
                    j.at("tx-sa-value").get<uint64_t>(),
                    j.at("tx-enabled").get<bool>(),
                    j.at("rx-enabled").get<bool>(),
                    j.at("tx-installed").get<bool>(),
                    j.at("rx-installed").get<bool>()};
}

json ssciJson(const Ssci& ssci) { return {{"sci", sciJson(ssci.sci)}, {"ssci", ssci.ssci}}; }

Ssci ssciOf(const json& j) { return Ssci{sciOf(j.at("sci")), j.at("ssci").get<uint32_t>()}; }

std::string paramsText(const MacsecParams& params) {
  std::ostringstream out;
  out << params;
  return out.str();
}

// The saved entry of the actor of a member identifier in an interface's state, read in place (the
// state is read before every MKPDU); none if it has none.
const json* savedActor(const json& saved, const MemberId& mi) {
  if (!saved.is_object()) return nullptr;
  const auto actors = saved.find("actors");
  if (actors == saved.end() || !actors->is_array()) return nullptr;
  const std::string id = text(mi.hex());
  for (const json& entry : *actors) {
    const auto entryMi = entry.find("mi");
    if (entryMi != entry.end() && entryMi->is_string() && entryMi->get_ref<const std::string&>() == id) return &entry;
  }
  return nullptr;
}

uint32_t savedNumber(const json& entry, const char* name) {
  const auto number = entry.find(name);
  return number != entry.end() && number->is_number_unsigned() ? number->get<uint32_t>() : 0;
}

// The message number an actor's state reserves: the bound saved before, while the actor has not
// reached it.
uint32_t reservedMessageNumber(const MkaActorStatus& actor, const json& previous) {
  if (const json* saved = savedActor(previous, actor.msgId())) {
    const uint32_t bound = savedNumber(*saved, "mn");
    if (actor.msgNum() < bound) return bound;
  }
  const uint64_t bound = uint64_t{actor.msgNum()} + kMessageNumbersReserved;
  return static_cast<uint32_t>(std::min<uint64_t>(bound, UINT32_MAX));
}

json actorJson(const MkaActorStatus& actor, const Cak& key, const json& previous) {
  json peers = json::array();
  for (auto it = actor.livePeerIter(); it; ++it) peers.push_back(peerJson(*it.ptr()));
  return {{"ckn", text(actor.ckn().hex())},
          {"key-check", keyCheckOf(key)},
          {"mi", text(actor.msgId().hex())},
          {"mn", reservedMessageNumber(actor, previous)},
          {"kn", actor.keyNum()},
          {"live-peers", peers},
          {"principal", actor.principal()},
          {"elected-self", actor.electedSelf()},
          {"changed-server", actor.chgdServer()},
          {"key-server", sciJson(actor.keyServer())},
          {"dist-sak", sakJson(actor.distSak())},
          {"dist-offset", actor.distOffset()},
          {"new-sak", actor.newSak()},
          {"sak-transmit", actor.sakTransmit()},
          {"macsec-desired", actor.macsecDesired()},
          {"success", actor.success()},
          {"default-actor", actor.defaultActor()},
          {"lowest-pns", {actor.keysLPN().oldLpn, actor.keysLPN().latestLpn}}};
}

json controlledPortJson(const CpStatus& cp) {
  json rxSaks = json::array();
  for (auto it = cp.rxSakIter(); it; ++it) rxSaks.push_back(sakJson(it.value()));
  json rxLpns = json::array();
  for (auto it = cp.rxLPNIter(); it; ++it) rxLpns.push_back({it.value().an.value(), it.value().lpn});
  return {{"protect-frames", cp.protectFrames()},
          {"validate-frames", static_cast<int>(cp.validateFrames())},
          {"offset", cp.confidentialityOffset()},
          {"enabled", cp.controlledPortEnabled()},
          {"unprotected", cp.unprotectedTraffic()},
          {"valid", cp.portValid()},
          {"old", slotJson(cp.oldSakContext())},
          {"latest", slotJson(cp.latestSakContext())},
          {"my-ssci", ssciJson(cp.mySsci())},
          {"peer-ssci", ssciJson(cp.peerSsci())},
          {"rx-saks", rxSaks},
          {"tx-sak", sakJson(cp.txSak())},
          {"rx-lpns", rxLpns},
          {"post", static_cast<int>(cp.postStatus())}};
}

// The configured key an actor of `ckn` runs with on the interface: its primary or fallback key.
template <class Keys>
const Cak* configuredKey(const Keys& keys, const Ckn& ckn) {
  if (!keys.key().empty() && keys.key().ckn == ckn) return &keys.key();
  if (!keys.defaultKey().empty() && keys.defaultKey().ckn == ckn) return &keys.defaultKey();
  return nullptr;
}

// The profile that the configuration, as it stands now, gives the interface.
Zef::Ptr<Profile const> profileOf(const Config& config, const Lanx::IntfId& intf) {
  for (auto it = config.profileIter(); it; ++it) {
    if (it->intf(intf)) return it.ptr();
  }
  return nullptr;
}

void eraseMoving(json& j) {
  if (j.is_object()) {
    for (const char* key : kMovingKeys) j.erase(key);
    for (auto& [key, value] : j.items()) eraseMoving(value);
  } else if (j.is_array()) {
    for (json& value : j) eraseMoving(value);
  }
}

// What an actor's saved state asks of its configured key before it is put back: the same name and
// secret.
std::optional<std::string> keyChanged(const Profile& profile, const json& actor) {
  const Ckn ckn = Ckn::fromHex(actor.at("ckn").get<std::string>());
  const Cak* key = configuredKey(profile, ckn);
  if (!key) return "the key " + actor.at("ckn").get<std::string>() + " is no longer configured";
  if (keyCheckOf(*key) != actor.at("key-check").get<std::string>()) {
    return "the key " + actor.at("ckn").get<std::string>() + " changed";
  }
  return std::nullopt;
}

// An actor's saved state, read whole before anything is written.
struct SavedActor {
  Ckn ckn;
  MemberId mi;
  uint32_t mn = 0;
  uint32_t kn = 0;
  std::vector<std::pair<BasicInfo, SakUseInfo>> livePeers;
  bool principal = false;
  bool electedSelf = false;
  bool changedServer = false;
  Sci keyServer;
  Sak distSak;
  uint8_t distOffset = 0;
  bool newSak = false;
  bool sakTransmit = false;
  bool macsecDesired = false;
  bool success = false;
  bool defaultActor = false;
  KeysLPN lowestPns;
};

SavedActor actorOf(const json& j) {
  SavedActor actor;
  actor.ckn = Ckn::fromHex(j.at("ckn").get<std::string>());
  actor.mi = memberIdOf(j.at("mi"));
  if (actor.ckn.empty() || actor.mi.empty()) throw std::invalid_argument("actor");
  actor.mn = j.at("mn").get<uint32_t>();
  actor.kn = j.at("kn").get<uint32_t>();
  for (const json& peer : j.at("live-peers")) {
    BasicInfo base;
    base.msgId = memberIdOf(peer.at("mi"));
    base.msgNum = peer.at("mn").get<uint32_t>();
    base.sci = sciOf(peer.at("sci"));
    base.keyServerPriority = peer.at("priority").get<uint8_t>();
    base.keyServer = peer.at("key-server").get<bool>();
    base.macsecDesired = peer.at("macsec-desired").get<bool>();
    base.macsecCapability = peer.at("capability").get<uint8_t>();
    base.ckn = actor.ckn;
    actor.livePeers.emplace_back(base, sakUseOf(peer.at("sak-use")));
  }
  actor.principal = j.at("principal").get<bool>();
  actor.electedSelf = j.at("elected-self").get<bool>();
  actor.changedServer = j.at("changed-server").get<bool>();
  actor.keyServer = sciOf(j.at("key-server"));
  actor.distSak = sakOf(j.at("dist-sak"));
  actor.distOffset = j.at("dist-offset").get<uint8_t>();
  actor.newSak = j.at("new-sak").get<bool>();
  actor.sakTransmit = j.at("sak-transmit").get<bool>();
  actor.macsecDesired = j.at("macsec-desired").get<bool>();
  actor.success = j.at("success").get<bool>();
  actor.defaultActor = j.at("default-actor").get<bool>();
  const json& lpns = j.at("lowest-pns");
  actor.lowestPns = KeysLPN{lpns.at(0).get<uint64_t>(), lpns.at(1).get<uint64_t>()};
  return actor;
}

// Its live peers get one life time from `now` to hear the member again.
void writeActor(MkaPortStatus& port, const SavedActor& saved, double now) {
  const Zef::Ptr<MkaActorStatus> actor = port.actorStatusIs(saved.ckn);
  actor->msgIdIs(saved.mi);
  actor->msgNumIs(saved.mn);
  actor->keyNumIs(saved.kn);
  for (const auto& [base, use] : saved.livePeers) {
    const Zef::Ptr<MkaPeer> record = actor->livePeerIs(base.msgId);
    record->baseInfoIs(base);
    record->sakUseInfoIs(use);
    record->timeStampIs(now);
    record->resumedIs(true);
  }
  actor->principalIs(saved.principal);
  actor->electedSelfIs(saved.electedSelf);
  actor->chgdServerIs(saved.changedServer);
  actor->keyServerIs(saved.keyServer);
  actor->distOffsetIs(saved.distOffset);
  actor->distSakIs(saved.distSak);
  actor->newSakIs(saved.newSak);
  actor->sakTransmitIs(saved.sakTransmit);
  actor->macsecDesiredIs(saved.macsecDesired);
  actor->successIs(saved.success);
  actor->defaultActorIs(saved.defaultActor);
  actor->keysLPNIs(saved.lowestPns);
}

// A controlled port's saved state, read whole before anything is written.
struct SavedControlledPort {
  bool protectFrames = true;
  ValidateFrames validateFrames = validateFramesStrict;
  uint8_t offset = 0;
  bool enabled = false;
  bool unprotected = false;
  bool valid = false;
  SakContext old;
  SakContext latest;
  Ssci mySsci;
  Ssci peerSsci;
  std::vector<Sak> rxSaks;
  Sak txSak;
  std::vector<RxLPN> rxLpns;
  POSTStage post = postNotStarted;
};

SavedControlledPort controlledPortOf(const json& j) {
  SavedControlledPort cp;
  cp.protectFrames = j.at("protect-frames").get<bool>();
  cp.validateFrames = static_cast<ValidateFrames>(j.at("validate-frames").get<uint8_t>());
  cp.offset = j.at("offset").get<uint8_t>();
  cp.enabled = j.at("enabled").get<bool>();
  cp.unprotected = j.at("unprotected").get<bool>();
  cp.valid = j.at("valid").get<bool>();
  cp.old = slotOf(j.at("old"));
  cp.latest = slotOf(j.at("latest"));
  cp.mySsci = ssciOf(j.at("my-ssci"));
  cp.peerSsci = ssciOf(j.at("peer-ssci"));
  for (const json& sak : j.at("rx-saks")) cp.rxSaks.push_back(sakOf(sak));
  cp.txSak = sakOf(j.at("tx-sak"));
  for (const json& lpn : j.at("rx-lpns")) {
    cp.rxLpns.push_back(RxLPN{lpn.at(1).get<uint64_t>(), AssociationNumber(lpn.at(0).get<unsigned>())});
  }
  cp.post = static_cast<POSTStage>(j.at("post").get<uint32_t>());
  return cp;
}

void writeControlledPort(CpStatus& cp, const SavedControlledPort& saved) {
  cp.protectFramesIs(saved.protectFrames);
  cp.validateFramesIs(saved.validateFrames);
  cp.confidentialityOffsetIs(saved.offset);
  cp.unprotectedTrafficIs(saved.unprotected);
  cp.portValidIs(saved.valid);
  cp.oldSakContextIs(saved.old);
  cp.latestSakContextIs(saved.latest);
  cp.mySsciIs(saved.mySsci);
  cp.peerSsciIs(saved.peerSsci);
  for (const Sak& sak : saved.rxSaks) cp.rxSakIs(sak);
  cp.txSakIs(saved.txSak);
  for (const RxLPN& lpn : saved.rxLpns) cp.rxLPNIs(lpn);
  cp.postStatusIs(saved.post);
  cp.controlledPortEnabledIs(saved.enabled);
}

}  // namespace

std::string keyCheckOf(const Cak& key) {
  const KeyBytes name(key.ckn.data(), key.ckn.size());
  const KeyBytes check =
      key.cak.withClear([&](const KeyBytes& cak) { return kdf(cak, "Saved state key check", name, 32); });
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (size_t i = 0; i < check.size(); ++i) {
    hex += digits[check.data()[i] >> 4];
    hex += digits[check.data()[i] & 0xf];
  }
  return hex;
}

json savedInterface(const Status& status, const Lanx::IntfId& intf, const json& previous) {
  const Zef::Ptr<IntfStatus const> intfStatus = status.intfStatus(intf);
  const Zef::Ptr<MkaPortStatus const> port = status.portStatus(intf);
  const Zef::Ptr<CpStatus const> cp = status.cpStatus(intf);
  if (!intfStatus || !port || !cp) return nullptr;
  json actors = json::array();
  for (auto it = port->actorStatusIter(); it; ++it) {
    const MkaActorStatus& actor = *it.ptr();
    const Cak* key = configuredKey(*intfStatus, actor.ckn());
    if (!key || actor.msgId().empty()) continue;
    actors.push_back(actorJson(actor, *key, previous));
  }
  return {{"params", paramsText(cp->macsecParams())},
          {"sci", sciJson(port->mySci())},
          {"an-of-next-key", port->anOfNextKey().value()},
          {"no-live-peer-since", port->noLivePeerSince()},
          {"actors", actors},
          {"controlled-port", controlledPortJson(*cp)}};
}

bool numbersBeyond(const Status& status, const Lanx::IntfId& intf, const json& saved, uint32_t margin) {
  const Zef::Ptr<IntfStatus const> intfStatus = status.intfStatus(intf);
  const Zef::Ptr<MkaPortStatus const> port = status.portStatus(intf);
  if (!intfStatus || !port) return false;
  // Only the actors the state keeps: one of a key no longer configured ends with the process.
  for (auto it = port->actorStatusIter(); it; ++it) {
    const MkaActorStatus& actor = *it.ptr();
    if (actor.msgId().empty() || !configuredKey(*intfStatus, actor.ckn())) continue;
    const json* entry = savedActor(saved, actor.msgId());
    if (!entry || uint64_t{actor.msgNum()} + margin >= savedNumber(*entry, "mn") ||
        actor.keyNum() > savedNumber(*entry, "kn")) {
      return true;
    }
  }
  return false;
}

std::string savedText(const json& interface) { return interface.dump(); }

// Joined as text, an interface a line: a switch with hundreds of interfaces writes its state again
// each time one of them changes, and only that one is written out anew.
std::string savedDocument(const std::map<Lanx::IntfId, std::string>& interfaceTexts) {
  std::string document = "{\"version\": " + std::to_string(kSavedStateVersion) + ", \"interfaces\": {";
  const char* separator = "\n";
  for (const auto& [intf, text] : interfaceTexts) {
    document += separator + json(intf.stringValue()).dump() + ": " + text;
    separator = ",\n";
  }
  return document + "\n}}\n";
}

std::optional<std::map<Lanx::IntfId, json>> interfacesOf(const std::string& document, std::string& why) {
  const json parsed = json::parse(document, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    why = "it is not a saved state";
    return std::nullopt;
  }
  if (parsed.value("version", json()) != kSavedStateVersion) {
    why = "it is of another version (" + parsed.value("version", json()).dump() + ", this engine reads " +
          std::to_string(kSavedStateVersion) + ")";
    return std::nullopt;
  }
  const json interfaces = parsed.value("interfaces", json());
  if (!interfaces.is_object()) {
    why = "it names no interfaces";
    return std::nullopt;
  }
  std::map<Lanx::IntfId, json> result;
  for (const auto& [name, saved] : interfaces.items()) result[Lanx::IntfId(name)] = saved;
  return result;
}

json settledPart(const json& saved) {
  json settled = saved;
  eraseMoving(settled);
  return settled;
}

std::optional<std::string> resumeInterface(Engine& engine, const Lanx::IntfId& intf, const json& saved) {
  // The configuration is read as it stands now, which the interface's status may not show yet.
  const Zef::Ptr<Status>& status = engine.status();
  const Zef::Ptr<Profile const> profile = profileOf(*engine.mergedConfig(), intf);
  if (!profile) return "it is no longer configured";
  const MacsecParams params = paramsOf(*profile);
  if (status->portStatusHas(intf) || status->cpStatusHas(intf)) return "MKA runs on it already";
  Sci sci;
  AssociationNumber next;
  double noLivePeerSince = 0;
  std::vector<SavedActor> actors;
  SavedControlledPort cp;
  try {
    if (saved.at("params").get<std::string>() != paramsText(params)) return "the parameters of its profile changed";
    for (const json& actor : saved.at("actors")) {
      if (const std::optional<std::string> changed = keyChanged(*profile, actor)) return changed;
      actors.push_back(actorOf(actor));
      // The data plane may hold a key made after the state was last written: the next key number
      // goes beyond it too.
      SavedActor& resumed = actors.back();
      if (const Zef::Ptr<MacSecIntfStatus const> hw = engine.hwStatus()->status(intf)) {
        auto beyond = [&](const SaStatus& sa) {
          if (!sa.empty() && sa.mi == resumed.mi) resumed.kn = std::max(resumed.kn, sa.keyNum);
        };
        beyond(hw->txSaStatus());
        for (auto it = hw->rxSaStatusIter(); it; ++it) beyond(it.value());
      }
    }
    sci = sciOf(saved.at("sci"));
    next = AssociationNumber(saved.at("an-of-next-key").get<unsigned>());
    noLivePeerSince = saved.at("no-live-peer-since").get<double>();
    cp = controlledPortOf(saved.at("controlled-port"));
  } catch (const std::exception& error) {
    return std::string("its saved state is unreadable (") + error.what() + ")";
  }
  engine.as([&] {
    const double now = Zef::System::currentTime();
    const Zef::Ptr<MkaPortStatus> port = status->portStatusIs(intf);
    port->mySciIs(sci);
    port->anOfNextKeyIs(next);
    port->noLivePeerSinceIs(noLivePeerSince);
    for (const SavedActor& actor : actors) writeActor(*port, actor, now);
    writeControlledPort(*status->cpStatusIs(intf, params), cp);
  });
  return std::nullopt;
}

}  // namespace Macsec
