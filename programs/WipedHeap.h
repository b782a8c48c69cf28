#pragma once

// Whether mkad's operator delete wipes each block before it frees it (programs/WipedHeap.cpp): it
// does, but under AddressSanitizer, which replaces new and delete with its own.

#if defined(__SANITIZE_ADDRESS__)
#define MKAD_WIPED_HEAP 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MKAD_WIPED_HEAP 0
#endif
#endif
#ifndef MKAD_WIPED_HEAP
#define MKAD_WIPED_HEAP 1
#endif
