#include "model/CloakLib.h"

#include "model/StoredKey.h"

namespace CloakLib {

Zef::String doEncodeKey(const Zef::String& clear) { return Macsec::StoredKey::ofHex(clear.view()).storedText(); }

Zef::String doDecodeKey(const Zef::String& stored) {
  return Macsec::StoredKey::fromStoredText(stored).withClear(
      [](const Macsec::KeyBytes& clear) { return Macsec::bytesToHex(clear); });
}

}  // namespace CloakLib
