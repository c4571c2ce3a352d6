// A side index of entries that live elsewhere: open addressing in one array, for tables whose
// senders choose the keys. It knows hashes and addresses only; the user compares keys.
//
// A large index is searched at random places and each of them waits for memory, so slots are small
// and well filled: a slot is the entry's address with the upper half of its hash above it.
//
//     63         48                        0
//     | hash >> 16 | address of the entry |        0: free
//
// The hashes are seeded by the process, so that no peer can choose keys that meet in one place and
// make every look-up a long walk.
//
// Ownership: an index owns its slots, never the entries. It is usable zeroed, and costs no memory
// until the first insertion.
//
// Failure: an insertion without memory, or of an entry at an address that no slot can hold, returns
// false and changes nothing.
//
// Threads: no lock; the owner serialises changes.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/base/prefetch.h"

// Drawn from the system before main runs. A test may set it while all indexes are empty.
struct ProbeSeed {
    uint64_t first, second;
};

extern ProbeSeed probeSeed;

struct ProbeIndex {
    uint64_t* slots;  // null until the first insertion
    uint32_t mask;    // slots - 1; their number is a power of two
    uint32_t count;   // entries, at most four fifths of the slots
};

// The hash under which an entry was inserted. Slots have only half of it.
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

[[nodiscard]] inline uint64_t probeLoad64(const uint8_t* at) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// The pieces of probeHashBytes: up to 15 bytes by two loads that may overlap, and 16 bytes.
[[nodiscard]] inline uint64_t probeMixFew(const uint8_t* bytes, size_t sizeBytes) {
    uint64_t head = 0;
    uint64_t tail = 0;
    if (sizeBytes >= 8) {
        head = probeLoad64(bytes);
        tail = probeLoad64(bytes + sizeBytes - 8);
    } else if (sizeBytes >= 4) {
        head = loadNet32At(bytes);
        tail = loadNet32At(bytes + sizeBytes - 4);
    } else if (sizeBytes > 0) {
        head =
            uint64_t{bytes[0]} << 16 | uint64_t{bytes[sizeBytes / 2]} << 8 | bytes[sizeBytes - 1];
    }
    return probeMix(head ^ probeSeed.second, tail ^ probeSeed.first);
}

[[nodiscard]] inline uint64_t probeMixBlock(const uint8_t* block, uint64_t key) {
    return probeMix(probeLoad64(block) ^ probeSeed.second, probeLoad64(block + 8) ^ key);
}

// Reads no byte beyond `sizeBytes`. Keys of a usual size are three blocks that may overlap, each
// mixed under a key of its place: no block waits for another, and no branch depends on the size.
[[nodiscard, gnu::always_inline]] inline uint32_t probeHashBytes(const uint8_t* bytes,
                                                                 size_t sizeBytes) {
    constexpr size_t kBlockBytes = 16;
    constexpr size_t kUsualBytes = 3 * kBlockBytes;
    constexpr uint64_t kNextKey = 0x9e3779b97f4a7c15;
    uint64_t state = sizeBytes * kNextKey;
    if (sizeBytes < kBlockBytes) {
        state ^= probeMixFew(bytes, sizeBytes);
        return static_cast<uint32_t>(state ^ state >> 32);
    }
    const size_t last = sizeBytes - kBlockBytes;
    uint64_t key = probeSeed.first;
    state ^= probeMixBlock(bytes, key);
    state ^= probeMixBlock(bytes + std::min(kBlockBytes, last), key += kNextKey);
    state ^= probeMixBlock(bytes + last, key += kNextKey);
    for (size_t at = kUsualBytes - kBlockBytes; at < last; at += kBlockBytes) {
        state ^= probeMixBlock(bytes + at, key += kNextKey);
    }
    return static_cast<uint32_t>(state ^ state >> 32);
}

[[nodiscard]] inline void* probeEntry(uint64_t slot) {
    return reinterpret_cast<void*>(slot & ((uint64_t{1} << kProbeAddressBits) - 1));
}

// The entry of this hash for which matches(entry) holds, or null. It also tests a few entries of
// other hashes.
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

// Before a search, in two steps with other work between: prefetches the slot where it begins, and
// `sizeBytes` of the entry that it compares first.
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
