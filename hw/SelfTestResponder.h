#pragma once

#include <cstdint>
#include <ostream>

namespace Macsec {

// How the emulated hardware takes part in the power-on self test. When on, it mirrors each stage
// the test writes in CpStatus.postStatus to its hwPostStatus, and loops each test frame back
// through AES-GCM with the test key, as a cipher path under test does. It can also be told to
// corrupt what it loops back, or to stay silent, so that the test's failures can be driven.
enum SelfTestResponder : uint8_t {
  selfTestResponderOff = 0,
  selfTestResponderOn = 1,
  selfTestResponderCorrupt = 2,
  selfTestResponderSilent = 3,
};

inline std::ostream& operator<<(std::ostream& out, SelfTestResponder responder) {
  static const char* names[] = {"off", "on", "corrupt", "silent"};
  return out << (responder <= selfTestResponderSilent ? names[responder] : "unknown");
}

}  // namespace Macsec
