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
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "trace/counts/statistics.h"

// Messages are held and handed on at this alignment, in bytes.
constexpr uint32_t kStatusAlignment = 4;

[[nodiscard]] constexpr uint32_t statusPadded(uint32_t length) {
    return (length + kStatusAlignment - 1) & ~(kStatusAlignment - 1);
}

// The packed elements of _PM.INFO.SYSTEM.HOST: size, text, NUL of each.
inline constexpr uint8_t kHostStatusPrefix[] = {
    5, '_', 'P', 'M', 0,   6,   'I', 'N', 'F', 'O', 0,                 //
    8, 'S', 'Y', 'S', 'T', 'E', 'M', 0,   6,   'H', 'O', 'S', 'T', 0,  //
};
static_assert(sizeof kHostStatusPrefix == 25);

// `subject` is packed and well formed. True below the prefix, not at it. Nearly every message is
// told apart by its length or its first characters.
[[nodiscard]] inline bool hostStatusMatch(const uint8_t* subject) {
    const uint8_t* elements = subject + kSubjectHeadBytes;
    return subjectLength(subject) > kSubjectHeadBytes + sizeof kHostStatusPrefix &&
           loadBe32At(elements) == loadBe32At(kHostStatusPrefix) &&
           std::memcmp(elements, kHostStatusPrefix, sizeof kHostStatusPrefix) == 0;
}

// `length` bytes are in hand at `message`, whose first word says the same.
void hostStatusStore(NetEntry& net, const uint8_t* message, uint32_t length);
