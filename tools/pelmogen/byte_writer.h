// Writes big-endian bytes into a buffer of fixed size.
//
// Ownership: the buffer belongs to the caller.
//
// Failure: what doesn't fit isn't written and sets `full`; what was written before stays valid. The
// caller tests `full` once, at the end of a unit, and undoes the unit with writerRewind.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "lib/base/bytes.h"

struct ByteWriter {
    std::span<uint8_t> room;
    size_t used = 0;
    bool full = false;
};

// Takes `sizeBytes` of the buffer; null when they don't fit.
[[nodiscard]] inline uint8_t* writerTake(ByteWriter& writer, size_t sizeBytes) {
    if (sizeBytes > writer.room.size() - writer.used) writer.full = true;
    if (writer.full) return nullptr;
    uint8_t* at = writer.room.data() + writer.used;
    writer.used += sizeBytes;
    return at;
}

inline void writerRewind(ByteWriter& writer, size_t used) {
    writer.used = used;
    writer.full = false;
}

inline void put8(ByteWriter& writer, uint8_t value) {
    if (uint8_t* at = writerTake(writer, 1)) *at = value;
}

inline void putBe16(ByteWriter& writer, uint16_t value) {
    if (uint8_t* at = writerTake(writer, 2)) storeBe16At(at, value);
}

inline void putBe32(ByteWriter& writer, uint32_t value) {
    if (uint8_t* at = writerTake(writer, 4)) storeBe32At(at, value);
}

inline void putBe64(ByteWriter& writer, uint64_t value) {
    putBe32(writer, static_cast<uint32_t>(value >> 32));
    putBe32(writer, static_cast<uint32_t>(value));
}

inline void putBytes(ByteWriter& writer, std::span<const uint8_t> bytes) {
    if (bytes.empty()) return;
    if (uint8_t* at = writerTake(writer, bytes.size())) std::memcpy(at, bytes.data(), bytes.size());
}

// Writes the text and its NUL.
inline void putText(ByteWriter& writer, std::string_view text) {
    uint8_t* at = writerTake(writer, text.size() + 1);
    if (at == nullptr) return;
    std::memcpy(at, text.data(), text.size());
    at[text.size()] = 0;
}

// The bytes written since `from`.
[[nodiscard]] inline std::span<const uint8_t> writtenSince(const ByteWriter& writer, size_t from) {
    return writer.room.subspan(from, writer.used - from);
}
