#pragma once

// The file that carries the engine's saved state from one run of mkad to the next. It is replaced
// whole (written beside, then renamed over), so that a crash leaves the last complete state, never
// part of one; it is readable by root alone. It holds no key (engine/SavedState.h).

#include <sys/types.h>

#include <optional>
#include <string>

namespace Macsec {

// The file's text; none if there is no file. An unreadable file gives the reason in `error`.
std::optional<std::string> readStateFile(const std::string& path, std::string& error);
// Returns the reason if the file could not be written; the previous one is then left as it was.
std::optional<std::string> writeStateFile(const std::string& path, const std::string& text);
// Any file replaced whole so, with its permissions.
std::optional<std::string> writeFileWhole(const std::string& path, const std::string& text, mode_t mode);
void removeStateFile(const std::string& path);

}  // namespace Macsec
