// Running totals: all Snapshots since the start, added up row by row, and given out as a Snapshot
// again, so that whatever shows an interval shows the whole run too.
//
//     if (!totalsAdd(totals, snapshot)) ...
//     SnapHeader* const sum = totalsSnapshot(totals);
//
// Rows stay once they were seen. Their number is bounded, whatever comes from the wire: what counts
// on rows beyond goes to SnapHeader::beyond, so that sums stay exact.
//
// What isn't a count is the latest: reliability, service ports, how far a capture was read. Host
// status messages aren't kept.
//
// Ownership: totals own all; usable zeroed. The Snapshot belongs to them, and is valid until the
// next call.
//
// Failure: where memory runs out for a row it counts as one beyond the bound.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>

#include "trace/counts/snapshot.h"
#include "watch/core/row_table.h"

// Of each table; a run over an open network may meet any number.
inline constexpr uint32_t kTotalsMostRows = 1 << 18;
inline constexpr uint32_t kTotalsMostSenders = 1 << 20;  // of subjects

// Rows, each with the sum of its records. `parent` is the number of the row that it belongs to;
// `place` is that in the Snapshot that is being made.

struct TotalPort {
    uint32_t hash;
    SnapPort sum;
};

struct TotalNet {
    uint32_t hash;
    uint32_t parent;
    uint32_t place;
    SnapNet sum;
};

template <typename Record>
struct TotalHost {
    uint32_t hash;
    uint32_t parent;
    Record sum;
};

struct TotalSubject {
    uint32_t hash;
    uint32_t parent;
    size_t textAt;  // of its packed form in `texts`
    uint32_t place;
    SnapSubject sum;
};

struct TotalSender {
    uint32_t hash;
    uint32_t parent;
    SnapSubjectHost sum;
};

struct Totals {
    SnapHeader head;  // without its tables
    bool hasBegun;
    uint32_t mostRows = kTotalsMostRows;

    RowTable<TotalPort> ports;
    RowTable<TotalNet> nets;
    RowTable<TotalHost<SnapHost>> hosts;
    RowTable<TotalHost<SnapRlHost>> rlHosts;
    RowTable<TotalHost<SnapPtpHost>> ptpHosts;
    RowTable<TotalSubject> subjects;
    RowTable<TotalSender> senders;

    uint8_t* texts;
    size_t textBytes, textCapacity;

    void* block;  // of the Snapshot that was given out last
    size_t blockBytes;
};

void totalsAdd(Totals& totals, const SnapHeader& snapshot);

// Sorted like that of an interval. Null when memory runs out.
[[nodiscard]] SnapHeader* totalsSnapshot(Totals& totals);

void totalsFree(Totals& totals);
