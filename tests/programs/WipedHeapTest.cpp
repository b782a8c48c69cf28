// mkad's heap keeps nothing of a freed block: the same block, allocated again at once, shows no
// octet of what it held, past the allocator's own bookkeeping at its start.

#include <gtest/gtest.h>

#include <cstring>
#include <new>

#include "programs/WipedHeap.h"

namespace {

TEST(WipedHeap, AFreedBlockKeepsNothingOfWhatItHeld) {
  if (!MKAD_WIPED_HEAP) GTEST_SKIP() << "AddressSanitizer replaces new and delete";
  constexpr size_t kSize = 256;
  constexpr size_t kBookkeeping = 32;
  for (int attempt = 0; attempt < 8; ++attempt) {
    auto* block = static_cast<unsigned char*>(::operator new(kSize));
    std::memset(block, 'K', kSize);
    ::operator delete(block);
    auto* again = static_cast<unsigned char*>(::operator new(kSize));
    const bool same = again == block;
    size_t kept = 0;
    for (size_t i = kBookkeeping; same && i < kSize; ++i) kept += again[i] == 'K' ? 1 : 0;
    ::operator delete(again);
    if (!same) continue;
    EXPECT_EQ(kept, 0u);
    return;
  }
  GTEST_SKIP() << "the allocator never gave the same block back";
}

}  // namespace
