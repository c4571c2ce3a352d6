// A whole message of the bus: the envelope, and within it the application's message.
//
//     head | "sub" | "return" | "mtype" | "data": head | fields ... | filler
//
// Failure: false where it doesn't fit; nothing of it is left in the writer then.

#pragma once

#include <cstdint>
#include <span>

#include "tools/pelmogen/byte_writer.h"
#include "tools/pelmogen/fields.h"
#include "tools/pelmogen/prng.h"

// Bytes from a message's start to its packed subject.
constexpr size_t kMessageSubjectOffset = 15;

struct MessageShape {
    std::span<const uint8_t> subject;  // packed; none: the envelope is "data" alone
    bool reply;
    uint32_t fields;                 // at most; what would pass the size is left out
    std::span<const uint8_t> types;  // rows of fieldTypes to choose from
    size_t sizeBytes;                // to fill up to; the envelope may need more
};

[[nodiscard]] bool putMessage(ByteWriter& writer, const MessageShape& shape, Prng& prng);
