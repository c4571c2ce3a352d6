#include "lib/containers/probe_index.h"

#include <sys/random.h>
#include <time.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <utility>

namespace {

constexpr uint32_t kLeastSlots = 8;
constexpr uint32_t kMostEntries = 1u << 30;

// Without the system's random source the clock has to do: weaker, and better than a constant.
ProbeSeed drawSeed() {
    ProbeSeed seed;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof seed)) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        seed.first = probeMix(static_cast<uint64_t>(now.tv_nsec) ^ 0x9e3779b97f4a7c15u,
                              static_cast<uint64_t>(now.tv_sec) ^ 0xd6e8feb86659fd93u);
        seed.second = probeMix(seed.first, 0xa0761d6478bd642fu);
    }
    // A factor without a bit would fold every key to the same hash; an odd one loses no key.
    seed.second |= 1;
    return seed;
}

bool fitsSlot(const void* entry) {
    return uint64_t{reinterpret_cast<uintptr_t>(entry)} >> kProbeAddressBits == 0;
}

uint64_t slotOf(const void* entry, uint32_t hash) {
    return uint64_t{hash >> 16} << kProbeAddressBits | reinterpret_cast<uintptr_t>(entry);
}

void place(ProbeIndex& index, const void* entry, uint32_t hash) {
    uint32_t at = hash & index.mask;
    while (index.slots[at] != 0) {
        at = (at + 1) & index.mask;
    }
    index.slots[at] = slotOf(entry, hash);
}

uint32_t slotCount(const ProbeIndex& index) {
    return index.slots == nullptr ? 0 : index.mask + 1;
}

bool hasRoom(uint64_t slots, uint64_t count) {
    return count * 5 <= slots * 4;
}

// Entries lie all over memory, so those that are soon to come are asked for.
void placeAllOf(const ProbeIndex& old, ProbeIndex& index, ProbeHashOf hashOf) {
    constexpr uint32_t kAhead = 16;
    for (uint32_t at = 0; at < slotCount(old); ++at) {
        if (at + kAhead <= old.mask) prefetchLine(probeEntry(old.slots[at + kAhead]));
        const void* entry = probeEntry(old.slots[at]);
        if (entry != nullptr) place(index, entry, hashOf(entry));
    }
}

}  // namespace

ProbeSeed probeSeed = drawSeed();

bool probeReserve(ProbeIndex& index, uint32_t count, ProbeHashOf hashOf) {
    if (hasRoom(slotCount(index), count)) return true;
    if (count > kMostEntries) return false;
    uint32_t slots = std::bit_ceil(std::max(count, kLeastSlots));
    if (!hasRoom(slots, count)) slots *= 2;
    auto* fresh = static_cast<uint64_t*>(std::calloc(slots, sizeof(uint64_t)));
    if (fresh == nullptr) return false;

    const ProbeIndex old = std::exchange(index, {fresh, slots - 1, index.count});
    placeAllOf(old, index, hashOf);
    std::free(old.slots);
    return true;
}

bool probeInsert(ProbeIndex& index, void* entry, ProbeHashOf hashOf) {
    if (!fitsSlot(entry) || !probeReserve(index, index.count + 1, hashOf)) return false;
    place(index, entry, hashOf(entry));
    ++index.count;
    return true;
}

void probeRemove(ProbeIndex& index, const void* entry, ProbeHashOf hashOf) {
    uint32_t hole = hashOf(entry) & index.mask;
    while (probeEntry(index.slots[hole]) != entry) {
        hole = (hole + 1) & index.mask;
    }

    // An entry after the hole moves into it, unless that would be before its home place: so no
    // search ever meets a gap between an entry's place and the entry.
    for (uint32_t at = (hole + 1) & index.mask; index.slots[at] != 0; at = (at + 1) & index.mask) {
        const uint32_t fromHome = (at - hashOf(probeEntry(index.slots[at]))) & index.mask;
        const uint32_t fromHole = (at - hole) & index.mask;
        if (fromHome < fromHole) continue;
        index.slots[hole] = index.slots[at];
        hole = at;
    }
    index.slots[hole] = 0;
    --index.count;
}

void probeClear(ProbeIndex& index) {
    std::free(index.slots);
    index = {};
}
