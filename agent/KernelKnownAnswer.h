#pragma once

// The kernel's MACsec under a known-answer test. A throw-away MACsec link is made on a private veth
// pair, in a network namespace of its own, with the test key (00 01 02 ..., 16 or 32 octets): a
// known frame sent through the link must reach the wire as the protected frame computed here with
// OpenSSL, and that protected frame sent from the wire must come out of the link as the known
// frame. The test runs in a child process, so that the namespace and everything in it go with it
// whatever happens, and waits a few seconds at most.

#include <string>

namespace Macsec {

struct KnownAnswer {
  bool passed = false;
  std::string detail;  // what failed, or what passed
};

// One direction of one key length: `keyBits` 128 or 256.
KnownAnswer kernelKnownAnswer(int keyBits, bool encrypt);

}  // namespace Macsec
