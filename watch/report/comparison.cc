#include "watch/report/comparison.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <functional>
#include <limits>
#include <span>
#include <tuple>
#include <utility>

#include "lib/containers/subject.h"
#include "trace/counts/snapshot_totals.h"
#include "watch/core/span.h"
#include "watch/report/tables.h"

namespace {

std::strong_ordering orderOf(const uint8_t* subject, const uint8_t* other) {
    const std::span one(subject, subject == nullptr ? 0 : subjectLength(subject));
    const std::span two(other, other == nullptr ? 0 : subjectLength(other));
    return std::lexicographical_compare_three_way(one.begin(), one.end(), two.begin(), two.end());
}

std::strong_ordering orderOf(const ComparedRow& row, const ComparedRow& other) {
    const auto key = [](const ComparedRow& one) {
        return std::tuple(one.port, one.group, one.sender, one.scid);
    };
    const auto order = key(row) <=> key(other);
    return order != 0 ? order : orderOf(row.subject, other.subject);
}

bool isBefore(const ComparedRow& row, const ComparedRow& other) {
    return orderOf(row, other) < 0;
}

ComparedCounts countsOf(uint64_t messages, uint64_t bytes, double seconds) {
    return {true, messages, bytes, static_cast<double>(messages) / seconds,
            static_cast<double>(bytes) / seconds};
}

ComparedCapture captureOf(const SnapHeader& sum) {
    const double seconds = secondsOf(nanosecondsOf(sum.thisTime) - nanosecondsOf(sum.prevTime));
    const double sound = seconds > 0 ? seconds : 1;
    const auto all = snapshotAddUp(sum).subjects;
    return {&sum, sound, countsOf(all.msgs, all.bytes, sound)};
}

// The rows of one capture, with its counts as `now`.
struct Side {
    std::vector<ComparedRow> subjects, senders, groups;
};

Side sideOf(const ComparedCapture& capture) {
    const ReportTables tables = reportTables(*capture.sum, false);
    const auto counts = [&](uint64_t messages, uint64_t bytes) {
        return countsOf(messages, bytes, capture.seconds);
    };
    Side side;
    for (const ReportSubject& row : tables.subjects) {
        ComparedRow& made = side.subjects.emplace_back(ComparedRow{});
        made.port = row.port->port;
        made.group = row.net->net;
        made.subject = row.subject->subject;
        made.now = counts(row.subject->msgs, row.subject->bytes);
    }
    for (const ReportSender& row : tables.senders) {
        ComparedRow& made = side.senders.emplace_back(ComparedRow{});
        made.sender = row.sum.host;
        made.scid = row.sum.port;
        made.isSender = true;
        made.now = counts(row.messages, row.messageBytes);
    }
    for (const ReportGroup& row : tables.groups) {
        ComparedRow& made = side.groups.emplace_back(ComparedRow{});
        made.port = row.port->port;
        made.group = row.net->net;
        made.now = counts(row.messages, row.messageBytes);
    }
    return side;
}

// How many times as much; 1 where both are 0.
double ratioOf(double before, double now) {
    if (before > 0) return now / before;
    return now > 0 ? std::numeric_limits<double>::infinity() : 1;
}

// Growth and shrinking by the same factor are equal.
double sizeOf(double ratio) {
    return std::max(ratio, 1 / ratio);
}

Change changeOf(const ComparedRow& row, double factor) {
    if (!row.before.isThere) return Change::kCame;
    if (!row.now.isThere) return Change::kWent;
    const double messages = ratioOf(row.before.messagesASecond, row.now.messagesASecond);
    const double bytes = ratioOf(row.before.bytesASecond, row.now.bytesASecond);
    const double ratio = sizeOf(messages) >= sizeOf(bytes) ? messages : bytes;
    if (sizeOf(ratio) < factor) return Change::kSame;
    return ratio > 1 ? Change::kGrew : Change::kShrank;
}

uint64_t thousandths(double before, double now) {
    constexpr double kMost = 1e18;
    return static_cast<uint64_t>(std::min(std::abs(now - before) * 1000, kMost));
}

ComparedTable join(const char* name,
                   std::vector<ComparedRow>& before,
                   std::vector<ComparedRow>& now,
                   double factor) {
    ComparedTable table = {name, {}, {}};
    std::ranges::sort(before, isBefore);
    std::ranges::sort(now, isBefore);
    auto old = before.begin();
    const auto takeOld = [&] {
        ComparedRow& made = table.rows.emplace_back(*old);
        made.before = std::exchange(made.now, {});
        ++old;
    };
    for (const ComparedRow& row : now) {
        while (old != before.end() && isBefore(*old, row))
            takeOld();
        ComparedRow& made = table.rows.emplace_back(row);
        if (old != before.end() && orderOf(*old, row) == 0) made.before = (old++)->now;
    }
    while (old != before.end())
        takeOld();
    for (ComparedRow& row : table.rows) {
        row.change = changeOf(row, factor);
        ++table.changes[static_cast<size_t>(row.change)];
    }
    std::ranges::stable_sort(table.rows, std::greater(), comparedBytes);
    return table;
}

bool fits(const SnapHeader& sum) {
    const SnapTotals& beyond = sum.beyond;
    return beyond.subjects.msgs == 0 && beyond.multicast.data == 0 && beyond.multicast.rdata == 0;
}

}  // namespace

uint64_t comparedBytes(const ComparedRow& row) {
    return thousandths(row.before.bytesASecond, row.now.bytesASecond);
}

uint64_t comparedMessages(const ComparedRow& row) {
    return thousandths(row.before.messagesASecond, row.now.messagesASecond);
}

Comparison compareCaptures(const SnapHeader& before, const SnapHeader& now, double factor) {
    const ComparedCapture one = captureOf(before);
    const ComparedCapture two = captureOf(now);
    Side old = sideOf(one);
    Side young = sideOf(two);
    return {one,
            two,
            factor,
            fits(before) && fits(now),
            {join("subjects", old.subjects, young.subjects, factor),
             join("senders", old.senders, young.senders, factor),
             join("groups", old.groups, young.groups, factor)}};
}
