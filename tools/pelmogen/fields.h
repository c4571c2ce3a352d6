// The fields that messages are filled with: one row for each wire type, with the function that
// writes its value.
//
//     field:  N | name area, N bytes | type | size prefix | value
//
// The size prefix is one byte for values below 120 bytes; up to 29999 bytes it is 121 and a 16-bit
// word that counts itself; above, 122 and a 32-bit word that counts itself. Big-endian throughout.
//
// Failure: as with ByteWriter.

#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "tools/pelmogen/byte_writer.h"
#include "tools/pelmogen/prng.h"

constexpr uint32_t kMessageMagic = 0x9955eeaa;
constexpr size_t kMessageHeadBytes = 8;

struct FieldType {
    const char* name;
    uint8_t code;
    uint8_t width;  // of a scalar or an element, in bytes; 0 for types without one
    // Writes size prefix and value.
    void (*putValue)(ByteWriter& writer, const FieldType& type, Prng& prng);
};

[[nodiscard]] std::span<const FieldType> fieldTypes();

// Writes a name area with a name and no id.
void putFieldName(ByteWriter& writer, std::string_view name);

// Writes a field whose name says its type and place. Every fourth place has a field id too.
void putField(ByteWriter& writer, const FieldType& type, uint32_t place, Prng& prng);

void putSizePrefix(ByteWriter& writer, size_t valueBytes);

// Writes the head of a message; messageEnd fills in its length.
void messageBegin(ByteWriter& writer);
void messageEnd(ByteWriter& writer, size_t start);

// Fills the rest up to `end` with one nameless opaque field. 2 bytes or fewer, in which no field
// fits, stay unused.
void putFiller(ByteWriter& writer, size_t end, Prng& prng);
