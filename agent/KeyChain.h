#pragma once

// Key chains: pre-shared keys that follow one another by schedule, as operators know them from
// routing protocols. Each key is in use from its start to its end; the profile that names the chain
// runs the key in use at the moment, and the engine carries the session over from one key to the
// next without a hit: the new key's actor comes up beside the running one, takes the port once it
// is secured, and the old one goes after. Two hosts whose clocks differ meet on the new key as soon
// as the later one has started it; the old key's session carries the traffic until then.

#include <optional>
#include <string>
#include <vector>

#include "model/Values.h"

namespace Macsec {

// One key of a chain: in use from `start` to `end` (none: for ever), in wall clock seconds (UTC).
struct ChainKey {
  Cak key;
  double start = 0;
  std::optional<double> end;
};

// The keys, in the order of their starts.
struct KeyChain {
  std::vector<ChainKey> keys;
};

// The key in use at `now`: the one started last among those not ended; none in a gap.
const ChainKey* chainKeyAt(const KeyChain& chain, double now);
// The next moment after `now` at which the key in use changes, if there is one.
std::optional<double> nextRollover(const KeyChain& chain, double now);
// What an operator should hear of a chain from `now` on, each in a sentence: keys that have
// expired, keys that overlap (the later one takes over at its start), gaps without a key, and the
// end of the last key.
std::vector<std::string> chainWarnings(const KeyChain& chain, double now);

// A moment in UTC as RFC 3339 text, to the second: "2026-11-26T10:00:00Z".
std::string rfc3339(double utc);

}  // namespace Macsec
