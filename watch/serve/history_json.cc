#include "watch/serve/history_json.h"

#include <charconv>
#include <cstdio>
#include <iterator>
#include <span>
#include <string_view>

#include "watch/core/fields.h"
#include "watch/core/span.h"
#include "watch/serve/history_totals.h"

namespace {

// Names are constants of the program, and have nothing to escape.
void appendKey(JsonBuffer& out, std::string_view prefix, std::string_view name) {
    out.Put('"');
    out.append(prefix);
    out.append(name);
    out.append("\":");
}

void appendNumber(JsonBuffer& out, uint64_t number) {
    char text[20];
    const char* const end = std::to_chars(text, text + sizeof text, number).ptr;
    out.append({text, static_cast<size_t>(end - text)});
}

void appendReal(JsonBuffer& out, double number) {
    char text[32];
    const char* const end = std::to_chars(text, text + sizeof text, number).ptr;
    out.append({text, static_cast<size_t>(end - text)});
}

// Calls item(interval) for each, with commas between.
template <typename Item>
void appendArray(JsonBuffer& out, const History& history, Item item) {
    out.Put('[');
    for (uint32_t at = 0; at < history.count; ++at) {
        if (at > 0) out.Put(',');
        item(at);
    }
    out.Put(']');
}

// A packet's stamp may claim a second's worth of nanoseconds and more.
void appendTime(JsonBuffer& out, TimeSpec time) {
    char text[32];
    const uint32_t milliseconds = time.nanoseconds / 1'000'000;
    const int length = std::snprintf(text, sizeof text, "%lld.%03u",
                                     static_cast<long long>(time.seconds) + milliseconds / 1000,
                                     milliseconds % 1000);
    out.append({text, static_cast<size_t>(length)});
}

template <typename Series>
void appendAll(JsonBuffer& out, const History& history, double intervalSeconds, Series series) {
    out.append("{\"interval_seconds\":");
    appendReal(out, intervalSeconds);
    out.append(",\"times\":");
    appendArray(out, history, [&](uint32_t at) { appendTime(out, historyAt(history, at).time); });
    out.append(",\"elapsed_seconds\":");
    appendArray(out, history, [&](uint32_t at) {
        appendReal(out, secondsOf(historyAt(history, at).elapsedNanoseconds));
    });
    out.append(",\"series\":{");
    series();
    out.append("}}\n");
}

// A series for each of the names; numberAt(interval, name's place) gives its numbers.
template <typename NumberAt>
void appendSeries(JsonBuffer& out,
                  const History& history,
                  std::string_view prefix,
                  std::string_view name,
                  size_t place,
                  NumberAt numberAt) {
    if (place > 0) out.Put(',');
    appendKey(out, prefix, name);
    appendArray(out, history, [&](uint32_t at) { appendNumber(out, numberAt(at, place)); });
}

// All numbers of the row, interval by interval: found once each, written series by series.
struct RowNumbers {
    uint64_t (*all)[kHistoryNumbers];

    RowNumbers(const History& history, const RowKey& key)
        : all(static_cast<uint64_t (*)[kHistoryNumbers]>(
              std::malloc((size_t{history.count} + 1) * sizeof *all))) {
        for (uint32_t at = 0; all != nullptr && at < history.count; ++at) {
            historyRow(historyAt(history, at), key, all[at]);
        }
    }
    ~RowNumbers() { std::free(all); }
    RowNumbers(const RowNumbers&) = delete;
    RowNumbers& operator=(const RowNumbers&) = delete;
};

template <typename Record, size_t kCount>
void appendRow(JsonBuffer& out,
               const History& history,
               const RowNumbers& numbers,
               const Field<Record> (&fields)[kCount]) {
    for (size_t place = 0; place < kCount; ++place) {
        appendSeries(out, history, "", fields[place].name, place,
                     [&](uint32_t at, size_t field) { return numbers.all[at][field]; });
    }
}

}  // namespace

void historyAppendTotals(JsonBuffer& out, const History& history, double intervalSeconds) {
    appendAll(out, history, intervalSeconds, [&] {
        size_t place = 0;
        historyEachTotal(
            SnapHeader{}, SnapTotals{}, [&](const char* prefix, const char* name, uint64_t) {
                appendSeries(out, history, prefix, name, place++, [&](uint32_t at, size_t total) {
                    return historyAt(history, at).totals[total];
                });
            });
    });
}

void historyAppendRow(JsonBuffer& out,
                      const History& history,
                      const RowKey& key,
                      double intervalSeconds) {
    const RowNumbers numbers(history, key);
    if (numbers.all == nullptr) {
        out.failed = true;
        return;
    }
    appendAll(out, history, intervalSeconds, [&] {
        switch (key.table) {
            case BusTable::kMulticast:
                return appendRow(out, history, numbers, kMulticastFields);
            case BusTable::kRetransmission:
                return appendRow(out, history, numbers, kRetransmissionFields);
            case BusTable::kPointToPoint:
                return appendRow(out, history, numbers, kPointToPointFields);
            case BusTable::kSubjects:
                return appendRow(out, history, numbers, kSubjectFields);
        }
    });
}
