// Host status messages, those on subjects below _PM.INFO.SYSTEM.HOST: the bytes of each are copied
// from its packet and kept under its net until the next snapshot. The messages are also counted as
// ordinary traffic. They are kept whether or not they will be shown.
//
// Failure: when memory runs out the message isn't kept, which is logged; messages kept before stay.
//
// Threads: under `statsLock`.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "trace/counts/statistics.h"

// The alignment of kept messages, here and in a Snapshot, in bytes.
constexpr uint32_t kStatusAlignment = 4;

[[nodiscard]] constexpr uint32_t statusPadded(uint32_t length) {
    return (length + kStatusAlignment - 1) & ~(kStatusAlignment - 1);
}

// The packed elements of _PM.INFO.SYSTEM.HOST: size, text, NUL of each.
inline constexpr uint8_t hostStatusPrefix[] = {
    5, '_', 'P', 'M', 0,   6,   'I', 'N', 'F', 'O', 0,                 //
    8, 'S', 'Y', 'S', 'T', 'E', 'M', 0,   6,   'H', 'O', 'S', 'T', 0,  //
};
static_assert(sizeof hostStatusPrefix == 25);

// `subject` is packed and well formed. True for subjects below the prefix, not for the prefix
// itself. The length or the first characters rule out nearly every other message.
[[nodiscard]] inline bool hostStatusMatch(const uint8_t* subject) {
    const uint8_t* elements = subject + kSubjectHeadBytes;
    return subjectLength(subject) > kSubjectHeadBytes + sizeof hostStatusPrefix &&
           loadBe32At(elements) == loadBe32At(hostStatusPrefix) &&
           std::memcmp(elements, hostStatusPrefix, sizeof hostStatusPrefix) == 0;
}

// `message` has `length` bytes, and its first word has the same number.
void hostStatusStore(NetEntry& net, const uint8_t* message, uint32_t length);
