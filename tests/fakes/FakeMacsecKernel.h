#pragma once

// The kernel's MACsec for tests, on a machine without it: it holds links, receive channels and
// SAs as the driver does, records every call that changes them as a line of text, and refuses the
// next call of a verb when a test says so, with the driver's error text. It keeps no key octets:
// a call names its key by the key number, the end of the key identifier.

#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/MacsecKernel.h"

namespace Macsec {

class FakeMacsecKernel : public MacsecKernel {
 public:
  struct Link {
    std::string name;
    std::optional<uint64_t> rxSc;
    std::set<uint8_t> rxSas;
    std::set<uint8_t> txSas;
    int lowerIfindex = 0;
    std::string mark;
    KernelSci sci;
    int encodingSa = -1;
    // The key identifiers of the SAs, by association number.
    std::map<uint8_t, MacsecSaView> rxKeys;
    std::map<uint8_t, MacsecSaView> txKeys;
  };

  std::vector<std::string> takeCalls() { return std::exchange(calls_, {}); }
  void refuseNext(const std::string& verb, const std::string& error) { refusals_[verb] = error; }
  // A link as an earlier run left it, or gone with its lower interface.
  void linkExists(const std::string& name, int ifindex, const std::string& mark = "") {
    Link& link = links_[ifindex] = Link();
    link.name = name;
    link.mark = mark;
  }
  void linkVanishes(int ifindex) { links_.erase(ifindex); }
  const std::map<int, Link>& links() const noexcept { return links_; }

  int linkIndex(const std::string& name) override {
    for (const auto& [index, link] : links_) {
      if (link.name == name) return index;
    }
    return 0;
  }
  Answer linkAdd(const MacsecLinkSettings& settings) override {
    return call("linkAdd " + settings.name + " on " + std::to_string(settings.lowerIfindex), [&] {
      if (linkIndex(settings.name) != 0) return true;
      Link& link = links_[nextIndex_++] = Link();
      link.name = settings.name;
      link.lowerIfindex = settings.lowerIfindex;
      link.mark = settings.mark;
      link.sci = settings.sci;
      return true;
    });
  }
  Answer linkUpdate(int ifindex, const MacsecLinkState& state) override {
    std::string what = std::string(state.up ? " up" : " down") + (state.protect ? "" : " unprotected") +
                       (state.encrypt ? "" : " integrity only");
    if (state.encodingSa >= 0) what += " encoding " + std::to_string(state.encodingSa);
    return call("linkUpdate " + std::to_string(ifindex) + what, [&] {
      Link* link = find(ifindex);
      if (link && state.encodingSa >= 0) link->encodingSa = state.encodingSa;
      return link != nullptr;
    });
  }
  Answer linkDel(int ifindex) override {
    return call("linkDel " + std::to_string(ifindex), [&] { return links_.erase(ifindex) != 0; });
  }
  Answer rxScAdd(int ifindex, const KernelSci& sci) override {
    return call("rxScAdd " + std::to_string(ifindex) + " " + text(sci), [&] {
      Link* link = find(ifindex);
      if (link) link->rxSc = sci.raw();
      return link != nullptr;
    });
  }
  Answer rxScDel(int ifindex, const KernelSci& sci) override {
    return call("rxScDel " + std::to_string(ifindex) + " " + text(sci), [&] {
      Link* link = find(ifindex, sci);
      if (link) link->rxSc.reset(), link->rxSas.clear(), link->rxKeys.clear();
      return link != nullptr;
    });
  }
  Answer rxSaAdd(int ifindex, const KernelSci& sci, const MacsecSaSettings& sa) override {
    return call("rxSaAdd " + std::to_string(ifindex) + text(sa), [&] {
      Link* link = find(ifindex, sci);
      if (link) link->rxSas.insert(sa.an), link->rxKeys[sa.an] = viewOf(sa);
      return link != nullptr;
    });
  }
  Answer rxSaDel(int ifindex, const KernelSci& sci, uint8_t an) override {
    return call("rxSaDel " + std::to_string(ifindex) + " an " + std::to_string(an), [&] {
      Link* link = find(ifindex, sci);
      if (link) link->rxKeys.erase(an);
      return link && link->rxSas.erase(an) != 0;
    });
  }
  Answer txSaAdd(int ifindex, const MacsecSaSettings& sa) override {
    return call("txSaAdd " + std::to_string(ifindex) + text(sa), [&] {
      Link* link = find(ifindex);
      if (link) link->txSas.insert(sa.an), link->txKeys[sa.an] = viewOf(sa);
      return link != nullptr;
    });
  }
  Answer txSaDel(int ifindex, uint8_t an) override {
    return call("txSaDel " + std::to_string(ifindex) + " an " + std::to_string(an), [&] {
      Link* link = find(ifindex);
      if (link) link->txKeys.erase(an);
      return link && link->txSas.erase(an) != 0;
    });
  }
  std::optional<MacsecLinkView> linkView(const std::string& name) override {
    const int ifindex = linkIndex(name);
    if (ifindex == 0) return std::nullopt;
    const Link& link = links_.at(ifindex);
    MacsecLinkView view;
    view.ifindex = ifindex;
    view.lowerIfindex = link.lowerIfindex;
    view.mark = link.mark;
    view.sci = link.sci;
    view.encodingSa = link.encodingSa;
    for (const auto& [an, sa] : link.txKeys) view.txSas.push_back(sa);
    if (link.rxSc) {
      view.rxScs.push_back({KernelSci{}, {}});
      std::memcpy(view.rxScs.back().sci.octets, &*link.rxSc, 8);
      for (const auto& [an, sa] : link.rxKeys) view.rxScs.back().sas.push_back(sa);
    }
    return view;
  }
  std::vector<std::string> markedLinks(const std::string& mark) override {
    std::vector<std::string> names;
    for (const auto& [index, link] : links_) {
      if (link.mark == mark) names.push_back(link.name);
    }
    return names;
  }
  // What a test set.
  std::map<int, MacsecLinkCounters> linkCounters() override { return counters; }
  std::map<int, MacsecLinkCounters> counters;
  // Each call one request and one answer.
  Traffic traffic() const override { return {requests_, requests_}; }

