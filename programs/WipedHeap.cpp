// Every block that mkad frees through operator delete is wiped first. Parsers and containers copy
// what they read, a key in a configuration file among it, into buffers that they free without
// wiping, on their error paths too; wiped on free, no such copy stays behind in the heap. Not
// under AddressSanitizer, which keeps its own books of new and delete.

#include <malloc.h>
#include <string.h>

#include <cstdlib>
#include <new>

#include "programs/WipedHeap.h"

#if MKAD_WIPED_HEAP

namespace {

void wipeAndFree(void* block) noexcept {
  if (block == nullptr) return;
  explicit_bzero(block, malloc_usable_size(block));
  std::free(block);
}

}  // namespace

void operator delete(void* block) noexcept { wipeAndFree(block); }
void operator delete[](void* block) noexcept { wipeAndFree(block); }
void operator delete(void* block, std::size_t) noexcept { wipeAndFree(block); }
void operator delete[](void* block, std::size_t) noexcept { wipeAndFree(block); }

#endif
