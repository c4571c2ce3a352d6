// The types of fields as Python programs name them, the same words that pelmobus uses: "u16",
// "datetime", and "u16[]" for an array of them.
//
// Threads: nothing here changes.

#pragma once

#include <cstdint>
#include <string_view>

#include "lib/pelmo.h"

struct Kind {
    const char* name;
    uint8_t code;
    uint8_t sizeBytes;  // of a number, an address or a port, else 0
    char format;        // of a number, as the struct module has it, else 0
    uint8_t arrayCode;  // 0 if there is no array of it
};

// Null for a name or code that isn't known. `outArray` says whether the array is meant.
[[nodiscard]] const Kind* kindByName(std::string_view name, bool& outArray);
[[nodiscard]] const Kind* kindByCode(uint8_t code, bool& outArray);

// The number of the host's byte order and that size which a buffer's format means; null for others.
[[nodiscard]] const Kind* kindByFormat(const char* format, int64_t sizeBytes);
