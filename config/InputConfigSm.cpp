#include "config/InputConfigSm.h"

#include "platform/Fatal.h"
#include "platform/HashTable.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::InputConfigSm")

namespace Macsec {

namespace {

// Only the operators' own source sets the switch-wide settings, whatever the priorities.
const Zef::Name kCli("cli");

// The source of the highest priority among those that offer an entry (a ProfileSource or an
// IntfConfigSource). Among equal priorities the first one met wins; priority 0 never does.
template <class Sources>
Zef::Name highestSource(const Zef::Ptr<Sources const>& sources) {
  Zef::Name best;
  if (!sources) return best;
  uint32_t highest = 0;
  for (auto it = sources->sourcePriorityIter(); it; ++it) {
    if (highest < it.value()) {
      highest = it.value();
      best = Zef::Name(it.key());
      TRACE(8, " highestPriorityConfigSrc is " << best << " with priority " << highest);
    }
  }
  return best;
}

}  // namespace

void InputConfigSm::handleInitialized() {
  TRACE(0, " InputConfigSm " << name());
  ZEF_ASSERT(!initialized());
  initializedIs(true);
  handleShutdown();
  handleFipsRestrictions();
  handleDelayProtection();
  handleClearMkaCounters();
  // The reactors of the profiles and interfaces stand already; what they offer is merged now.
  for (const Zef::Name& profileName : Zef::keysOf<Zef::Name>(inputConfig()->profileIter())) handleProfile(profileName);
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(inputConfig()->intfConfigIter())) {
    handleIntfConfig(intfId);
  }
}

Zef::Ptr<Config const> InputConfigSm::sourceConfig(const Zef::Name& source) const {
  // An entity of the directory that is no Config is no source.
  return Zef::ptrCast<Config const>(inputDir()->entry(source));
}

Zef::Name InputConfigSm::highestPriorityConfigForProfile(const Zef::Name& profileName) const {
  TRACE(8, "");
  return highestSource(Zef::Ptr<ProfileSource const>(sourceSet()->profileSource(profileName)));
}

Zef::Name InputConfigSm::highestPriorityConfigForIntf(const Lanx::IntfId& intfId) const {
  TRACE(8, "");
  return highestSource(Zef::Ptr<IntfConfigSource const>(sourceSet()->intfConfigSource(intfId)));
}

// The switch-wide settings: each copied from the "cli" source alone.
void InputConfigSm::handleShutdown() {
  if (name() == kCli) mergedConfig()->shutdownIs(inputConfig()->shutdown());
}

void InputConfigSm::handleFipsRestrictions() {
  if (name() == kCli) mergedConfig()->fipsRestrictionsIs(inputConfig()->fipsRestrictions());
}

void InputConfigSm::handleDelayProtection() {
  if (name() == kCli) mergedConfig()->delayProtectionIs(inputConfig()->delayProtection());
}

void InputConfigSm::handleClearMkaCounters() {
  if (name() == kCli) mergedConfig()->clearMkaCountersIs(inputConfig()->clearMkaCounters());
}

void InputConfigSm::handleProfile(const Zef::Name& profileName) {
  TRACE(8, " " << profileName);
  const Zef::Ptr<Config>& merged = mergedConfig();
  if (inputConfig()->profileHas(profileName)) {
    sourceSet()->profileSourceIs(profileName)->sourcePriorityIs(name(), inputConfig()->configPriority());
    // Taking over, or taking part anew as the winner: the merged profile is built again whole.
    if (merged->profileHas(profileName) && highestPriorityConfigForProfile(profileName) == name()) {
      merged->profileDel(profileName);
    }
    // Otherwise another source supplies it, and nothing changes downstream.
    if (merged->profileHas(profileName)) return;
    merged->profileIs(profileName);
    copyProfileAttrs(name(), profileName);
    handleIntfs(profileName);
    return;
  }
  // The profile left this source. If it was the winner, the next source in line rebuilds it.
  const Zef::Ptr<ProfileSource> sources = sourceSet()->profileSource(profileName);
  if (!sources) return;
  if (highestPriorityConfigForProfile(profileName) != name()) {
    sources->sourcePriorityDel(name());
    return;
  }
  merged->profileDel(profileName);
  sources->sourcePriorityDel(name());
  const Zef::Name next = highestPriorityConfigForProfile(profileName);
  if (next.empty()) return;
  merged->profileIs(profileName);
  copyProfileAttrs(next, profileName);
  handleIntfs(profileName);
}

void InputConfigSm::copyProfileAttrs(const Zef::Name& source, const Zef::Name& profileName) {
  TRACE(8, "");
  const Zef::Ptr<Profile> to = mergedConfig()->profile(profileName);
  const Zef::Ptr<Config const> config = sourceConfig(source);
  const Zef::Ptr<Profile const> from = config ? config->profile(profileName) : nullptr;
  if (!to || !from) return;
  // The interfaces of a merged profile come from the merged interfaces, and the static SAKs of a
  // source never reach the merged Config.
  to->keyIs(from->key());
  to->defaultKeyIs(from->defaultKey());
  to->groupCakIs(from->groupCak());
  ProfileSettings::forEach([&]<class S>(S) { S::set(*to, S::of(*from)); });
}

