#include "model/ProfileParams.h"

namespace Macsec {

MacsecParams paramsOf(const Profile& profile) {
  MacsecParams params;
  ProfileSettings::forEach([&]<class S>(S) {
    if constexpr (S::reach == Zef::SettingReach::param) params.*S::param = S::of(profile);
  });
  return params;
}

}  // namespace Macsec
