// Host status messages, those on subjects below _PM.INFO.SYSTEM.HOST: each is kept as it stood in
// its packet, under its net, until the next snapshot takes it over. They count as ordinary traffic
// too; this is only a copy. They are kept whether or not they are to be shown.
//
// Failure: a message that memory can't hold is logged and not kept; what was held stays.
//
// Threads: under `statsLock`.

#pragma once

#include <cstddef>
#include <cstdint>

#include "trace/counts/statistics.h"

// Messages are held and handed on at this alignment, in bytes.
constexpr uint32_t kStatusAlignment = 4;

[[nodiscard]] constexpr uint32_t statusPadded(uint32_t length) {
    return (length + kStatusAlignment - 1) & ~(kStatusAlignment - 1);
}

// `subject` is packed and well formed. True below the prefix, not at it.
[[nodiscard]] bool hostStatusMatch(const uint8_t* subject);

// `length` bytes are in hand at `message`, whose first word says the same.
void hostStatusStore(NetEntry& net, const uint8_t* message, uint32_t length);
