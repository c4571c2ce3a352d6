// Fields and columns of the report's rows. Tables are described by data: a column is a width and
// the counters that it shows, a table is a title and its columns.
//
// Every append writes at `at`, without a NUL, and returns the place after what it wrote. Numbers
// are right-aligned in their width; a wider one takes the room that it needs, as with printf. The
// caller provides the room: kRowBytesMax holds any row.
//
// Threads: any; no state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr size_t kNumberBytesMax = 320;  // the largest double takes 311 with its decimal
constexpr size_t kRowBytesMax = 4096;    // a lead, up to eight numbers, a subject

[[nodiscard]] char* appendText(char* at, std::string_view text);
[[nodiscard]] char* appendBlanks(char* at, size_t count);

// These write exactly what "%*lu", "%*.1f" and "%*.0f" do.
[[nodiscard]] char* appendCount(char* at, uint64_t value, size_t width);
[[nodiscard]] char* appendRate(char* at, double value, size_t width);
[[nodiscard]] char* appendWhole(char* at, double value, size_t width);

// "a.b.c.d" of a word in network order, and blanks up to 15 characters.
[[nodiscard]] char* appendAddress(char* at, uint32_t address);

// How counters are shown.
struct ReportView {
    bool rate;              // per second instead of whole
    double elapsedSeconds;  // the time that the counters cover
};

[[nodiscard]] char* appendCounter(char* at, ReportView view, uint64_t value, size_t width);

// A column shows what a host sent, or what was sent to it; only two-sided records count the latter.
template <typename Record>
struct Column {
    size_t width;
    uint64_t Record::*sent;
    uint64_t Record::*recv = nullptr;
};

enum class Side { kSent, kRecv };

template <typename Record, size_t kColumns>
struct ReportTable {
    using Counters = Record;

    const char* title;
    Column<Record> columns[kColumns];
};

template <typename Record, size_t kColumns>
[[nodiscard]] bool anySent(const ReportTable<Record, kColumns>& table, const Record& record) {
    for (const Column<Record>& column : table.columns) {
        if (record.*column.sent != 0) return true;
    }
    return false;
}

// Appends the columns of a row, each after a blank.
template <typename Record, size_t kColumns>
[[nodiscard]] char* appendCounters(char* at,
                                   ReportView view,
                                   const ReportTable<Record, kColumns>& table,
                                   const Record& record,
                                   Side side = Side::kSent) {
    for (const Column<Record>& column : table.columns) {
        const uint64_t value = record.*(side == Side::kSent ? column.sent : column.recv);
        *at++ = ' ';
        at = appendCounter(at, view, value, column.width);
    }
    return at;
}
