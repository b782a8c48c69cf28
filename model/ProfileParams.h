#pragma once

// The MACsec parameters of a profile: the settings that an interface's status is made with, and
// that are fixed for its life (a change means a new status).

#include "model/Config.h"

namespace Macsec {

MacsecParams paramsOf(const Profile& profile);

}  // namespace Macsec
