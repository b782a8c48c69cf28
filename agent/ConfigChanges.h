#pragma once

// What a reload changes, in words for the operators' log: interfaces added, removed or moved to
// another profile, profiles added and removed, settings changed, and keys replaced, each key named
// by its CKN and never by its value.

#include <string>
#include <vector>

#include "agent/ConfigFile.h"

namespace Macsec {

std::vector<std::string> configChanges(const ConfigFile& before, const ConfigFile& after);

}  // namespace Macsec
