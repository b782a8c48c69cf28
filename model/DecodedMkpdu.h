#pragma once

// One MKPDU as values, as the codec decodes it and as the actor that its CKN names reads it.

#include <cstdint>
#include <utility>
#include <vector>

#include "model/Values.h"

namespace Macsec {

// A set the MKPDU did not carry is its default value; the peer lists are in the order the sender
// gave them.
struct DecodedMkpdu {
  BasicInfo baseInfo;
  SakUseInfo sakUseInfo;
  SakDistInfo sakDistInfo;
  CakDistInfo cakDistInfo;
  std::vector<std::pair<MemberId, uint32_t>> livePeers;
  std::vector<std::pair<MemberId, uint32_t>> potentialPeers;
  bool operator==(const DecodedMkpdu&) const = default;
};

}  // namespace Macsec
