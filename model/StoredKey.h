#pragma once

// A key in stored form: the only form in which keys are held, in status, configuration and
// decoded messages. The clear octets are reached only through withClear(), which hands them to a
// function and wipes them when it returns or throws, so that a key's clear bytes live exactly as
// long as one derivation or one frame needs them.

#include <iosfwd>
#include <string_view>
#include <utility>

#include "model/KeyBytes.h"
#include "platform/String.h"

namespace Macsec {

class StoredKey {
 public:
  StoredKey() = default;

  // The stored form of clear octets; none for no octets.
  static StoredKey of(const KeyBytes& clear);
  // The stored form of a key given as clear hexadecimal text, as operators write keys; none if
  // the text is not hexadecimal.
  static StoredKey ofHex(std::string_view clearHex);
  // A stored form that was kept as text (by CloakLib's callers).
  static StoredKey fromStoredText(const Zef::String& stored) { return StoredKey(stored); }

  // The stored form as text. It is not the clear key, differs between two encodings of one key,
  // and opens only in the process that made it.
  const Zef::String& storedText() const noexcept { return stored_; }
  bool empty() const noexcept { return stored_.empty(); }

  // Calls `use` with the clear octets (none for a stored form that does not open) and returns
  // what it returns. The octets are wiped on the way out.
  template <class Use>
  decltype(auto) withClear(Use&& use) const {
    const KeyBytes clear = open();
    return std::forward<Use>(use)(clear);
  }

  // The same key: equal clear octets, compared in constant time. Two stored forms of one key
  // differ as text, so this is the only comparison of keys.
  bool sameKeyAs(const StoredKey& other) const;

  // Zeroes the stored text in place, in every copy that shares it, without notifying anyone.
  void wipeStoredForm() const noexcept { stored_.zeroStringDataUnsafe(); }
  // Whether the stored text was zeroed so: it opens to nothing. A stored form never starts with
  // a zero.
  bool wiped() const noexcept { return !stored_.empty() && stored_.charPtr()[0] == '\0'; }

  // The same stored form: what entity mutators compare to tell a change. Not key equality.
  bool operator==(const StoredKey&) const noexcept = default;

 private:
  explicit StoredKey(Zef::String stored) : stored_(std::move(stored)) {}
  KeyBytes open() const;

  Zef::String stored_;
};

// "key set" or "no key": never the key, not even its stored form.
std::ostream& operator<<(std::ostream& out, const StoredKey& key);

}  // namespace Macsec
