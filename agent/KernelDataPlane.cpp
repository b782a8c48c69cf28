#include "agent/KernelDataPlane.h"

#include <linux/if_macsec.h>

#include "agent/DaemonLog.h"
#include "platform/HashTable.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::KernelDataPlane")

namespace Macsec {

namespace {

KernelSci kernelSci(const Sci& sci) {
  KernelSci kernel;
  const std::array<uint8_t, 6>& addr = sci.addr.bytes();
  std::copy(addr.begin(), addr.end(), kernel.octets);
  kernel.octets[6] = static_cast<uint8_t>(sci.portId >> 8);
  kernel.octets[7] = static_cast<uint8_t>(sci.portId);
  return kernel;
}

// The kernel names the suites by their IEEE 802.1AE reference numbers.
uint64_t cipherSuiteId(CipherSuite suite) {
  const uint64_t reference = cipherSuiteReference(suite);
  return reference != 0 ? reference : MACSEC_CIPHER_ID_GCM_AES_128;
}

// The key identifier of IEEE 802.1X: the key server's member identifier and the key number.
void keyIdOf(const Sak& sak, uint8_t (&keyId)[16]) {
  std::copy(sak.mi.data(), sak.mi.data() + MemberId::kSize, keyId);
  keyId[12] = static_cast<uint8_t>(sak.keyNum >> 24);
  keyId[13] = static_cast<uint8_t>(sak.keyNum >> 16);
  keyId[14] = static_cast<uint8_t>(sak.keyNum >> 8);
  keyId[15] = static_cast<uint8_t>(sak.keyNum);
}

// Hands the SA of a key to `add` with the key's clear octets, which are wiped when it returns. With
// an XPN suite the SA carries its short SCI and the key's salt.
template <class Add>
std::optional<std::string> withSa(const Sak& sak, CipherSuite suite, const Ssci& ssci, Add&& add) {
  MacsecSaSettings sa;
  sa.an = sak.an;
  keyIdOf(sak, sa.keyId);
  if (isXpn(suite)) {
    sa.xpn = true;
    sa.ssci = ssci.ssci;
    std::copy(sak.salt.data(), sak.salt.data() + Salt::kSize, sa.salt);
  }
  return sak.key.withClear([&](const KeyBytes& key) {
    sa.key = &key;
    return add(sa);
  });
}

// The controlled port is the MACsec link: up while open; unprotected traffic only where the
// configuration allows it.
MacsecLinkState linkStateOf(const CpStatus& cp) {
  MacsecLinkState state;
  state.up = cp.controlledPortEnabled();
  state.protect = !cp.unprotectedTraffic();
  state.validate = !cp.unprotectedTraffic();
  state.encrypt = cp.confidentialityOffset() != kNoConfidentiality;
  return state;
}

}  // namespace

void KernelDataPlane::handleInitialized() {
  TRACE(8, "");
  initializedIs(true);
  // The kernel's MACsec encrypts from the first octet, or not at all (integrity only).
  hardware()->macsecCapabilityIs(macsecConfidentialityAtZero);
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->cpStatusIter())) want(intfId).link = true;
}

void KernelDataPlane::ZefStatus::ZefCpStatus::wantLink() {
  if (KernelDataPlane* sm = stateMachine()) sm->want(key()).link = true;
}

void KernelDataPlane::ZefStatus::ZefCpStatus::updatePostStatus() {
  if (KernelDataPlane* sm = stateMachine()) sm->updatePostStatus(key());
}

void KernelDataPlane::updatePostStatus(const Lanx::IntfId& intfId) {
  const Zef::Ptr<CpStatus const> cp = status()->cpStatus(intfId);
  const Zef::Ptr<MacSecIntfStatus> hw = hardware()->status(intfId);
  if (cp && hw) hw->hwPostStatusIs(cp->postStatus());
}

void KernelDataPlane::ZefStatus::ZefPortStatus::wantLink() {
  if (KernelDataPlane* sm = stateMachine()) sm->want(key()).link = true;
}

void KernelDataPlane::ZefStatus::ZefCpStatus::wantRxSc() {
  if (KernelDataPlane* sm = stateMachine()) sm->want(key()).rxSc = true;
}

void KernelDataPlane::ZefStatus::ZefCpStatus::wantRxSa(const AssociationNumber& an) {
  if (KernelDataPlane* sm = stateMachine()) sm->want(key()).rxSas.set(an.value());
}

void KernelDataPlane::ZefStatus::ZefCpStatus::wantTxSa() {
  if (KernelDataPlane* sm = stateMachine()) sm->want(key()).txSa = true;
}

