#include "lib/containers/probe_index.h"

#include <sys/random.h>
#include <time.h>

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

void place(ProbeIndex& index, uint32_t hash, void* entry) {
    uint32_t at = hash & index.mask;
    while (index.slots[at].entry != nullptr) {
        at = (at + 1) & index.mask;
    }
    index.slots[at] = {entry, hash};
}

uint32_t slotCount(const ProbeIndex& index) {
    return index.slots == nullptr ? 0 : index.mask + 1;
}

}  // namespace

ProbeSeed probeSeed = drawSeed();

bool probeReserve(ProbeIndex& index, uint32_t count) {
    if (count <= slotCount(index) / 2) return true;
    if (count > kMostEntries) return false;
    const uint32_t slots = count <= kLeastSlots / 2 ? kLeastSlots : std::bit_ceil(count * 2);
    auto* fresh = static_cast<ProbeSlot*>(std::calloc(slots, sizeof(ProbeSlot)));
    if (fresh == nullptr) return false;

    const ProbeIndex old = std::exchange(index, {fresh, slots - 1, index.count});
    for (uint32_t at = 0; at < slotCount(old); ++at) {
        if (old.slots[at].entry != nullptr) place(index, old.slots[at].hash, old.slots[at].entry);
    }
    std::free(old.slots);
    return true;
}

bool probeInsert(ProbeIndex& index, uint32_t hash, void* entry) {
    if (!probeReserve(index, index.count + 1)) return false;
    place(index, hash, entry);
    ++index.count;
    return true;
}

void probeRemove(ProbeIndex& index, uint32_t hash, const void* entry) {
    uint32_t hole = hash & index.mask;
    while (index.slots[hole].entry != entry) {
        hole = (hole + 1) & index.mask;
    }

    // Whoever stands behind the hole moves into it, unless that would be ahead of its own place: so
    // no search ever meets a gap between an entry's place and the entry.
    for (uint32_t at = (hole + 1) & index.mask; index.slots[at].entry != nullptr;
         at = (at + 1) & index.mask) {
        const uint32_t fromHome = (at - index.slots[at].hash) & index.mask;
        const uint32_t fromHole = (at - hole) & index.mask;
        if (fromHome < fromHole) continue;
        index.slots[hole] = index.slots[at];
        hole = at;
    }
    index.slots[hole].entry = nullptr;
    --index.count;
}

void probeClear(ProbeIndex& index) {
    std::free(index.slots);
    index = {};
}
