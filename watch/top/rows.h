// One table's rows and the hosts below them: of the last interval, and of those before it whose
// rows have fallen silent. They lie in order of port, group and subject, and each Snapshot, which
// has the same order, is merged into them.
//
// A row that falls silent stays for kRowKeepSeconds, with zeros. The number of rows is bounded:
// where it is reached the silent ones go, and new ones that find no room are left out and counted.
//
// Addresses and ports are in host order here: they are sorted and looked for.
//
// Ownership: rows own all that they show. Copies are independent, but share the original's
// trail.
//
// Failure: rowsTake throws std::bad_alloc; the rows stay as they were.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "trace/counts/snapshot.h"
#include "watch/top/tables.h"
#include "watch/top/trail.h"

inline constexpr size_t kMostRows = 100'000;
inline constexpr int64_t kRowKeepSeconds = 600;

struct TopRow {
    uint16_t port;
    uint16_t shownPort;  // the service port
    uint32_t group;
    size_t subjectAt;  // of its packed form in `subjects`
    uint32_t firstHost;
    uint32_t hostCount;       // a host of two sides is there twice, received first
    int64_t activeSeconds;    // when it last had traffic
    uint64_t activeInterval;  // and the interval of the trail
    uint64_t lastEntry;       // in the trail
};

struct TopHost {
    uint32_t address;
    uint16_t scid;  // 0 for none
    FieldSide side;
    double reliability;  // any double
};

struct TopRows {
    TopTable table = TopTable::kMulticast;

    std::vector<TopRow> rows = {};
    std::vector<uint64_t> numbers = {};  // of each row, as many as the table has columns
    std::vector<uint8_t> subjects = {};
    std::vector<TopHost> hosts = {};
    std::vector<uint64_t> hostNumbers = {};

    uint64_t totals[kTopMostNumbers] = {};
    uint64_t leftOut = 0;   // new rows of the last interval that found no room
    uint64_t interval = 0;  // of the trail
};

// Did the row have traffic in the last interval?
[[nodiscard]] bool rowIsActive(const TopRows& rows, const TopRow& row);

// A row's numbers, and a host's.
[[nodiscard]] std::span<const uint64_t> rowNumbers(const TopRows& rows, size_t row);
[[nodiscard]] std::span<const uint64_t> hostNumbers(const TopRows& rows, size_t host);

// Packed; of a row of subjects.
[[nodiscard]] const uint8_t* rowSubject(const TopRows& rows, const TopRow& row);

// Merges the table of an interval of so many seconds. `spare` is what the rows were an interval
// ago; its memory is used again.
void rowsTake(TopRows& rows,
              TopRows& spare,
              Trail& trail,
              const SnapHeader& snapshot,
              double seconds,
              size_t mostRows = kMostRows);
