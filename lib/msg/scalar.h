// The value of a scalar as it is in a record after the size byte, in big-endian bytes. Integers,
// floats, ports and addresses fold into four wire types; the size byte distinguishes their widths.
// Dates have a form of their own.

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

// The value's bytes, for which there is room.
template <uint8_t kType, typename Value>
void storeScalar(uint8_t* at, Value value) {
    const auto word = scalarWord<kType>(value);
    if constexpr (sizeof word == 1) at[0] = word;
    if constexpr (sizeof word == 2) storeBe16At(at, word);
    if constexpr (sizeof word == 4) storeBe32At(at, word);
    if constexpr (sizeof word == 8) storeBe64At(at, word);
}

template <uint8_t kType, typename Value>
[[nodiscard]] Value loadScalar(const uint8_t* at) {
    if constexpr (kType == FIELD_IPPORT16) {
        return loadNet16At(at);
    } else if constexpr (kType == FIELD_IPADDR32) {
        return loadNet32At(at);
    } else if constexpr (kScalarBytes<kType, Value> == 1) {
        return static_cast<Value>(at[0]);
    } else if constexpr (sizeof(Value) == 2) {
        return static_cast<Value>(loadBe16At(at));
    } else if constexpr (sizeof(Value) == 4) {
        return std::bit_cast<Value>(loadBe32At(at));
    } else {
        return std::bit_cast<Value>(loadBe64At(at));
    }
}

// A date: the low word of the seconds, then a word of their high byte and the microseconds.
constexpr uint32_t kDateTimeFieldBytes = 12;
constexpr uint32_t kDateTimeWireBytes = 8;

[[nodiscard]] constexpr bool dateTimeFits(const pelmoMsgDateTime& value) {
    constexpr int64_t kBeyondSeconds = int64_t{1} << 39;
    constexpr uint32_t kMostNanoseconds = 999999999;
    return value.seconds >= -kBeyondSeconds && value.seconds < kBeyondSeconds &&
           value.nanoseconds <= kMostNanoseconds;
}

inline void storeDateTime(uint8_t* at, const pelmoMsgDateTime& value) {
    const auto bits = static_cast<uint64_t>(value.seconds);
    storeBe32At(at, static_cast<uint32_t>(bits));
    storeBe32At(at + 4, static_cast<uint32_t>(bits >> 32 << 24) | value.nanoseconds / 1000);
}

[[nodiscard]] inline pelmoMsgDateTime loadDateTime(const uint8_t* at) {
    constexpr uint32_t kMicrosecondMask = 0xffffff;
    const uint32_t low = loadBe32At(at);
    const uint32_t rest = loadBe32At(at + 4);
    const auto high = static_cast<int8_t>(rest >> 24);  // bit 39 of the seconds is their sign
    return {int64_t{high} * (int64_t{1} << 32) + low, (rest & kMicrosecondMask) * 1000};
}
