// A whole message of the bus: the envelope, and within it the application's message.
//
//     head | "sub" | "return" | "mtype" | "data": head | fields ... | filler
//
// Failure: false when it doesn't fit; the writer is then as before.

#pragma once

#include <cstdint>
#include <span>

#include "tools/pelmogen/byte_writer.h"
#include "tools/pelmogen/fields.h"
#include "tools/pelmogen/prng.h"

// The offset of the packed subject in a message, in bytes.
constexpr size_t kMessageSubjectOffset = 15;

struct MessageShape {
    std::span<const uint8_t> subject;  // packed; empty: the envelope has only "data"
    bool reply;
    uint32_t fields;                 // at most; fields that don't fit are left out
    std::span<const uint8_t> types;  // rows of fieldTypes to choose from
    size_t sizeBytes;                // to fill up to; the envelope may need more
};

[[nodiscard]] bool putMessage(ByteWriter& writer, const MessageShape& shape, Prng& prng);
