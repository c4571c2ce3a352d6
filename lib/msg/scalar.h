// The value of a scalar as it stands in a record: a size byte and big-endian bytes. Integers,
// floats, ports and addresses fold into four wire types; the size byte tells them apart.

#pragma once

#include <bit>
#include <cstdint>
#include <type_traits>

#include "lib/base/bytes.h"
#include "lib/msg/field.h"

// What a writer puts down for the type.
[[nodiscard]] constexpr uint8_t scalarWireType(uint8_t type) {
    if (type == FIELD_F32 || type == FIELD_F64) return WIRE_FLOAT;
    if (type == FIELD_IPPORT16 || type == FIELD_IPADDR32) return WIRE_NETINT;
    if (type < FIELD_I8 || type > FIELD_U64) return type;
    return (type - FIELD_I8) % 2 == 0 ? WIRE_INT : WIRE_UINT;
}

// The number that the value's bytes spell on the wire.
template <uint8_t kType, typename Value>
[[nodiscard]] constexpr auto scalarWord(Value value) {
    if constexpr (kType == FIELD_BOOL) {
        return static_cast<uint8_t>(value != 0);
    } else if constexpr (kType == FIELD_IPPORT16) {
        return hostOrder16(value);
    } else if constexpr (kType == FIELD_IPADDR32) {
        return hostOrder32(value);
    } else if constexpr (kType == FIELD_F32) {
        return std::bit_cast<uint32_t>(value);
    } else if constexpr (kType == FIELD_F64) {
        return std::bit_cast<uint64_t>(value);
    } else {
        return static_cast<std::make_unsigned_t<Value>>(value);
    }
}

template <uint8_t kType, typename Value>
constexpr uint32_t kScalarBytes = sizeof(scalarWord<kType>(Value{}));

// Size byte and value, for which there is room.
template <uint8_t kType, typename Value>
void storeScalar(uint8_t* at, Value value) {
    const auto word = scalarWord<kType>(value);
    at[0] = sizeof word;
    if constexpr (sizeof word == 1) at[1] = word;
    if constexpr (sizeof word == 2) storeBe16At(at + 1, word);
    if constexpr (sizeof word == 4) storeBe32At(at + 1, word);
    if constexpr (sizeof word == 8) storeBe64At(at + 1, word);
}
