#include "agent/ConfigChanges.h"

#include <sstream>
#include <string>
#include <type_traits>

namespace Macsec {

namespace {

// A setting's value as the configuration file writes it.
template <class S>
std::string textOf(const typename S::Type& value) {
  if constexpr (requires { S::names; }) {
    for (const auto& [name, named] : S::names) {
      if (named == value) return std::string(name);
    }
    return "?";
  } else if constexpr (std::is_same_v<typename S::Type, bool>) {
    return value ? "true" : "false";
  } else if constexpr (std::is_same_v<typename S::Type, Zef::String>) {
    return value.empty() ? "none" : "\"" + value.stdString() + "\"";
  } else {
    return std::to_string(value);
  }
}

std::string keyName(const Cak& key) {
  std::ostringstream out;
  out << "CKN " << key.ckn;
  return out.str();
}

void keyChanges(const std::string& profile, const char* which, const Cak& before, const Cak& after,
                std::vector<std::string>& changes) {
  if (before.sameKeyAs(after)) return;
  const std::string head = "profile " + profile + ": " + which;
  if (before.empty()) {
    changes.push_back(head + " added, " + keyName(after));
  } else if (after.empty()) {
    changes.push_back(head + " removed, " + keyName(before));
  } else if (before.ckn == after.ckn) {
    changes.push_back(head + " replaced, another CAK under " + keyName(after));
  } else {
    changes.push_back(head + " replaced, " + keyName(before) + " by " + keyName(after));
  }
}

// Sections of one kind ([eap.NAME], [radius.NAME]) added, removed or changed, by name.
template <class Sections>
void sectionChanges(const std::string& kind, const Sections& before, const Sections& after,
                    std::vector<std::string>& changes) {
  for (const auto& [name, section] : before) {
    if (!after.contains(name)) changes.push_back(kind + " " + name + " removed");
  }
  for (const auto& [name, section] : after) {
    const auto old = before.find(name);
    if (old == before.end()) {
      changes.push_back(kind + " " + name + " added");
    } else if (!(old->second == section)) {
      changes.push_back(kind + " " + name + " changed");
    }
  }
}

}  // namespace

std::vector<std::string> configChanges(const ConfigFile& before, const ConfigFile& after) {
  std::vector<std::string> changes;
  for (const auto& [name, profile] : before.profiles) {
    if (!after.profiles.contains(name)) changes.push_back("profile " + name + " removed");
  }
  for (const auto& [name, profile] : after.profiles) {
    const auto old = before.profiles.find(name);
    if (old == before.profiles.end()) {
      changes.push_back("profile " + name + " added");
      continue;
    }
    const std::string& profileName = name;
    const Profile& from = *old->second;
    const Profile& to = *profile;
    keyChanges(profileName, "key", from.key(), to.key(), changes);
    keyChanges(profileName, "fallback key", from.defaultKey(), to.defaultKey(), changes);
    ProfileSettings::forEach([&]<class S>(S) {
      if (S::of(from) == S::of(to)) return;
      changes.push_back("profile " + profileName + ": " + std::string(S::fileKey) + " " + textOf<S>(S::of(from)) +
                        " to " + textOf<S>(S::of(to)));
    });
  }
  sectionChanges("radius", before.radiusServers, after.radiusServers, changes);
  sectionChanges("eap", before.eaps, after.eaps, changes);
  for (const auto& [intf, profile] : before.interfaces) {
    if (!after.interfaces.contains(intf)) changes.push_back("interface " + intf + " removed");
  }
  for (const auto& [intf, profile] : after.interfaces) {
    const auto old = before.interfaces.find(intf);
    if (old == before.interfaces.end()) {
      changes.push_back("interface " + intf + " added, profile " + profile);
    } else if (old->second != profile) {
      changes.push_back("interface " + intf + " moved from profile " + old->second + " to " + profile);
    }
  }
  return changes;
}

}  // namespace Macsec
