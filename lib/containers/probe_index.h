// A side index of entries that live elsewhere: open addressing in one array, for tables whose
// senders choose the keys. It knows hashes and addresses only; the user compares keys.
//
// The hashes are seeded by the process, so that nobody outside can choose keys that meet in one
// place and make every look-up a long walk.
//
// Ownership: an index owns its slots, never the entries. It is usable zeroed, and costs nothing
// until the first insertion.
//
// Failure: an insertion that memory fails gives false and leaves the index as it was.
//
// Threads: no lock; the owner serialises changes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Drawn from the system before main runs. A test may set it, while no index holds anything.
struct ProbeSeed {
    uint64_t first, second;
};

extern ProbeSeed probeSeed;

struct ProbeSlot {
    void* entry;  // null: free
    uint32_t hash;
};

struct ProbeIndex {
    ProbeSlot* slots;  // null until the first insertion
    uint32_t mask;     // slots - 1; their number is a power of two
    uint32_t count;    // entries, at most half the slots
};

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

// The entry of this hash for which matches(entry) holds, or null.
template <typename Matches>
[[nodiscard]] inline void* probeFind(const ProbeIndex& index, uint32_t hash, Matches matches) {
    if (index.slots == nullptr) return nullptr;
    for (uint32_t at = hash & index.mask;; at = (at + 1) & index.mask) {
        const ProbeSlot& slot = index.slots[at];
        if (slot.entry == nullptr) return nullptr;
        if (slot.hash == hash && matches(slot.entry)) return slot.entry;
    }
}

// Asks the cache for where a search would begin.
inline void probePrefetch(const ProbeIndex& index, uint32_t hash) {
    if (index.slots != nullptr) __builtin_prefetch(&index.slots[hash & index.mask]);
}

// Makes room for `count` entries in all.
[[nodiscard]] bool probeReserve(ProbeIndex& index, uint32_t count);

// The entry isn't there yet.
[[nodiscard]] bool probeInsert(ProbeIndex& index, uint32_t hash, void* entry);

// The entry is there, under this hash.
void probeRemove(ProbeIndex& index, uint32_t hash, const void* entry);

// Frees the slots and leaves an empty index.
void probeClear(ProbeIndex& index);
