// Two captures side by side: which subjects, senders and groups came, went, grew and shrank, by
// messages and bytes a second. Messages are those of new multicast data.
//
// Pure.
//
// Ownership: subjects point into the Snapshots, which outlive the comparison.
//
// Failure: std::bad_alloc, as of the tables (tables.h).

#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

#include "trace/counts/snapshot.h"

enum class Change : uint8_t { kSame, kCame, kWent, kGrew, kShrank };
inline constexpr const char* kChangeWords[] = {"same", "came", "went", "grew", "shrank"};
inline constexpr size_t kChanges = std::size(kChangeWords);

struct ComparedCounts {
    bool isThere;
    uint64_t messages, bytes;
    double messagesASecond, bytesASecond;
};

// A row is called by what its table goes by; the rest is 0 or null.
struct ComparedRow {
    uint16_t port, scid;  // these four as in a Snapshot
    uint32_t group, sender;
    bool isSender;           // a row of `sender` and `scid`; else of `port` and `group`
    const uint8_t* subject;  // packed
    ComparedCounts before, now;
    Change change;
};

// By how much a second the numbers of a row differ, in thousandths.
[[nodiscard]] uint64_t comparedBytes(const ComparedRow& row);
[[nodiscard]] uint64_t comparedMessages(const ComparedRow& row);

struct ComparedTable {
    const char* name;
    std::vector<ComparedRow> rows;  // those with the largest difference in bytes a second first
    uint64_t changes[kChanges];     // how many rows changed so
};

struct ComparedCapture {
    const SnapHeader* sum;
    double seconds;  // from its first packet to its last
    ComparedCounts all;
};

struct Comparison {
    ComparedCapture before, now;
    double factor;
    bool isWhole;  // both captures fit the tables' bounds; else rows may seem to come or go
    ComparedTable tables[3];  // subjects, senders, groups
};

inline constexpr double kUsualFactor = 1.25;

// A row grew or shrank where its messages or its bytes a second changed by `factor`, above 1, or
// more; where both did, the larger change decides. A capture of a single moment counts as a second.
[[nodiscard]] Comparison compareCaptures(const SnapHeader& before,
                                         const SnapHeader& now,
                                         double factor);
