// Asking the cache for memory before its use. The caller doesn't wait for it, and a prefetch never
// faults: any address may be asked for, null as well.

#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kCacheLineBytes = 64;

// One cache line. The compiler treats a function that only prefetches as one without effect and
// drops calls to it; the empty statement prevents that.
inline void prefetchLine(const void* at) {
    __builtin_prefetch(at);
    asm volatile("");
}

// Each line that holds one of the bytes. At least one byte.
inline void prefetchBytes(const uint8_t* at, size_t sizeBytes) {
    for (size_t offset = 0; offset < sizeBytes; offset += kCacheLineBytes) {
        prefetchLine(at + offset);
    }
    prefetchLine(at + sizeBytes - 1);
}
