#pragma once

// Asks the processor to bring the leading octets of a record into its cache while other work goes
// on. A handler about to read several records that lie far apart in memory asks for them all at
// once, so that their trips to memory overlap instead of following one another.

#include <cstddef>

namespace Zef {

inline void prefetch(const void* record, size_t octets) noexcept {
  if (record == nullptr || octets == 0) return;
  const char* at = static_cast<const char*>(record);
  for (size_t offset = 0; offset < octets; offset += 64) __builtin_prefetch(at + offset);
  __builtin_prefetch(at + octets - 1);
}

}  // namespace Zef
