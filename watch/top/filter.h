// What is typed to see some of the rows only. One text, taken for all that it may be: a row is
// shown if
//
//     PRICES.*.GOLD, ORDERS.>   its subject matches; "*" is any element, ">" all the rest
//     7500                      its port is that, or any text of it has these digits
//     10.0.0.1, 10.0.           its group, or one of its hosts, is that address or begins so
//     anything else             its subject or its group has that text, whatever the letters' case
//
// A pattern shows nothing in a table without subjects.
//
// Ownership: plain values.
//
// Threads: no state; the owner serialises.

#pragma once

#include <string>
#include <string_view>

#include "lib/containers/subject.h"
#include "watch/top/rows.h"

inline constexpr size_t kMostFilterBytes = 200;

struct TopFilter {
    std::string text;  // empty: all rows

    // What it may be.
    bool isPattern = false;
    uint8_t pattern[kSubjectMaxBytes + 1] = {};  // packed
    uint32_t port = 0;                           // 0: no port
    bool isAddress = false;                      // or the beginning of one
    bool isWholeAddress = false;
};

// UTF-8, of kMostFilterBytes at most.
[[nodiscard]] TopFilter filterOf(std::string_view text);

[[nodiscard]] bool filterShows(const TopFilter& filter, const TopRows& rows, const TopRow& row);
