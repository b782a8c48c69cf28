#pragma once

#include <functional>

namespace Macsec {

// Switches the crypto library of the process into FIPS mode or out of it, and says whether it
// could. With OpenSSL 3 that is loading the FIPS provider and making "fips=yes" the default
// property of every fetch; a machine without the provider cannot. The mode belongs to the
// process, like the library itself.
bool fipsModeIs(bool on);

// Replaces what fipsModeIs does, for tests that choose the outcome; null restores OpenSSL's.
void fipsModeSwitchIs(std::function<bool(bool on)> fipsSwitch);

}  // namespace Macsec