KernelLinkWork& KernelDataPlane::want(const Lanx::IntfId& intfId) {
  const auto [work, added] = pending_.try_emplace(intfId);
  if (added) pendingOrder_.push_back(intfId);
  return work->second;
}

bool KernelDataPlane::hasPendingWork() const { return !pending_.empty(); }

bool KernelDataPlane::programNext() {
  while (!pendingOrder_.empty()) {
    const Lanx::IntfId intfId = pendingOrder_.front();
    pendingOrder_.pop_front();
    const auto found = pending_.find(intfId);
    if (found == pending_.end()) continue;  // its link went meanwhile
    const KernelLinkWork work = found->second;
    pending_.erase(found);
    // In the order a link is built: its state, the peer's channel, the keys it receives with, and
    // last the key it sends with, which the engine asks for only once the peers have theirs.
    if (work.link) updateLink(intfId);
    if (work.rxSc) updateRxSc(intfId);
    for (uint8_t an = AssociationNumber::min; an <= AssociationNumber::max; ++an) {
      if (work.rxSas.test(an)) updateRxSa(intfId, AssociationNumber(an));
    }
    if (work.txSa) updateTxSa(intfId);
    break;
  }
  return hasPendingWork();
}

void KernelDataPlane::handleCpStatus(const Lanx::IntfId& intfId) {
  if (!initialized() || status()->cpStatusHas(intfId)) return;
  TRACE(8, " intfId=" << intfId);
  // MACsec left the interface: its link goes, and every key in it.
  pending_.erase(intfId);
  const auto it = links_.find(intfId);
  if (it == links_.end()) return;
  if (it->second.ifindex != 0) refused(intfId, it->second, kernel()->linkDel(it->second.ifindex));
  links_.erase(it);
}

bool KernelDataPlane::refused(const Lanx::IntfId& intfId, KernelLink& link, const std::optional<std::string>& error) {
  if (!error) return false;
  ++link.errors;
  Zef::log(MKAD_DATA_PLANE_ERROR, intfId, *error);
  return true;
}

KernelLink* KernelDataPlane::ensureLink(const Lanx::IntfId& intfId) {
  const Zef::Ptr<CpStatus const> cp = status()->cpStatus(intfId);
  const Zef::Ptr<MkaPortStatus const> portStatus = status()->portStatus(intfId);
  if (!cp || !portStatus || portStatus->mySci().isZero() || !lowerIfindexOf() || !linkNameOf()) return nullptr;
  KernelLink& link = links_[intfId];
  if (link.ifindex != 0) return &link;
  const int lowerIfindex = lowerIfindexOf()(intfId);
  if (lowerIfindex == 0) return nullptr;
  link.name = linkNameOf()(intfId);
  // A link of that name that an earlier run made, and this one did not take over, holds keys this
  // run does not know: it goes, and the interface starts from nothing, as the engine does. A link
  // of that name that mkad did not make is not ours to remove.
  if (const int stale = kernel()->linkIndex(link.name)) {
    const std::optional<MacsecLinkView> view = kernel()->linkView(link.name);
    if (!view || view->mark != kLinkMark) {
      refused(intfId, link, "a link named " + link.name + " exists, which mkad did not make");
      return nullptr;
    }
    refused(intfId, link, kernel()->linkDel(stale));
  }
  MacsecLinkSettings settings;
  settings.name = link.name;
  settings.mark = kLinkMark;
  settings.lowerIfindex = lowerIfindex;
  settings.sci = kernelSci(portStatus->mySci());
  settings.cipherSuite = cipherSuiteId(cp->macsecParams().cipherSuite);
  settings.replayProtection = cp->macsecParams().replayProtection;
  settings.replayWindow = cp->macsecParams().replayProtectionWindow;
  settings.includeSci = true;
  if (refused(intfId, link, kernel()->linkAdd(settings))) return nullptr;
  link.ifindex = kernel()->linkIndex(link.name);
  if (link.ifindex == 0) return nullptr;
  TRACE(3, " MACsec link " << link.name << " on " << intfId);
  return &link;
}

void KernelDataPlane::updateLink(const Lanx::IntfId& intfId) {
  if (!initialized() || adopting_.contains(intfId)) return;
  TRACE(8, " intfId=" << intfId);
  const Zef::Ptr<CpStatus const> cp = status()->cpStatus(intfId);
  KernelLink* link = ensureLink(intfId);
  if (!cp || !link) return;
  refused(intfId, *link, kernel()->linkUpdate(link->ifindex, linkStateOf(*cp)));
}

