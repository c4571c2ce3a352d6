// The fields that messages are filled with: one row a type of the wire, each with the value that it
// takes.
//
//     field:  N | name area, N bytes | type | size prefix | value
//
// Values of under 120 bytes have a size prefix of one byte, up to 29999 bytes 121 and a 16-bit word
// that counts itself, else 122 and a 32-bit word that counts itself. Big-endian throughout.
//
// Failure: as of ByteWriter.

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
    uint8_t width;  // of a scalar or an element, in bytes; 0 where that means nothing
    // Writes size prefix and value.
    void (*putValue)(ByteWriter& writer, const FieldType& type, Prng& prng);
};

[[nodiscard]] std::span<const FieldType> fieldTypes();

// Name area with a name alone.
void putFieldName(ByteWriter& writer, std::string_view name);

// A field of a name that tells its type and place. Every fourth place has a field id too.
void putField(ByteWriter& writer, const FieldType& type, uint32_t place, Prng& prng);

void putSizePrefix(ByteWriter& writer, size_t valueBytes);

// The head of a message; its length is filled in by messageEnd.
void messageBegin(ByteWriter& writer);
void messageEnd(ByteWriter& writer, size_t start);

// Fills what is left up to `end` with one nameless opaque field. Leaves 2 bytes or less where no
// field fits.
void putFiller(ByteWriter& writer, size_t end, Prng& prng);
