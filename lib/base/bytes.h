// Bytes from outside: one bounded cursor and one set of loads. All code that reads a packet, a file
// or a received message uses these.
//
// Ownership: a cursor borrows its bytes.
//
// Byte order: loadBe* return the number of the big-endian bytes. loadNet* return the word as it is
// in memory, in network order: the tool keeps addresses and ports in that form and converts them
// only to compare them with constants, to sort and to show them.
//
// A load tolerates any alignment. One that would read past the end returns 0: a caller that must
// distinguish a short packet from a field of 0 asks cursorHolds first. loadBe*At are for bytes that
// such a check has already covered, and store*At for room that the caller knows to exist.

#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

// A place in bytes from outside; offsets count from it.
struct Cursor {
    std::span<const uint8_t> left;  // from here to the last byte that may be read
};

// Compares with what is left; a sum could overflow.
[[nodiscard]] inline bool cursorHolds(Cursor cursor, size_t offset, size_t sizeBytes) {
    const size_t leftBytes = cursor.left.size();
    return offset <= leftBytes && sizeBytes <= leftBytes - offset;
}

[[nodiscard]] inline uint16_t loadNet16At(const uint8_t* at) {
    uint16_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

[[nodiscard]] inline uint32_t loadNet32At(const uint8_t* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// Network order to the host's, and back: the same exchange.
[[nodiscard]] inline uint16_t hostOrder16(uint16_t word) {
    if constexpr (std::endian::native == std::endian::little) return __builtin_bswap16(word);
    return word;
}

[[nodiscard]] inline uint32_t hostOrder32(uint32_t word) {
    if constexpr (std::endian::native == std::endian::little) return __builtin_bswap32(word);
    return word;
}

[[nodiscard]] inline uint16_t loadBe16At(const uint8_t* at) {
    return hostOrder16(loadNet16At(at));
}

[[nodiscard]] inline uint32_t loadBe32At(const uint8_t* at) {
    return hostOrder32(loadNet32At(at));
}

[[nodiscard]] inline uint64_t loadBe64At(const uint8_t* at) {
    return uint64_t{loadBe32At(at)} << 32 | loadBe32At(at + 4);
}

[[nodiscard]] inline uint16_t loadNet16(Cursor cursor, size_t offset) {
    return cursorHolds(cursor, offset, 2) ? loadNet16At(cursor.left.data() + offset) : uint16_t{0};
}

[[nodiscard]] inline uint32_t loadNet32(Cursor cursor, size_t offset) {
    return cursorHolds(cursor, offset, 4) ? loadNet32At(cursor.left.data() + offset) : 0;
}

[[nodiscard]] inline uint16_t loadBe16(Cursor cursor, size_t offset) {
    return hostOrder16(loadNet16(cursor, offset));
}

[[nodiscard]] inline uint32_t loadBe32(Cursor cursor, size_t offset) {
    return hostOrder32(loadNet32(cursor, offset));
}

[[nodiscard]] inline uint64_t loadBe64(Cursor cursor, size_t offset) {
    return cursorHolds(cursor, offset, 8) ? loadBe64At(cursor.left.data() + offset) : 0;
}

inline void storeNet16At(uint8_t* at, uint16_t word) {
    std::memcpy(at, &word, sizeof word);
}

inline void storeNet32At(uint8_t* at, uint32_t word) {
    std::memcpy(at, &word, sizeof word);
}

inline void storeBe16At(uint8_t* at, uint16_t number) {
    storeNet16At(at, hostOrder16(number));
}

inline void storeBe32At(uint8_t* at, uint32_t number) {
    storeNet32At(at, hostOrder32(number));
}

inline void storeBe64At(uint8_t* at, uint64_t number) {
    storeBe32At(at, static_cast<uint32_t>(number >> 32));
    storeBe32At(at + 4, static_cast<uint32_t>(number));
}