void KernelDataPlane::updateRxSc(const Lanx::IntfId& intfId) {
  if (!initialized() || adopting_.contains(intfId)) return;
  TRACE(8, " intfId=" << intfId);
  const Zef::Ptr<CpStatus const> cp = status()->cpStatus(intfId);
  KernelLink* link = ensureLink(intfId);
  if (!cp || !link || cp->peerSsci().sci.isZero()) return;
  const KernelSci sci = kernelSci(cp->peerSsci().sci);
  if (link->rxSc && std::equal(sci.octets, sci.octets + 8, link->rxSc->octets)) return;
  // Another peer: the old channel goes with its SAs, and the keys are installed for the new one.
  if (link->rxSc) refused(intfId, *link, kernel()->rxScDel(link->ifindex, *link->rxSc));
  link->rxSc.reset();
  link->rxSas.clear();
  if (refused(intfId, *link, kernel()->rxScAdd(link->ifindex, sci))) return;
  link->rxSc = sci;
  for (auto it = cp->rxSakIter(); it; ++it) updateRxSa(intfId, AssociationNumber(it.key()));
}

void KernelDataPlane::updateRxSa(const Lanx::IntfId& intfId, const AssociationNumber& an) {
  if (!initialized() || adopting_.contains(intfId)) return;
  TRACE(8, " intfId=" << intfId << " an=" << an);
  const Zef::Ptr<CpStatus const> cp = status()->cpStatus(intfId);
  KernelLink* link = ensureLink(intfId);
  if (!cp || !link) return;
  if (!link->rxSc) updateRxSc(intfId);
  if (!link->rxSc) return;
  const uint8_t number = an.value();
  const Sak sak = cp->rxSak(an);
  const auto installed = link->rxSas.find(number);
  // A key removed from the requests leaves the kernel, which keeps no key the engine let go.
  if (sak.empty()) {
    if (installed != link->rxSas.end()) {
      refused(intfId, *link, kernel()->rxSaDel(link->ifindex, *link->rxSc, number));
      link->rxSas.erase(installed);
    }
    return;
  }
  const KernelSa wanted{sak.mi, sak.keyNum};
  if (installed != link->rxSas.end()) {
    if (installed->second == wanted) return;
    refused(intfId, *link, kernel()->rxSaDel(link->ifindex, *link->rxSc, number));
    link->rxSas.erase(installed);
  }
  const std::optional<std::string> error =
      withSa(sak, cp->macsecParams().cipherSuite, cp->peerSsci(),
             [&](const MacsecSaSettings& sa) { return kernel()->rxSaAdd(link->ifindex, *link->rxSc, sa); });
  if (refused(intfId, *link, error)) return;
  link->rxSas[number] = wanted;
  // Confirmed only now that the kernel has the key; delete before write, as hardware reports.
  const Zef::Ptr<MacSecIntfStatus> hw = hardware()->status(intfId);
  if (!hw) return;
  if (hw->rxSaStatusHas(an)) hw->rxSaStatusDel(an);
  hw->rxSaStatusIs(an, sak.mi, sak.keyNum);
}

void KernelDataPlane::updateTxSa(const Lanx::IntfId& intfId) {
  if (!initialized() || adopting_.contains(intfId)) return;
  TRACE(8, " intfId=" << intfId);
  const Zef::Ptr<CpStatus const> cp = status()->cpStatus(intfId);
  KernelLink* link = ensureLink(intfId);
  if (!cp || !link) return;
  const Sak sak = cp->txSak();
  // No key to send with: the kernel keeps none either.
  if (sak.empty()) {
    for (const auto& [number, installed] : link->txSas)
      refused(intfId, *link, kernel()->txSaDel(link->ifindex, number));
    link->txSas.clear();
    return;
  }
  const uint8_t number = sak.an;
  const KernelSa wanted{sak.mi, sak.keyNum};
  const auto installed = link->txSas.find(number);
  if (installed == link->txSas.end() || !(installed->second == wanted)) {
    if (installed != link->txSas.end()) {
      refused(intfId, *link, kernel()->txSaDel(link->ifindex, number));
      link->txSas.erase(installed);
    }
    const std::optional<std::string> error =
        withSa(sak, cp->macsecParams().cipherSuite, cp->mySsci(),
               [&](const MacsecSaSettings& sa) { return kernel()->txSaAdd(link->ifindex, sa); });
    if (refused(intfId, *link, error)) return;
    link->txSas[number] = wanted;
  }
  // Frames go out under the new key from now on; the previous transmit keys leave the kernel.
  MacsecLinkState state = linkStateOf(*cp);
  state.encodingSa = number;
  if (refused(intfId, *link, kernel()->linkUpdate(link->ifindex, state))) return;
  for (auto it = link->txSas.begin(); it != link->txSas.end();) {
    if (it->first == number) {
      ++it;
      continue;
    }
    refused(intfId, *link, kernel()->txSaDel(link->ifindex, it->first));
    it = link->txSas.erase(it);
  }
  const Zef::Ptr<MacSecIntfStatus> hw = hardware()->status(intfId);
  if (hw) hw->txSaStatusIs(SaStatus{AssociationNumber(number), sak.mi, sak.keyNum, 1});
}

