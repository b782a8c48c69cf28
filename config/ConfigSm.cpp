#include "config/ConfigSm.h"

#include "model/ProfileParams.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "model/Crypto.h"
#include "model/CryptoMode.h"
#include "model/LogMessages.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::ConfigSm")

namespace Macsec {

namespace {

// A static SAK runs only where there is no key.
bool staticSakInUse(const Profile& profile) {
  return (!profile.txStaticSak().empty() || !profile.rxStaticSak().empty()) && profile.key().empty();
}

}  // namespace

void ConfigSm::handleInitialized() {
  TRACE(8, "");
  // What an earlier life left: an IntfStatus whose profile no longer has the interface, or has
  // neither a key nor keys from EAP, goes.
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->intfStatusIter())) {
    const Zef::Ptr<IntfStatus const> intf = status()->intfStatus(intfId);
    const Zef::Ptr<Profile const> profile = config()->profile(Zef::Name(intf->profileName()));
    if (profile && profile->intf(intfId) && (!profile->key().empty() || profile->dot1xEnabled())) continue;
    TRACE(6, ": Deleting stale intfStatus for " << intfId);
    status()->intfStatusDel(intfId);
  }
  initializedIs(true);
  updateFipsStatus();
  handleDelayProtection();
}

void ConfigSm::handleFipsRestrictions() {
  if (!initialized()) return;
  TRACE(8, " Handle Fips Restrictions");
  // The crypto library changes mode only when a configuration state machine starts: a change at
  // run time first tears everything down.
  cleanUpAndDie();
}

void ConfigSm::cleanUpAndDie() {
  TRACE(8, "");
  status()->intfStatusDelAll();
  status()->cpStatusDelAll();
  status()->portStatusDelAll();
  status()->fipsStatusIs(FipsStatus{false, false});
  // Kept on purpose: despite its name it ends nothing; the next configuration state machine
  // applies the new setting.
}

void ConfigSm::updateFipsStatus() {
  TRACE(8, " Updating Fips Status ");
  const bool fips = config()->fipsRestrictions();
  if (!fipsModeIs(fips)) {
    // The one place where the engine ends the process: it must not run with keys outside the
    // crypto mode it was asked for. Exact text of the trace: operators' tooling matches it.
    TRACE(0, "Setting Fips Mode failed.Dying again!");
    std::fprintf(stderr, "mka: cannot %s FIPS mode: the crypto library's FIPS provider is not available\n",
                 fips ? "enter" : "leave");
    std::exit(0);
  }
  status()->fipsStatusIs(FipsStatus{fips, true});
}

void ConfigSm::handleClearMkaCounters() {
  if (!initialized()) return;
  TRACE(8, "");
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->intfStatusIter())) doClearCounters(intfId);
}

void ConfigSm::doClearCounters(const Lanx::IntfId& intfId) {
  TRACE(8, "Clearing counters for: " << intfId);
  if (!memtabCounters()) return;
  // Clearing keeps the counters running: their present values become the snapshot a reader
  // subtracts.
  Memtab::MessageCounterData row = memtabCounters()->row(intfId);
  row.intfId = intfId;
  memtabCounters()->msgCounterSnapshotIs(row);
}

void ConfigSm::handleCleanUp() {
  TRACE(8, "");
  // Going away in FIPS mode takes the status along; otherwise the root decides.
  if (initialized() && status()->fipsStatus().fipsMode) cleanUpAndDie();
}

void ConfigSm::handleIntf(const Profile& profile, const Lanx::IntfId& intfId) {
  TRACE(8, ": IntfId " << intfId);
  // Nothing to protect: no IntfStatus, unless the interface has moved to another profile.
  const bool nothing = profile.key().empty() && profile.txStaticSak().empty() && profile.rxStaticSak().empty() &&
                       !profile.dot1xEnabled();
  if (!profile.intf(intfId) || nothing) {
    const Zef::Ptr<IntfStatus> existing = status()->intfStatus(intfId);
    if (existing && existing->profileName() == profile.name()) {
      TRACE(6, ": Deleting intfStatus for " << intfId);
      status()->intfStatusDel(intfId);
    }
    return;
  }
  const MacsecParams params = paramsOf(profile);
  Zef::Ptr<IntfStatus> intf = status()->intfStatus(intfId);
  if (intf && intf->macsecParams() == params) {
    TRACE(6, ": IntfStatus " << intfId << " already exists.");
  } else {
    if (intf) {
      TRACE(6, ": IntfStatus " << intfId << " exists but not updated, removing.");
      status()->intfStatusDel(intfId);
    }
    TRACE(6, ": Creating an intfStatus for " << intfId);
    intf = status()->intfStatusIs(intfId, params);
  }
  TRACE(6, ": Updating intfStatus for " << intfId);
  updateIntf(profile, intf);
}

