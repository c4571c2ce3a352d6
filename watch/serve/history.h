// The history: what each interval of the last 15 minutes had, its totals and each of its rows, for
// pages that are opened later than the bus.
//
// An interval is a small hash table in one block: 64-bit hashes of the rows' keys, and for each row
// a mask of the numbers that aren't 0 and these numbers, as LEB128:
//
//     | hashes, 8 each | bucket ends, 4 each | places, 4 each | records, some 4 to 20 bytes each |
//
// So a row takes about 20 bytes an interval, and a silent one nothing. 1,000 subjects of 200 hosts
// and an interval of a second take some 30 MB. What goes beyond `mostBytes` takes the oldest
// intervals with it: the history of a bus with very many rows is shorter.
//
// Keys aren't kept. Their hashes are seeded by the process, so that no sender can make two
// rows share one.
//
// Ownership: the history owns all; usable zeroed.
//
// Failure: an interval that finds no memory has its totals and no rows.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>

#include "trace/counts/snapshot.h"
#include "watch/core/snapshot_rows.h"

inline constexpr int32_t kHistorySeconds = 15 * 60;
inline constexpr uint32_t kHistoryMostIntervals = 900;
inline constexpr size_t kHistoryMostBytes = 64 << 20;

inline constexpr size_t kHistoryTotals = 64;   // numbers of an interval's totals, at most
inline constexpr size_t kHistoryNumbers = 12;  // numbers of a row, at most

struct HistoryInterval {
    TimeSpec time;  // of its end
    int64_t elapsedNanoseconds;
    uint64_t totals[kHistoryTotals];  // in the order of historyEachTotal

    uint32_t rowCount;
    uint32_t bucketMask;
    uint8_t* block;
    size_t blockBytes;
};

struct History {
    HistoryInterval* intervals;  // a ring of kHistoryMostIntervals
    uint32_t first, count;
    size_t blockBytes;  // of all
    size_t mostBytes = kHistoryMostBytes;

    // Of the interval that is being made.
    struct HistoryRow* rows;
    uint32_t rowCount, rowCapacity;
    uint8_t* records;
    size_t recordBytes, recordCapacity;
    bool failed;
};

void historyAdd(History& history, const SnapHeader& snapshot);

// The interval, counted from the oldest.
[[nodiscard]] const HistoryInterval& historyAt(const History& history, uint32_t at);

// The row's numbers in the order of its table's fields (watch/core/fields.h): all 0 where it was
// silent.
void historyRow(const HistoryInterval& interval,
                const RowKey& key,
                uint64_t (&numbers)[kHistoryNumbers]);

void historyFree(History& history);
