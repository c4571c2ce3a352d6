#include "watch/top/rows.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "trace/counts/snapshot_totals.h"
#include "watch/core/snapshot_rows.h"

namespace {

// What a row stands for, with where it is in the Snapshot.
struct Incoming {
    uint16_t port;
    uint32_t group;
    const uint8_t* subject;  // null in tables without

    const SnapPort* snapPort;
    const SnapNet* net;
    const SnapSubject* snapSubject;
};

// Subjects that look the same, since an element ends at its first NUL, may be two.
int compareSubjects(const uint8_t* left, const uint8_t* right) {
    if (left == nullptr) return 0;
    const int order = subjectCompare(left, right);
    if (order != 0) return order;
    const size_t leftBytes = subjectLength(left);
    const size_t rightBytes = subjectLength(right);
    if (leftBytes != rightBytes) return leftBytes < rightBytes ? -1 : 1;
    return std::memcmp(left, right, leftBytes);
}

template <typename Left, typename Right>
int compareKeys(const Left& left,
                const uint8_t* leftSubject,
                const Right& right,
                const uint8_t* rightSubject) {
    if (left.port != right.port) return left.port < right.port ? -1 : 1;
    if (left.group != right.group) return left.group < right.group ? -1 : 1;
    return compareSubjects(leftSubject, rightSubject);
}

void gatherNet(std::vector<Incoming>& all,
               TopTable table,
               const SnapPort& port,
               const SnapNet& net) {
    Incoming row = {.port = hostOrder16(port.port),
                    .group = hostOrder32(net.net),
                    .subject = nullptr,
                    .snapPort = &port,
                    .net = &net,
                    .snapSubject = nullptr};
    if (table == TopTable::kMulticast) {
        if (net.hostCount != 0) all.push_back(row);
        return;
    }
    for (const SnapSubject& subject : subjectsOf(net)) {
        row.subject = subject.subject;
        row.snapSubject = &subject;
        all.push_back(row);
    }
}

bool portHasRow(TopTable table, const SnapPort& port) {
    return (table == TopTable::kRetransmission ? port.rlHostCount : port.ptpHostCount) != 0;
}

std::vector<Incoming> gather(TopTable table, const SnapHeader& snapshot) {
    std::vector<Incoming> all;
    for (const SnapPort& port : portsOf(snapshot)) {
        if (!topTableInfo(table).hasGroups) {
            if (!portHasRow(table, port)) continue;
            all.push_back({.port = hostOrder16(port.port),
                           .group = 0,
                           .subject = nullptr,
                           .snapPort = &port,
                           .net = nullptr,
                           .snapSubject = nullptr});
            continue;
        }
        for (const SnapNet& net : netsOf(port)) {
            gatherNet(all, table, port, net);
        }
    }
    const auto isBefore = [](const Incoming& left, const Incoming& right) {
        return compareKeys(left, left.subject, right, right.subject) < 0;
    };
    // The Snapshot leaves the order of subjects that look the same open.
    if (!std::ranges::is_sorted(all, isBefore)) std::ranges::sort(all, isBefore);
    return all;
}

size_t columnsOf(const TopRows& rows) {
    return topTableInfo(rows.table).columnCount;
}

// Appends a host and gives the place of its numbers, all 0.
uint64_t* appendHost(
    TopRows& to, uint32_t address, uint16_t scid, FieldSide side, double reliability) {
    to.hosts.push_back({hostOrder32(address), hostOrder16(scid), side, reliability});
    to.hostNumbers.resize(to.hostNumbers.size() + columnsOf(to));
    return to.hostNumbers.data() + to.hostNumbers.size() - columnsOf(to);
}

// What the port's hosts sent is what went over it; what they received is the same once more.
template <typename Host, typename Fields>
void appendTwoSided(TopRows& to,
                    const Fields& fields,
                    std::span<const Host> hosts,
                    uint64_t* sums) {
    for (const Host& host : hosts) {
        for (const FieldSide side : {FieldSide::kReceived, FieldSide::kSent}) {
            uint64_t* const numbers = appendHost(to, host.host, host.port, side, 0);
            topNumbersAdd(fields, host.counters, side, numbers);
        }
        topNumbersAdd(fields, host.counters, FieldSide::kSent, sums);
    }
}

void appendMulticast(TopRows& to, const SnapNet& net, uint64_t* sums) {
    for (const SnapHost& host : hostsOf(net)) {
        uint64_t* const numbers =
            appendHost(to, host.host, host.port, FieldSide::kOnly, host.reliability);
        topNumbersAdd(kMulticastFields, host, FieldSide::kOnly, numbers);
        topNumbersAdd(kMulticastFields, host, FieldSide::kOnly, sums);
    }
}

void appendSubject(TopRows& to, const SnapSubject& subject, uint64_t* sums) {
    for (const SnapSubjectHost& host : sendersOf(subject)) {
        uint64_t* const numbers = appendHost(to, host.host, host.port, FieldSide::kOnly, 0);
        topNumbersAdd(kSubjectSenderFields, host, FieldSide::kOnly, numbers);
    }
    topNumbersAdd(kSubjectFields, subject, FieldSide::kOnly, sums);
}

void appendContent(TopRows& to, const Incoming& row, uint64_t* sums) {
    const SnapPort& port = *row.snapPort;
    switch (to.table) {
        case TopTable::kMulticast:
            return appendMulticast(to, *row.net, sums);
        case TopTable::kRetransmission:
            return appendTwoSided(to, kRetransmissionFields, rlHostsOf(port), sums);
        case TopTable::kPointToPoint:
            return appendTwoSided(to, kPointToPointFields, ptpHostsOf(port), sums);
        case TopTable::kSubjects:
            return appendSubject(to, *row.snapSubject, sums);
    }
}

// A comparison may read so many bytes of a subject, however short it is.
constexpr size_t kCompareBytes = 8;

size_t keepSubject(TopRows& to, const uint8_t* subject) {
    const size_t at = to.subjects.size();
    if (subject == nullptr) return at;
    to.subjects.insert(to.subjects.end(), subject, subject + subjectLength(subject));
    return at;
}

// Retransmission has a port of its own, and is shown under that of the service.
uint16_t shownPort(TopTable table, const SnapPort& port) {
    return table == TopTable::kRetransmission ? port.servicePort : port.port;
}

// Appends the row of the interval, whose trail goes on where it was.
void appendActive(TopRows& to, const Incoming& row, int64_t nowSeconds, uint64_t lastEntry) {
    const size_t firstHost = to.hosts.size();
    uint64_t sums[kTopMostNumbers] = {};
    appendContent(to, row, sums);
    to.numbers.insert(to.numbers.end(), sums, sums + columnsOf(to));
    to.rows.push_back({.port = row.port,
                       .shownPort = hostOrder16(shownPort(to.table, *row.snapPort)),
                       .group = row.group,
                       .subjectAt = keepSubject(to, row.subject),
                       .firstHost = static_cast<uint32_t>(firstHost),
                       .hostCount = static_cast<uint32_t>(to.hosts.size() - firstHost),
                       .activeSeconds = nowSeconds,
                       .activeInterval = to.interval,
                       .lastEntry = lastEntry});
}

void appendSilent(TopRows& to, const TopRows& from, const TopRow& row) {
    TopRow silent = row;
    silent.subjectAt =
        keepSubject(to, topTableInfo(from.table).hasSubjects ? rowSubject(from, row) : nullptr);
    silent.firstHost = silent.hostCount = 0;
    to.rows.push_back(silent);
    to.numbers.resize(to.numbers.size() + columnsOf(to));
}

// One pass over two ordered lists.
struct Merge {
    const TopRows& from;
    TopRows& to;
    int64_t nowSeconds;
    bool keepsSilent;
    size_t roomForNew;
};

void mergeRow(Merge& merge, const Incoming& row, const TopRow* known) {
    if (known == nullptr) {
        if (merge.roomForNew == 0) {
            ++merge.to.leftOut;
            return;
        }
        --merge.roomForNew;
    }
    appendActive(merge.to, row, merge.nowSeconds, known != nullptr ? known->lastEntry : kNoEntry);
}

void mergeAll(Merge& merge, std::span<const Incoming> incoming) {
    auto row = incoming.begin();
    for (const TopRow& known : merge.from.rows) {
        const uint8_t* const subject =
            topTableInfo(merge.from.table).hasSubjects ? rowSubject(merge.from, known) : nullptr;
        int order = 1;
        for (; row != incoming.end(); ++row) {
            order = compareKeys(*row, row->subject, known, subject);
            if (order >= 0) break;
            mergeRow(merge, *row, nullptr);
        }
        if (row != incoming.end() && order == 0) {
            mergeRow(merge, *row++, &known);
        } else if (merge.keepsSilent && merge.nowSeconds - known.activeSeconds < kRowKeepSeconds) {
            appendSilent(merge.to, merge.from, known);
        }
    }
    for (; row != incoming.end(); ++row) {
        mergeRow(merge, *row, nullptr);
    }
}

void addTotals(TopRows& to, const SnapHeader& snapshot) {
    const SnapTotals sums = snapshotAddUp(snapshot);
    SnapSubject subjects{};
    subjects.msgs = sums.subjects.msgs;
    subjects.bytes = sums.subjects.bytes;
    switch (to.table) {
        case TopTable::kMulticast:
            return topNumbersAdd(kMulticastFields, sums.multicast, FieldSide::kOnly, to.totals);
        case TopTable::kRetransmission:
            return topNumbersAdd(kRetransmissionFields, sums.retransmission, FieldSide::kSent,
                                 to.totals);
        case TopTable::kPointToPoint:
            return topNumbersAdd(kPointToPointFields, sums.pointToPoint, FieldSide::kSent,
                                 to.totals);
        case TopTable::kSubjects:
            return topNumbersAdd(kSubjectFields, subjects, FieldSide::kOnly, to.totals);
    }
}

// An interval without a length has no rates.
void addToTrail(TopRows& rows, Trail& trail, double seconds) {
    if (seconds <= 0) return;
    for (size_t at = 0; at < rows.rows.size(); ++at) {
        TopRow& row = rows.rows[at];
        if (!rowIsActive(rows, row)) continue;
        row.lastEntry = trailAdd(trail, row.lastEntry, rowNumbers(rows, at), seconds);
    }
}

void empty(TopRows& rows, TopTable table) {
    rows.table = table;
    rows.rows.clear();
    rows.numbers.clear();
    rows.subjects.clear();
    rows.hosts.clear();
    rows.hostNumbers.clear();
    std::ranges::fill(rows.totals, 0);
    rows.leftOut = 0;
}

}  // namespace