namespace {

// A change of one attribute reaches the merged profile only from the profile's winner; any other
// source's change waits in that source until it wins.
template <class Copy>
void mergeAttr(const InputConfigSm::ZefInputConfig::ZefProfile& reactor, Copy copy) {
  InputConfigSm* sm = reactor.stateMachine();
  if (sm == nullptr || sm->highestPriorityConfigForProfile(reactor.key()) != sm->name()) return;
  if (const Zef::Ptr<Profile> merged = sm->mergedConfig()->profile(reactor.key())) copy(*merged, *reactor.notifier());
}

}  // namespace

#define COPY(attr) [](Profile& to, const Profile& from) { to.attr##Is(from.attr()); }
void InputConfigSm::ZefInputConfig::ZefProfile::handleKey() {
  TRACE(8, " for profile " << key());
  mergeAttr(*this, COPY(key));
}
void InputConfigSm::ZefInputConfig::ZefProfile::handleDefaultKey() {
  TRACE(8, " for profile " << key());
  mergeAttr(*this, COPY(defaultKey));
}
void InputConfigSm::ZefInputConfig::ZefProfile::handleSetting() {
  TRACE(8, " for profile " << key());
  // Settings that did not change are written again with their own value, which changes nothing.
  mergeAttr(*this, [](Profile& to, const Profile& from) {
    ProfileSettings::forEach([&]<class S>(S) { S::set(to, S::of(from)); });
  });
}
void InputConfigSm::ZefInputConfig::ZefProfile::handleGroupCak() {
  TRACE(8, " for profile " << key());
  mergeAttr(*this, COPY(groupCak));
}
#undef COPY

void InputConfigSm::handleIntfs(const Zef::Name& profileName) {
  TRACE(8, "");
  // A rebuilt merged profile regains the merged interfaces that name it.
  const Zef::Ptr<Config>& merged = mergedConfig();
  const Zef::Ptr<Profile> profile = merged->profile(profileName);
  if (!profile) return;
  for (auto it = merged->intfConfigIter(); it; ++it) {
    if (Zef::Name(it->profileName()) == profileName) profile->intfIs(Lanx::IntfId(it.key()), true);
  }
}

namespace {

// Files the interface under the merged profile of that name, if there is one.
void intfJoins(Config& merged, const Zef::String& profileName, const Lanx::IntfId& intfId) {
  if (const Zef::Ptr<Profile> profile = merged.profile(Zef::Name(profileName))) profile->intfIs(intfId, true);
}

void intfLeaves(Config& merged, const Zef::String& profileName, const Lanx::IntfId& intfId) {
  if (const Zef::Ptr<Profile> profile = merged.profile(Zef::Name(profileName))) profile->intfDel(intfId);
}

}  // namespace

void InputConfigSm::handleIntfConfig(const Lanx::IntfId& intfId) {
  TRACE(8, " " << intfId);
  Config& merged = *mergedConfig();
  if (const Zef::Ptr<IntfConfig const> input = inputConfig()->intfConfig(intfId)) {
    // The source looks at the merged entry before it registers: one of higher priority that comes
    // when the interface is configured already takes it over only with its next change of profile,
    // or when the present winner leaves.
    if (merged.intfConfigHas(intfId)) {
      handleProfileName(intfId);
    } else {
      merged.intfConfigIs(intfId)->profileNameIs(input->profileName());
      intfJoins(merged, input->profileName(), intfId);
    }
    sourceSet()->intfConfigSourceIs(intfId)->sourcePriorityIs(name(), inputConfig()->configPriority());
    return;
  }
  // The interface left this source. If it was the winner, the next source in line takes over.
  const Zef::Ptr<IntfConfigSource> sources = sourceSet()->intfConfigSource(intfId);
  if (!sources) return;
  if (highestPriorityConfigForIntf(intfId) != name()) {
    sources->sourcePriorityDel(name());
    return;
  }
  if (const Zef::Ptr<IntfConfig const> old = merged.intfConfig(intfId)) intfLeaves(merged, old->profileName(), intfId);
  merged.intfConfigDel(intfId);
  sources->sourcePriorityDel(name());
  const Zef::Name next = highestPriorityConfigForIntf(intfId);
  const Zef::Ptr<Config const> nextConfig = next.empty() ? nullptr : sourceConfig(next);
  const Zef::Ptr<IntfConfig const> nextIntf = nextConfig ? nextConfig->intfConfig(intfId) : nullptr;
  if (!nextIntf) return;
  merged.intfConfigIs(intfId)->profileNameIs(nextIntf->profileName());
  intfJoins(merged, nextIntf->profileName(), intfId);
}

void InputConfigSm::ZefInputConfig::ZefIntfConfig::handleProfileName() {
  if (InputConfigSm* sm = stateMachine()) sm->handleProfileName(key());
}

void InputConfigSm::handleProfileName(const Lanx::IntfId& intfId) {
  TRACE(8, " " << intfId);
  if (highestPriorityConfigForIntf(intfId) != name()) return;
  const Zef::Ptr<IntfConfig const> input = inputConfig()->intfConfig(intfId);
  const Zef::Ptr<IntfConfig> mergedIntf = mergedConfig()->intfConfig(intfId);
  if (!input || !mergedIntf) return;
  const Zef::String old = mergedIntf->profileName();
  // The same profile from another source changes nothing: the port runs on.
  if (old == input->profileName()) return;
  mergedIntf->profileNameIs(input->profileName());
  intfLeaves(*mergedConfig(), old, intfId);
  intfJoins(*mergedConfig(), input->profileName(), intfId);
}

}  // namespace Macsec
