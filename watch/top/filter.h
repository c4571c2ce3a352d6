// What is typed to see some of the rows only: words with blanks between them, all of which have to
// fit a row. The pages have the same (docs/OPERATING.md, "What the filter takes").
//
//     PRICES.*.GOLD, ORDERS.>    its subject matches; "*" is any element, ">" all the rest
//     10.0.0.1, 10.0, 10.0.0.0/24
//                                its group or one of its hosts: an address, the beginning of one, a
//                                network
//     :7500                      its port, that of its service, or an SCid of one of its hosts
//     7500                       the same, or text
//     gaps>0, bytes>=2.5M        a number as it is shown, by its column's heading or name
//     gold, "two words"          text of its subject, its group or one of its hosts
//     !WORD                      what WORD doesn't fit
//
// Letters' case is no matter. A pattern fits nothing in a table without subjects.
//
// Ownership: plain values.
//
// Failure: std::bad_alloc.
//
// Threads: no state; the owner serialises.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lib/containers/subject.h"
#include "watch/top/rows.h"

inline constexpr size_t kMostFilterBytes = 200;

enum class TopWordKind : uint8_t {
    kText,
    kPattern,
    kAddress,  // or the beginning of one
    kNetwork,
    kPort,
    kPortOrText,
    kNumber,
};

enum class TopRelation : uint8_t { kLess, kMost, kEqual, kUnequal, kLeast, kMore };

struct TopWord {
    TopWordKind kind = TopWordKind::kText;
    bool isNot = false;
    std::string text;  // without quotes, in small letters

    uint8_t pattern[kSubjectMaxBytes + 1] = {};  // packed
    bool isWholeAddress = false;
    uint32_t network = 0, mask = 0;  // in host order
    uint16_t port = 0;
    size_t column = 0;
    TopRelation relation = TopRelation::kEqual;
    double number = 0;
};

struct TopFilter {
    std::string text;  // empty: all rows
    std::vector<TopWord> words = {};
    std::string fault = {};  // a word that fits nothing, and why: then no row is shown
    double scale = 1;        // by which numbers are multiplied as they are shown
};

// UTF-8, of kMostFilterBytes at most, for the columns of a table.
[[nodiscard]] TopFilter filterOf(std::string_view text, TopTable table);

[[nodiscard]] bool filterShows(const TopFilter& filter, const TopRows& rows, size_t row);