bool rowIsActive(const TopRows& rows, const TopRow& row) {
    return row.activeInterval == rows.interval;
}

std::span<const uint64_t> rowNumbers(const TopRows& rows, size_t row) {
    return std::span(rows.numbers).subspan(row * columnsOf(rows), columnsOf(rows));
}

std::span<const uint64_t> hostNumbers(const TopRows& rows, size_t host) {
    return std::span(rows.hostNumbers).subspan(host * columnsOf(rows), columnsOf(rows));
}

const uint8_t* rowSubject(const TopRows& rows, const TopRow& row) {
    return rows.subjects.data() + row.subjectAt;
}

void rowsTake(TopRows& rows,
              TopRows& spare,
              Trail& trail,
              const SnapHeader& snapshot,
              double seconds,
              size_t mostRows) {
    const std::vector<Incoming> incoming = gather(rows.table, snapshot);
    trailBegin(trail);
    empty(spare, rows.table);
    spare.interval = trail.lastInterval;
    Merge merge = {.from = rows,
                   .to = spare,
                   .nowSeconds = snapshot.thisTime.seconds,
                   .keepsSilent = rows.rows.size() < mostRows,
                   .roomForNew = mostRows - std::min(mostRows, rows.rows.size())};
    mergeAll(merge, incoming);
    spare.subjects.resize(spare.subjects.size() + kCompareBytes);
    addTotals(spare, snapshot);
    addToTrail(spare, trail, seconds);
    std::swap(rows, spare);
}
