// The wire format of messages: what the bytes are. Big-endian throughout, nothing is aligned or
// padded; IP ports and addresses are as in packets.
//
//     message:      0 length, these 8 bytes included | 4 magic | 8 field records ...
//     record:       0 N | 1 name area, N bytes | N + 1 type | N + 2 size prefix | value
//     name area:    (nothing) | name NUL | name NUL id(2)
//     size prefix:  v below 120            | 121 v+2 (2 bytes)      | 122 v+4 (4 bytes)
//                   written for v below 120 | 120 to 29999           | 30000 and above
//
// A message as a value takes prefix byte 122, and its own length is what follows; a packed subject
// takes 121 in the same way.
//
// Bytes from outside: each read here stops at `end`, and a length is compared with what is left
// before its use.

#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "lib/base/bytes.h"
#include "lib/base/status.h"
#include "lib/msg/codec.h"

constexpr uint32_t kMessageMagic = 0x9955eeaa;
constexpr uint32_t kMessageHeadBytes = 8;  // length, magic
constexpr uint32_t kMessageMagicOffset = 4;

constexpr uint8_t kFirstLongSizeClass = 120;
constexpr uint8_t kSizeClass16 = 121;
constexpr uint8_t kSizeClass32 = 122;
constexpr uint32_t kFirst16BitSize = 120;
constexpr uint32_t kFirst32BitSize = 30000;
constexpr uint32_t kMostPrefixBytes = 5;

// The head of a record, as the index needs it.
struct WireRecord {
    uint32_t nameSize;      // with the NUL; 0 for no name
    uint32_t nameAreaSize;  // the name's, and 2 for an id
    uint16_t id;            // 0 for none
};

// The application's type of a wire type and the size byte after it: FIELD_BAD where a folded type
// doesn't allow the size. Types that don't fold stay.
[[nodiscard]] uint8_t wireApplicationType(uint8_t wireType, uint8_t sizeByte);

// 1, 3 or 5 bytes.
[[nodiscard]] constexpr uint32_t sizePrefixBytes(uint64_t value) {
    return value < kFirst16BitSize ? 1 : value < kFirst32BitSize ? 3 : 5;
}

// The value with its prefix.
[[nodiscard]] constexpr uint64_t sizePrefixedLength(uint64_t value) {
    return value + sizePrefixBytes(value);
}

// kStatusInvalidArgument without a cursor, kStatusNoMemory without room for the prefix,
// kStatusInvalidSize for a value too large for any prefix.
[[nodiscard]] pelmoStatus writeSizePrefix(pelmoWriteCursor* cursor, uint64_t value);

// Leaves the cursor after the prefix. The length may be more than what is left.
// kStatusInvalidArgument for no arguments, kStatusInvalidSize for a byte that is no class,
// kStatusCorruptMessage where the prefix is cut or its length doesn't cover its own bytes.
[[nodiscard]] pelmoStatus readSizePrefix(pelmoReadCursor* cursor, uint32_t* out);

// The same for a value that must be complete: kStatusCorruptMessage if it isn't.
[[nodiscard]] pelmoStatus readValueLength(pelmoReadCursor& cursor, uint32_t& length);

// The bytes of a value whose type is at `type`, as they are. Where their length is malformed, all
// that is left of the record.
[[nodiscard]] std::span<const uint8_t> wireValueBytes(const uint8_t* type, const uint8_t* end);

[[nodiscard]] inline uint64_t readLeft(const pelmoReadCursor& cursor) {
    return static_cast<uint64_t>(cursor.end - cursor.at);
}

[[nodiscard]] inline uint64_t writeRoom(const pelmoWriteCursor& cursor) {
    return static_cast<uint64_t>(cursor.end - cursor.at);
}

constexpr uint32_t kIdBytes = 2;

// N alone distinguishes the forms of the name area: with an id, the name's NUL is three bytes from
// the end. False for a name without one.
[[nodiscard]] inline bool wireNameAreaRead(const uint8_t* record, WireRecord& out) {
    const uint32_t areaSize = record[0];
    if (areaSize >= kIdBytes && record[areaSize - kIdBytes] == 0) {
        out = {areaSize - kIdBytes, areaSize, loadBe16At(record + areaSize - 1)};
        return true;
    }
    out = {areaSize, areaSize, 0};
    return record[areaSize] == 0;
}

// Without its NUL; empty for no name as well.
[[nodiscard]] inline std::string_view wireName(const uint8_t* record, const WireRecord& head) {
    const auto* const name = reinterpret_cast<const char*>(record + 1);
    return {name, head.nameSize != 0 ? head.nameSize - 1 : 0};
}

// Reads the record at `at`, which is below `end`. Returns where the next one begins, at most `end`;
// null for a record that is malformed or reaches past the end. Looks at no value.
[[nodiscard]] inline const uint8_t* wireRecordRead(const uint8_t* at,
                                                   const uint8_t* end,
                                                   WireRecord& record) {
    constexpr uint32_t kTypeAndPrefixBytes = 2;
    const uint32_t areaSize = at[0];
    const auto left = static_cast<uint64_t>(end - at);
    if (areaSize + 1 + kTypeAndPrefixBytes > left) return nullptr;
    if (!wireNameAreaRead(at, record)) return nullptr;

    pelmoReadCursor value{at + areaSize + 1 + kTypeAndPrefixBytes, end};
    const uint8_t sizeClass = value.at[-1];
    uint64_t sizeBytes = sizeClass;
    if (sizeClass == kSizeClass16) {
        if (readLeft(value) < 2) return nullptr;
        sizeBytes = loadBe16At(value.at);
    } else if (sizeClass == kSizeClass32) {
        if (readLeft(value) < 4) return nullptr;
        sizeBytes = loadBe32At(value.at);
    } else if (sizeClass >= kFirstLongSizeClass) {
        return nullptr;
    }
    return sizeBytes <= readLeft(value) ? value.at + sizeBytes : nullptr;
}
