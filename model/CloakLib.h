#pragma once

#include "platform/String.h"

// The stored-key codec on text, for interfaces that carry keys as text: clear keys are
// hexadecimal text, stored forms are the text of a Macsec::StoredKey. The engine itself holds
// StoredKey values and reaches their clear octets through StoredKey::withClear.
namespace CloakLib {

// The stored form of clear hexadecimal key text. It is not the clear text, can only be decoded by
// this process, and differs between two calls for one key. Empty text, or text that is not
// hexadecimal, gives an empty String.
Zef::String doEncodeKey(const Zef::String& clear);

// The clear key as lower-case hexadecimal text. Text that is not a stored key of this process
// gives an empty String.
Zef::String doDecodeKey(const Zef::String& stored);

}  // namespace CloakLib
