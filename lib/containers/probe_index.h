// A side index of entries that live elsewhere: open addressing in one array, for tables whose
// senders choose the keys. It knows hashes and addresses only; the user compares keys.
//
// A large index is searched at random places and each of them waits for memory, so slots are small
// and well filled: a slot is the entry's address with the upper half of its hash above it.
//
//     63         48                        0
//     | hash >> 16 | address of the entry |        0: free
//
// The hashes are seeded by the process, so that nobody outside can choose keys that meet in one
// place and make every look-up a long walk.
//
// Ownership: an index owns its slots, never the entries. It is usable zeroed, and costs nothing
// until the first insertion.
//
// Failure: an insertion that memory fails, or of an entry at an address that no slot can hold,
// gives false and leaves the index as it was.
//
// Threads: no lock; the owner serialises changes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "lib/base/prefetch.h"

// Drawn from the system before main runs. A test may set it, while no index holds anything.
struct ProbeSeed {
    uint64_t first, second;
};

extern ProbeSeed probeSeed;

struct ProbeIndex {
    uint64_t* slots;  // null until the first insertion
    uint32_t mask;    // slots - 1; their number is a power of two
    uint32_t count;   // entries, at most four fifths of the slots
};

// The hash that an entry of the user's table was put in under. Slots have only half of it.
using ProbeHashOf = uint32_t (*)(const void* entry);

// Where addresses of user space end, on x86-64 and arm64 alike, unless a program asks for more.
constexpr int kProbeAddressBits = 48;

// The one mixer: both halves of a 128-bit product, folded.
[[nodiscard]] inline uint64_t probeMix(uint64_t a, uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

[[nodiscard]] inline uint32_t probeHashKey(uint64_t key) {
    return static_cast<uint32_t>(probeMix(key ^ probeSeed.first, probeSeed.second));
}

// Reads eight bytes at a time, and nothing beyond `sizeBytes`.
[[nodiscard]] inline uint32_t probeHashBytes(const uint8_t* bytes, size_t sizeBytes) {
    const auto load64 = [](const uint8_t* at) {
        uint64_t word;
        std::memcpy(&word, at, sizeof word);
        return word;
    };
    const auto load32 = [](const uint8_t* at) {
        uint32_t word;
        std::memcpy(&word, at, sizeof word);
        return uint64_t{word};
    };

    uint64_t state = probeSeed.first ^ sizeBytes;
    size_t left = sizeBytes;
    while (left > 16) {
        state = probeMix(load64(bytes) ^ probeSeed.second, load64(bytes + 8) ^ state);
        bytes += 16;
        left -= 16;
    }

    // The rest by two loads that may overlap; none reaches outside the bytes.
    uint64_t head = 0;
    uint64_t tail = 0;
    if (left >= 8) {
        head = load64(bytes);
        tail = load64(bytes + left - 8);
    } else if (left >= 4) {
        head = load32(bytes);
        tail = load32(bytes + left - 4);
    } else if (left > 0) {
        head = uint64_t{bytes[0]} << 16 | uint64_t{bytes[left / 2]} << 8 | bytes[left - 1];
    }
    state = probeMix(head ^ probeSeed.second, tail ^ state);
    return static_cast<uint32_t>(state ^ state >> 32);
}

[[nodiscard]] inline void* probeEntry(uint64_t slot) {
    return reinterpret_cast<void*>(slot & ((uint64_t{1} << kProbeAddressBits) - 1));
}

// The entry of this hash for which matches(entry) holds, or null. Asks for few entries of other
// hashes besides.
template <typename Matches>
[[nodiscard]] inline void* probeFind(const ProbeIndex& index, uint32_t hash, Matches matches) {
    if (index.slots == nullptr) return nullptr;
    for (uint32_t at = hash & index.mask;; at = (at + 1) & index.mask) {
        const uint64_t slot = index.slots[at];
        if (slot == 0) return nullptr;
        if (slot >> kProbeAddressBits != hash >> 16) continue;
        void* entry = probeEntry(slot);
        if (matches(entry)) return entry;
    }
}

// Ahead of a search, in two steps with other work between: asks the cache for where it begins, and
// for `sizeBytes` of the entry that it compares first.
inline void probePrefetchSlot(const ProbeIndex& index, uint32_t hash) {
    if (index.slots != nullptr) prefetchLine(&index.slots[hash & index.mask]);
}

inline void probePrefetchEntry(const ProbeIndex& index, uint32_t hash, size_t sizeBytes) {
    const auto* entry =
        static_cast<const uint8_t*>(probeFind(index, hash, [](void*) { return true; }));
    if (entry != nullptr) prefetchBytes(entry, sizeBytes);
}

// Makes room for `count` entries in all.
[[nodiscard]] bool probeReserve(ProbeIndex& index, uint32_t count, ProbeHashOf hashOf);

// The entry isn't there yet.
[[nodiscard]] bool probeInsert(ProbeIndex& index, void* entry, ProbeHashOf hashOf);

// The entry is there.
void probeRemove(ProbeIndex& index, const void* entry, ProbeHashOf hashOf);

// Frees the slots and leaves an empty index.
void probeClear(ProbeIndex& index);
