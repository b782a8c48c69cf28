#pragma once

// What an engine keeps of an interface across a restart of its process, so that MKA goes on where
// it stopped while the data plane keeps its SAs: the port and its SCI, each actor with its member
// identifier, its numbers and its live peers, and the controlled port with the keys it asked the
// data plane for, each key by its identifier. Never a key: no CAK, no ICK or KEK, no SAK. The
// actors derive their keys again from the configured CAK; the keys in service stay in the data
// plane, known by their identifiers, until new keys replace them under the usual rules.
//
// Message and key numbers must never be used twice under one member identifier, a crash
// included: the saved message number is a bound beyond the numbers sent, moved on before a frame
// goes out beyond it, and the key number the last one distributed.

#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "engine/Engine.h"

namespace Macsec {

// The version of the saved state's layout; a state of another version is not used.
constexpr int kSavedStateVersion = 1;
// How far the saved message number runs ahead of the last one sent: a state written every this
// many MKPDUs at most.
constexpr uint32_t kMessageNumbersReserved = 64;

// The interface's state as it stands, with its message numbers reserved up to `previous`'s bound
// while they lie below it (or beyond the number sent by kMessageNumbersReserved otherwise); null
// if MKA does not run on it.
nlohmann::json savedInterface(const Status& status, const Lanx::IntfId& intf, const nlohmann::json& previous);

// Whether a frame about to leave an interface carries numbers beyond those `saved` covers, or
// within `margin` message numbers of its bound.
bool numbersBeyond(const Status& status, const Lanx::IntfId& intf, const nlohmann::json& saved, uint32_t margin = 0);

// The same state without what moves with every MKPDU (numbers, packet numbers, times): two states
// that differ only there need no new write.
nlohmann::json settledPart(const nlohmann::json& saved);

// Puts an interface's saved state back into an engine that has the interface's configuration but
// no port on it yet; its actors go on with it once the interface comes. Returns why it cannot (the
// profile's parameters or a key changed, or the state is unreadable), and then nothing is written.
std::optional<std::string> resumeInterface(Engine& engine, const Lanx::IntfId& intf, const nlohmann::json& saved);

// The saved state of every interface, as one versioned document made of each interface's part
// written out (savedText), and its interfaces back from one; none, with the reason, from a
// document of another version or an unreadable one.
std::string savedText(const nlohmann::json& interface);
std::string savedDocument(const std::map<Lanx::IntfId, std::string>& interfaceTexts);
std::optional<std::map<Lanx::IntfId, nlohmann::json>> interfacesOf(const std::string& document, std::string& why);

// A short check value of a key, which tells a changed key from the same one without telling the
// key: 4 octets from the CAK and its name through IEEE 802.1X's key derivation function, as
// hexadecimal.
std::string keyCheckOf(const Cak& key);

}  // namespace Macsec
