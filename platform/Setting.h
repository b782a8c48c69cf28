#pragma once

// Where a declared setting goes, as its `settings` group says: what generated code and the
// templates that walk a group (S::reach) need to tell the settings apart.

namespace Zef {

enum class SettingReach {
  // A parameter, fixed for the life of what is made with it: a change makes it anew.
  param,
  // Copied to what runs with it, and changed there in place.
  live,
  // Read where it is configured, and nowhere else.
  profile,
};

}  // namespace Zef
