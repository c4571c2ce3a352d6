// The four tables of the screen: their names, their columns, and what a record's numbers are. The
// columns are those of watch/core/fields.h; packets between two hosts are counted on both sides,
// and both sides of a number share a column.
//
// Threads: constant.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "watch/core/fields.h"

enum class TopTable : uint8_t { kMulticast, kRetransmission, kPointToPoint, kSubjects };

inline constexpr size_t kTopTables = 4;
inline constexpr size_t kTopMostNumbers = 8;

struct TopColumn {
    const char* heading;
    std::string_view name;  // for programs, that of the first side
    bool isTrouble;         // more than none of it is worth a look
};

struct TopTableInfo {
    const char* name;
    const char* shortName;
    std::array<TopColumn, kTopMostNumbers> columns;
    size_t columnCount;
    bool hasGroups;       // rows are groups on ports; else ports, whose hosts have two sides
    bool hasSubjects;     // and subjects on these
    bool hasReliability;  // of hosts: a column of its own after the numbers
};

[[nodiscard]] constexpr bool isTrouble(std::string_view name) {
    return name.starts_with("missed_") || name.starts_with("bad_") ||
           name.starts_with("rejects_") || name.starts_with("loss_");
}

// Of two sides, one is taken for both.
template <typename Record, size_t kCount>
constexpr TopTableInfo tableOf(TopTableInfo info, const Field<Record> (&fields)[kCount]) {
    for (const Field<Record>& field : fields) {
        if (field.side == FieldSide::kReceived) continue;
        info.columns[info.columnCount++] = {field.heading, field.name, isTrouble(field.name)};
    }
    return info;
}

inline constexpr TopTableInfo kTopTableInfos[kTopTables] = {
    tableOf({.name = "Multicast",
             .shortName = "Mcast",
             .columns = {},
             .columnCount = 0,
             .hasGroups = true,
             .hasSubjects = false,
             .hasReliability = true},
            kMulticastFields),
    tableOf({.name = "Retransmission",
             .shortName = "Retr",
             .columns = {},
             .columnCount = 0,
             .hasGroups = false,
             .hasSubjects = false,
             .hasReliability = false},
            kRetransmissionFields),
    tableOf({.name = "Point-to-point",
             .shortName = "PtP",
             .columns = {},
             .columnCount = 0,
             .hasGroups = false,
             .hasSubjects = false,
             .hasReliability = false},
            kPointToPointFields),
    tableOf({.name = "Subjects",
             .shortName = "Subj",
             .columns = {},
             .columnCount = 0,
             .hasGroups = true,
             .hasSubjects = true,
             .hasReliability = false},
            kSubjectFields),
};

[[nodiscard]] constexpr const TopTableInfo& topTableInfo(TopTable table) {
    return kTopTableInfos[static_cast<size_t>(table)];
}

// Adds the record's numbers to those at `sums`, in the order of the columns.
template <typename Record, size_t kCount>
void topNumbersAdd(const Field<Record> (&fields)[kCount],
                   const Record& record,
                   FieldSide side,
                   uint64_t* sums) {
    for (const Field<Record>& field : fields) {
        if (field.side == side) *sums++ += record.*field.value;
    }
}
