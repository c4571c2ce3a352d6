// The series table: Snapshots are the counts of an interval each, metrics are counters since the
// start. So sums are kept here, a row for each set of labels, and a row's numbers are its series.
//
//     kMulticastGroup        port, group              always
//     kMulticastHost         port, group, host, scid  with SeriesRules::hosts
//     kRetransmissionPort    port                     always, also while nothing is retransmitted
//     kRetransmissionHost    port, host, scid         with SeriesRules::hosts
//     kPointToPointPort      port                     always, likewise
//     kPointToPointHost      port, host, scid         with SeriesRules::hosts
//     kSubject               port, group, subject     for subjects that SeriesRules::subjects match
//
// Whatever comes from the wire, there are never more series than SeriesRules::mostSeries, and hosts
// and subjects leave an eighth of the room to ports and groups. What finds no room is added to the
// "other" row of its kind, so that sums over a kind stay exact. A row that was silent for
// SeriesRules::expireIntervals goes, and its sums with it.
//
// Ownership: the table owns its rows; it is usable zeroed but for its rules, which are borrowed
// from the command line.
//
// Failure: a row that finds no memory counts as one that finds no room.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>

#include "lib/containers/sublist.h"
#include "trace/counts/snapshot.h"
#include "watch/core/row_table.h"
#include "watch/core/snapshot_rows.h"

// For each table first its sums, then its hosts.
enum class SeriesKind : uint8_t {
    kMulticastGroup,
    kMulticastHost,
    kRetransmissionPort,
    kRetransmissionHost,
    kPointToPointPort,
    kPointToPointHost,
    kSubject,
};

inline constexpr size_t kSeriesKinds = 7;
inline constexpr size_t kSeriesNumbers = 12;  // of the kind that has most

struct SeriesRules {
    bool hosts;             // rows of hosts too
    SubjectList* subjects;  // rows of the subjects that match; null for none
    uint32_t mostSeries;
    uint32_t expireIntervals;
};

// Sums in the order of the fields of watch/core/fields.h; after those of a group its messages and
// their bytes.
struct SeriesSums {
    uint64_t numbers[kSeriesNumbers];
    double reliability;  // of kMulticastHost: the latest
};

struct SeriesRow {
    uint32_t hash;
    uint32_t silentIntervals;
    RowKey key;  // its subject is a copy of the row's own
    SeriesSums sums;
};

struct SeriesTable {
    SeriesRules rules;

    RowTable<SeriesRow> rows;
    uint64_t rowSeries;  // of all rows

    // What found no room: sums, whether there are any, and the series of the last interval.
    SeriesSums others[kSeriesKinds];
    bool hasOther[kSeriesKinds];
    uint64_t leftOutSeries;

    // Sums that have no labels.
    uint64_t frames, packets, busPackets;
    uint64_t kernelDrops, interfaceDrops;
    uint64_t notRead[kSnapNotReadKinds];
    uint64_t faults[kFaultKinds];
    uint64_t intervals;
};

[[nodiscard]] constexpr SeriesKind seriesKindOf(const RowKey& key) {
    return static_cast<SeriesKind>(2 * static_cast<int>(key.table) + (key.hasHost ? 1 : 0));
}

// How many series a row of the kind has.
[[nodiscard]] uint32_t seriesOfKind(SeriesKind kind);

// How many series there are beside the rows, at most: the sums above, all "other" rows, and those
// about the process itself. No bound may be below.
inline constexpr uint32_t kSeriesReserved = 150;

// Adds an interval.
void seriesAdd(SeriesTable& table, const SnapHeader& snapshot);

void seriesFree(SeriesTable& table);
