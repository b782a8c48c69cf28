#pragma once

#include "platform/String.h"

// The stored form of keys. Every key in status or configuration is held encoded; the clear text
// exists only between a doDecodeKey and the end of the derivation that needs it, and is wiped
// then.
namespace CloakLib {

// Encodes clear key text. The result is not the clear text, can only be decoded by this process,
// and differs between two calls for one key (a fresh nonce each time). An empty text stays empty.
Zef::String doEncodeKey(const Zef::String& clear);

// Decodes a stored key. Text that is not a stored key of this process gives an empty String.
Zef::String doDecodeKey(const Zef::String& stored);

}  // namespace CloakLib
