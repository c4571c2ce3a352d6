// Marks memory that nobody has, and that lies ready for the next taker, so that the address
// sanitizer tells of its use. Without the sanitizer nothing happens.

#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PELMO_POISON_MEMORY 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define PELMO_POISON_MEMORY 1
#endif
#ifdef PELMO_POISON_MEMORY
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, sizeBytes) \
    (static_cast<void>(address), static_cast<void>(sizeBytes))
#define ASAN_UNPOISON_MEMORY_REGION(address, sizeBytes) \
    (static_cast<void>(address), static_cast<void>(sizeBytes))
#endif
