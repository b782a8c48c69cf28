#include "agent/KeyChain.h"

#include <algorithm>
#include <ctime>

namespace Macsec {

namespace {

bool inUse(const ChainKey& key, double now) { return key.start <= now && (!key.end || now < *key.end); }

std::string named(const ChainKey& key) { return "key " + key.key.ckn.hex().stdString(); }

}  // namespace

std::string rfc3339(double utc) {
  const std::time_t seconds = static_cast<std::time_t>(utc);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

const ChainKey* chainKeyAt(const KeyChain& chain, double now) {
  const ChainKey* current = nullptr;
  for (const ChainKey& key : chain.keys) {
    if (inUse(key, now) && (!current || key.start >= current->start)) current = &key;
  }
  return current;
}

std::optional<double> nextRollover(const KeyChain& chain, double now) {
  // The key in use can change only at a start or an end.
  std::optional<double> next;
  const ChainKey* current = chainKeyAt(chain, now);
  for (const ChainKey& key : chain.keys) {
    for (const std::optional<double> moment : {std::optional<double>(key.start), key.end}) {
      if (!moment || *moment <= now || (next && *moment >= *next)) continue;
      if (chainKeyAt(chain, *moment) != current) next = moment;
    }
  }
  return next;
}

std::vector<std::string> chainWarnings(const KeyChain& chain, double now) {
  std::vector<std::string> warnings;
  for (const ChainKey& key : chain.keys) {
    if (key.end && *key.end <= now) warnings.push_back(named(key) + " expired at " + rfc3339(*key.end));
  }
  for (size_t i = 0; i + 1 < chain.keys.size(); ++i) {
    const ChainKey& key = chain.keys[i];
    const ChainKey& next = chain.keys[i + 1];
    if (key.end && *key.end <= now) continue;
    if (!key.end || *key.end > next.start) {
      warnings.push_back(named(key) + " overlaps " + named(next) + ", which takes over at " + rfc3339(next.start));
    }
  }
  // The first gap from now on: a moment at which no key is in use, until the next one starts.
  bool gap = chainKeyAt(chain, now) == nullptr;
  double from = now;
  for (const ChainKey& key : chain.keys) {
    if (!key.end || *key.end <= now || chainKeyAt(chain, *key.end)) continue;
    from = gap ? std::min(from, *key.end) : *key.end;
    gap = true;
  }
  if (gap) {
    std::optional<double> until;
    for (const ChainKey& key : chain.keys) {
      if (key.start > from && (!until || key.start < *until)) until = key.start;
    }
    warnings.push_back(until ? "no key from " + rfc3339(from) + " to " + rfc3339(*until)
                             : "no key from " + rfc3339(from) + " on: the last key ends there");
  }
  return warnings;
}

}  // namespace Macsec
