// Tells the leak check of address-sanitizer builds of a record whose address it can't find: one
// that is kept only in a slot beside a hash, not as a pointer. Without the sanitizer nothing
// happens.

#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PELMO_LEAK_CHECK 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define PELMO_LEAK_CHECK 1
#endif
#ifdef PELMO_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

// The record isn't a leak, wherever its address is kept. It can be freed as usual.
inline void leakCheckSkip([[maybe_unused]] const void* record) {
#ifdef PELMO_LEAK_CHECK
    __lsan_ignore_object(record);
#endif
}