void ConfigSm::handleIntf(const Profile& profile) {
  TRACE(8, "");
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(profile.intfIter())) handleIntf(profile, intfId);
}

void ConfigSm::updateIntf(const Profile& profile, const Zef::Ptr<IntfStatus>& intf) {
  TRACE(8, ": IntfId " << intf->intfId());
  intf->profileNameIs(profile.name());
  ProfileSettings::forEach([&]<class S>(S) {
    if constexpr (S::reach == Zef::SettingReach::live) S::set(*intf, S::of(profile));
  });
  // Keys are written only when they are other keys: a new encoding of the same secret is none.
  const Cak& defaultKey = profile.defaultKey();
  if (!intf->defaultKey().sameKeyAs(defaultKey)) intf->defaultKeyIs(defaultKey);
  if (staticSakInUse(profile)) {
    intf->txStaticSakIs(profile.txStaticSak());
    intf->rxStaticSakIs(profile.rxStaticSak());
    intf->staticSakInUseIs(true);
    intf->allowUnprotectedIs(false);
  } else {
    intf->staticSakInUseIs(false);
  }
  const GroupCak group = profile.groupCak();
  intf->groupCakLifetimeIs(group.enabled ? group.lifetimeMinutes * 60u : 0u);
  // With EAP the key is the one derived from the exchange, and the profile's is not used.
  if (profile.dot1xEnabled()) {
    handleEapKeyStatus(intf->intfId());
    return;
  }
  intf->dot1xTypeIs(Dot1x::dot1xTypePreSharedKey);
  const Cak& key = profile.key();
  if (!intf->key().sameKeyAs(key)) intf->keyIs(key);
}

void ConfigSm::handleProfileAttrs(const Profile& profile) {
  TRACE(8, "");
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(profile.intfIter())) {
    if (const Zef::Ptr<IntfStatus> intf = status()->intfStatus(intfId)) {
      TRACE(6, ": Updating intfStatus " << intfId);
      updateIntf(profile, intf);
    }
  }
}

void ConfigSm::handleMacsecParamsUpdate(const Profile& profile) {
  // There is no change of these parameters in place: the interface's IntfStatus, and with it its
  // port and actors, is built anew.
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(profile.intfIter())) {
    status()->intfStatusDel(intfId);
    handleIntf(profile, intfId);
  }
}

// The profile reactors hand their notifications to the state machine, with their profile.

void ConfigSm::ZefConfig::ZefProfile::handleIntf(const Lanx::IntfId& intfId) {
  if (ConfigSm* sm = stateMachine()) sm->handleIntf(*notifier(), intfId);
}

void ConfigSm::ZefConfig::ZefProfile::handleIntf() {
  if (ConfigSm* sm = stateMachine()) sm->handleIntf(*notifier());
}

void ConfigSm::ZefConfig::ZefProfile::handleKeys() {
  TRACE(8, "");
  handleIntf();
}

void ConfigSm::ZefConfig::ZefProfile::handleProfileAttrs() {
  if (ConfigSm* sm = stateMachine()) sm->handleProfileAttrs(*notifier());
}

void ConfigSm::ZefConfig::ZefProfile::handleMacsecParams() {
  TRACE(8, " Updating MACsec parameters");
  if (ConfigSm* sm = stateMachine()) sm->handleMacsecParamsUpdate(*notifier());
}

void ConfigSm::handleDel(const Zef::Name& name) {
  // A removed profile's interfaces lose their IntfStatus. The walk is over the interfaces'
  // configuration, since the profile itself is gone.
  if (config()->profileHas(name)) return;
  TRACE(8, ": profile " << name);
  for (auto it = config()->intfConfigIter(); it; ++it) {
    const Lanx::IntfId intfId(it.key());
    if (it->profileName() == name && status()->intfStatusHas(intfId)) {
      TRACE(6, ": Deleting intfStatus for " << intfId);
      status()->intfStatusDel(intfId);
    }
  }
}

