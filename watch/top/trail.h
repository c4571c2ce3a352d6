// The numbers of the last minutes, for sparklines: of each interval one entry for each row that had
// traffic. An entry leads back to the one before it of the same row, so that a row's past is
// found from its last entry, however many rows there are.
//
// Bounded by memory (kTrailBytes) and by that in rows: the oldest entries are overwritten. How
// far back it is looked at is the reader's matter.
//
// Ownership: a trail owns its memory. It is usable once it has its number of columns.
//
// Failure: trailAdd throws std::bad_alloc; the trail stays as it was.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

inline constexpr size_t kTrailBytes = size_t{16} << 20;

// Entries count from 1, for ever.
inline constexpr uint64_t kNoEntry = 0;

struct TrailLink {
    uint64_t previous;
    uint64_t interval;
};

struct Trail {
    size_t columns = 0;
    size_t mostBytes = kTrailBytes;

    uint64_t lastInterval = 0;  // they count from 1
    uint64_t lastEntry = kNoEntry;
    std::vector<TrailLink> links = {};
    std::vector<float> rates = {};  // `columns` of each entry
};

// What is added from here on belongs to a further interval.
void trailBegin(Trail& trail);

// Adds a row's numbers, as rates of an interval of so many seconds, and returns the row's new
// entry.
[[nodiscard]] uint64_t trailAdd(Trail& trail,
                                uint64_t previous,
                                std::span<const uint64_t> numbers,
                                double seconds);

// A column's rates up to the interval, which is the last of the series; an interval without an
// entry has 0. Returns how many at the end of the series are of intervals that there were.
size_t trailRead(
    const Trail& trail, uint64_t entry, uint64_t interval, size_t column, std::span<float> series);
