// A field as it stands in a message's image, for values that the library has no decoder for: it
// gives neither their bytes nor, with them, their names.
//
//     u8 size N of the name area | name, NUL, big-endian u16 id | u8 type | size prefix | value
//
// The id, or all of the name area, may be missing. The size prefix is one byte up to 119; or 121
// and a big-endian u16, or 122 and a u32, each of which counts its own bytes too.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "lib/pelmo.h"

struct RawField {
    const char* name = nullptr;  // null for a field without one
    uint16_t id = 0;
    uint8_t type = 0;
    std::span<const uint8_t> value;
};

// The field of that number, from 0. All is good until the message changes. kStatusNotFound beyond
// the last field, kStatusCorruptMessage, and what pelmoMsg_GetAsBytes gives.
[[nodiscard]] pelmoStatus rawFieldGet(pelmoMsg* msg, uint32_t number, RawField& out);