namespace {

// The CAK and CKN of a finished EAP exchange, as both ends derive them: from the master session
// key, both MAC addresses (the lower first) and the session identifier. A refusal says why there
// is none.
struct DerivedKey {
  Cak key;
  const char* refusal = nullptr;
};

DerivedKey deriveKey(CipherSuite cipher, const Dot1x::EapKey& eapKey) {
  TRACE(8, "");
  const Lanx::EthAddr& low = eapKey.myMac < eapKey.peerMac ? eapKey.myMac : eapKey.peerMac;
  const Lanx::EthAddr& high = eapKey.myMac < eapKey.peerMac ? eapKey.peerMac : eapKey.myMac;
  // Each end puts the lower address first: with equal ones the two ends could not tell themselves
  // apart, nor agree on an order.
  if (!(low < high)) return {Cak(), "this interface and its peer have the same MAC address"};
  if (eapKey.sessionId.empty()) return {Cak(), "the exchange gave no session identifier"};
  KeyBytes macs(low.data(), 6);
  macs.append(high.data(), 6);
  KeyBytes context(eapKey.sessionId.data(), eapKey.sessionId.size());
  context.append(macs);
  const int bits = keyBitsOf(cipher);
  const Cak key = eapKey.key.withClear([&](const KeyBytes& msk) {
    const KeyBytes ckn = deriveCkn(msk, bits, context, 128);
    const StoredKey cak = StoredKey::of(deriveCak(msk, macs, bits));
    if (ckn.empty() || cak.empty()) return Cak();
    return Cak{Ckn(ckn.data(), ckn.size()), cak};
  });
  if (key.empty()) return {Cak(), "the master session key is too short for the cipher suite"};
  return {key};
}

}  // namespace

void ConfigSm::handleEapKeyStatus() {
  TRACE(8, "");
  if (!eapKeyStatus()) return;
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(eapKeyStatus()->keyIter())) handleEapKeyStatus(intfId);
}

void ConfigSm::handleEapKeyStatus(const Lanx::IntfId& intfId) {
  TRACE(8, ": IntfId " << intfId);
  const Zef::Ptr<IntfStatus> intf = status()->intfStatus(intfId);
  if (!intf) {
    TRACE(6, ": No intfStatus found. Ignoring EAP key status update on " << intfId);
    return;
  }
  // While the profiles are first bound the configuration reactor is still being built; the pass
  // over every EAP key that ends the constructor comes back here.
  if (!config()) return;
  const Zef::Ptr<Profile const> profile = config()->profile(Zef::Name(intf->profileName()));
  if (!profile || !profile->dot1xEnabled()) {
    TRACE(6, ": Profile " << intf->profileName() << " is not configured for Dot1x. Ignoring EAP key status update on "
                          << intfId);
    return;
  }
  const Dot1x::EapKey eapKey = eapKeyStatus() ? eapKeyStatus()->key(intfId) : Dot1x::EapKey();
  // A key withdrawn by the 802.1X agent stays in use: only the loss of the link ends it.
  if (eapKey == Dot1x::EapKey()) {
    TRACE(6, ": Ignoring EAP key deletion on " << intfId);
    return;
  }
  const DerivedKey derived = deriveKey(intf->cipherSuite(), eapKey);
  if (derived.refusal != nullptr) {
    Zef::log(MKA_EAP_KEY_REFUSED, intfId.stringValue(), derived.refusal);
    if (memtabCounters()) memtabCounters()->countIn(intfId, &Memtab::MessageCounterData::eapKeysRefused);
    return;
  }
  // The side of the exchange first, so that whoever reacts to the key sees it.
  intf->dot1xTypeIs(eapKey.dot1xType);
  if (!intf->key().sameKeyAs(derived.key)) intf->keyIs(derived.key);
}

void ConfigSm::ZefEthIntfStatusDir::ZefEthIntfStatus::handleLinkStatus() {
  const Lanx::IntfId& intfId = key();
  TRACE(8, ": IntfId " << intfId);
  ConfigSm* sm = stateMachine();
  if (sm == nullptr || !sm->initialized()) {
    TRACE(3, ": ConfigSm not initialized. Bailing.");
    return;
  }
  const Zef::Ptr<IntfStatus> intf = sm->status()->intfStatus(intfId);
  // A configured key outlives a link flap; a key from EAP goes with the link.
  if (!intf || notifier()->linkStatus() == Interface::linkUp || intf->dot1xType() == Dot1x::dot1xTypePreSharedKey) {
    return;
  }
  TRACE(3, ": Deleting Dot1x derived primary key on " << intfId);
  intf->keyIs(Cak());
}

void ConfigSm::handleDelayProtection() {
  if (!initialized()) return;
  TRACE(8, " Updating Delay Protection Flag");
  status()->mkpduPeriodIs(config()->delayProtection() ? 0.5 : 2.0);
  status()->delayProtectionIs(config()->delayProtection());
  status()->mkpduThresholdIs(2);
}

}  // namespace Macsec
