// Hints for the address sanitizer, in builds that have it; no effect elsewhere.
//
// ASAN_POISON_MEMORY_REGION and ASAN_UNPOISON_MEMORY_REGION mark free memory that waits for its
// next user, so that any use of it is reported.
//
// leakCheckSkip marks a block that is no leak although the check at the process' end can't find its
// address: because it is kept in a slot beside a hash and not as a pointer, or in poisoned memory,
// where the check doesn't look. The block can be freed as usual.

#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PELMO_ADDRESS_SANITIZER 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define PELMO_ADDRESS_SANITIZER 1
#endif

#ifdef PELMO_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, sizeBytes) \
    (static_cast<void>(address), static_cast<void>(sizeBytes))
#define ASAN_UNPOISON_MEMORY_REGION(address, sizeBytes) \
    (static_cast<void>(address), static_cast<void>(sizeBytes))
#endif

inline void leakCheckSkip([[maybe_unused]] const void* block) {
#ifdef PELMO_ADDRESS_SANITIZER
    __lsan_ignore_object(block);
#endif
}
