#include "model/CryptoMode.h"

#include <openssl/evp.h>
#include <openssl/provider.h>

namespace Macsec {

namespace {

bool openSslFipsModeIs(bool on) {
  if (!on) return EVP_default_properties_enable_fips(nullptr, 0) == 1;
  // The provider stays loaded for the life of the process, as the library's mode does.
  if (OSSL_PROVIDER_load(nullptr, "fips") == nullptr) return false;
  return EVP_default_properties_enable_fips(nullptr, 1) == 1;
}

std::function<bool(bool)>& installedSwitch() {
  static std::function<bool(bool)> fipsSwitch;
  return fipsSwitch;
}

}  // namespace

bool fipsModeIs(bool on) { return installedSwitch() ? installedSwitch()(on) : openSslFipsModeIs(on); }

void fipsModeSwitchIs(std::function<bool(bool on)> fipsSwitch) { installedSwitch() = std::move(fipsSwitch); }

}  // namespace Macsec