void KernelDataPlane::txPacketNumbersAre(const std::map<int, MacsecLinkCounters>& byIfindex) {
  for (auto& [intfId, link] : links_) {
    const Zef::Ptr<MacSecIntfStatus> hw = hardware()->status(intfId);
    const auto read = byIfindex.find(link.ifindex);
    if (!hw || link.ifindex == 0 || hw->txSaStatus().empty() || read == byIfindex.end()) continue;
    SaStatus record = hw->txSaStatus();
    const auto pn = read->second.txNextPn.find(record.an.value());
    if (pn == read->second.txNextPn.end()) continue;
    record.value = pn->second;
    hw->txSaStatusIs(record);
  }
}

size_t KernelDataPlane::keysHeld() const {
  size_t count = 0;
  for (const auto& [intfId, link] : links_) count += link.rxSas.size() + link.txSas.size();
  return count;
}

void KernelDataPlane::removeAll() {
  pending_.clear();
  pendingOrder_.clear();
  for (auto& [intfId, link] : links_) {
    if (link.ifindex != 0) refused(intfId, link, kernel()->linkDel(link.ifindex));
  }
  links_.clear();
}

}  // namespace Macsec

namespace Macsec {

void KernelDataPlane::lowerGone(const Lanx::IntfId& intfId) {
  links_.erase(intfId);
  pending_.erase(intfId);
  adopting_.erase(intfId);
}

namespace {

// The key a kernel SA carries, by its key identifier: the key server's member identifier and the
// key number.
KernelSa keyOf(const MacsecSaView& sa) {
  const uint32_t keyNum = static_cast<uint32_t>(sa.keyId[12]) << 24 | static_cast<uint32_t>(sa.keyId[13]) << 16 |
                          static_cast<uint32_t>(sa.keyId[14]) << 8 | sa.keyId[15];
  return KernelSa{MemberId(sa.keyId), keyNum};
}

}  // namespace

void KernelDataPlane::adopt(const Lanx::IntfId& intfId, const MacsecLinkView& view) {
  TRACE(3, " adopting the MACsec link of " << intfId << " left by an earlier run");
  KernelLink link;
  link.name = linkNameOf() ? linkNameOf()(intfId) : std::string();
  link.ifindex = view.ifindex;
  const Zef::Ptr<MacSecIntfStatus> hw = hardware()->status(intfId);
  // The link receives from one peer, on one channel.
  if (!view.rxScs.empty()) {
    link.rxSc = view.rxScs.front().sci;
    for (const MacsecSaView& sa : view.rxScs.front().sas) {
      link.rxSas[sa.an] = keyOf(sa);
      if (hw) hw->rxSaStatusIs(AssociationNumber(sa.an), link.rxSas[sa.an].mi, link.rxSas[sa.an].keyNum);
    }
  }
  for (const MacsecSaView& sa : view.txSas) {
    link.txSas[sa.an] = keyOf(sa);
    if (hw && sa.an == view.encodingSa) {
      hw->txSaStatusIs(SaStatus{AssociationNumber(sa.an), link.txSas[sa.an].mi, link.txSas[sa.an].keyNum, 1});
    }
  }
  links_[intfId] = link;
  adopting_.insert(intfId);
}

void KernelDataPlane::adopted(const Lanx::IntfId& intfId) {
  if (adopting_.erase(intfId) == 0) return;
  TRACE(3, " the MACsec link of " << intfId << " is taken over");
  KernelLinkWork& work = want(intfId);
  work.link = work.rxSc = work.txSa = true;
  work.rxSas.set();
}

void KernelDataPlane::abandon(const Lanx::IntfId& intfId) {
  adopting_.erase(intfId);
  pending_.erase(intfId);
  const auto it = links_.find(intfId);
  if (it == links_.end()) return;
  if (it->second.ifindex != 0) refused(intfId, it->second, kernel()->linkDel(it->second.ifindex));
  links_.erase(it);
  // What the hardware status showed of the link goes with it.
  if (const Zef::Ptr<MacSecIntfStatus> hw = hardware()->status(intfId)) {
    hw->rxSaStatusDelAll();
    hw->txSaStatusIs(SaStatus());
  }
}

}  // namespace Macsec
