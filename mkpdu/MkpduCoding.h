#pragma once

// Encoding and decoding of whole MKPDU frames (IEEE 802.1X-2010 clause 11), as pure functions of
// the bytes and the keys of the actor that owns the CKN. The decoder trusts nothing: every length
// is checked before it is used, and a malformed frame is refused with a reason, never a throw.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/ActorKeys.h"
#include "model/DecodedMkpdu.h"
#include "model/Values.h"
#include "platform/EthAddr.h"

namespace Macsec {

// Finds the keys of the actor that has a CKN (hexadecimal text) on the frame's interface.
using KeyLookup = std::function<std::optional<ActorKeys>(const Ckn& ckn)>;

enum class DecodeResult {
  accepted,
  tooShort,         // shorter than the EAPOL header and the smallest MKPDU
  notMka,           // another EtherType or EAPOL packet type, or not to the PAE group address
  badVersion,       // an EAPOL or MKA version this decoder does not know
  badBodyLength,    // the EAPOL body length disagrees with the frame
  badParameterSet,  // a parameter set that runs past the body or has a length its type forbids
  badCkn,           // a CKN of no octets or of more than 32
  unknownCkn,       // no actor on the interface has the CKN
  badIcv,           // the integrity check value does not verify
  badKeyWrap,       // a distributed key that does not unwrap with the actor's KEK
  unsupported,      // an algorithm agility value other than AES-CMAC-128
  replayed,         // a member number not above the last one accepted from the same member
};
const char* decodeResultText(DecodeResult result);

// Decodes and verifies a frame. On success `out` holds the message, with any distributed SAK or
// CAK unwrapped and put in stored form; on failure it holds nothing of meaning. Its storage, the
// peer lists', serves again: a caller may pass the same message for every frame.
DecodeResult decodeMkpdu(const uint8_t* frame, size_t length, const KeyLookup& keys, DecodedMkpdu& out);

// Builds the frame of a message from `source`: EAPOL header, basic parameter set with the CKN
// padded to 4 octets, the peer lists when they have members, the SAK use set (and after it the XPN
// set, for an XPN suite) and the distributed SAK set when they are not the default, and the ICV.
// The frame replaces what `frame` held, in its storage; false, and `frame` empty, if the keys
// cannot be used.
bool encodeMkpdu(const DecodedMkpdu& message, const Lanx::EthAddr& source, const ActorKeys& keys, std::string& frame);

}  // namespace Macsec