 private:
  // The call is recorded; it fails with the refusal set for its verb, or "No such device" when
  // what it names is not there.
  template <class Apply>
  Answer call(const std::string& what, Apply&& apply) {
    const auto refusal = refusals_.find(what.substr(0, what.find(' ')));
    Answer error;
    if (refusal != refusals_.end()) {
      error = refusal->second;
      refusals_.erase(refusal);
    } else if (!apply()) {
      error = "No such device";
    }
    calls_.push_back(what + (error ? " refused: " + *error : ""));
    ++requests_;
    return error;
  }
  Link* find(int ifindex, std::optional<KernelSci> sci = std::nullopt) {
    const auto it = links_.find(ifindex);
    if (it == links_.end() || (sci && it->second.rxSc != sci->raw())) return nullptr;
    return &it->second;
  }
  static std::string text(const KernelSci& sci) {
    static const char* const kHex = "0123456789abcdef";
    std::string out = "sci ";
    for (const uint8_t octet : sci.octets) out += {kHex[octet >> 4], kHex[octet & 15]};
    return out;
  }
  static MacsecSaView viewOf(const MacsecSaSettings& sa) {
    MacsecSaView view;
    view.an = sa.an;
    view.active = true;
    std::memcpy(view.keyId, sa.keyId, sizeof view.keyId);
    return view;
  }
  static std::string text(const MacsecSaSettings& sa) {
    const uint32_t keyNum = static_cast<uint32_t>(sa.keyId[12]) << 24 | static_cast<uint32_t>(sa.keyId[13]) << 16 |
                            static_cast<uint32_t>(sa.keyId[14]) << 8 | sa.keyId[15];
    return " an " + std::to_string(sa.an) + " key " + std::to_string(keyNum) + (sa.key ? "" : " without octets");
  }

  std::map<int, Link> links_;
  int nextIndex_ = 100;
  std::map<std::string, std::string> refusals_;
  std::vector<std::string> calls_;
  uint64_t requests_ = 0;
};

}  // namespace Macsec
