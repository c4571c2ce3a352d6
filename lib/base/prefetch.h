// Asking the cache for memory ahead of its use. The caller doesn't wait for it, and a prefetch
// never faults: any address may be asked for, null as well.

#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kCacheLineBytes = 64;

// One cache line. The compiler takes a function that does nothing but prefetch for one without
// effect and drops the calls to it, which the empty statement keeps it from.
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
