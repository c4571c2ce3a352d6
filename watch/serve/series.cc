#include "watch/serve/series.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "lib/containers/subject.h"
#include "trace/counts/snapshot_totals.h"
#include "watch/core/fields.h"

namespace {

constexpr size_t kMessagesAt = std::size(kMulticastFields);

constexpr uint32_t kNumbersOfKind[kSeriesKinds] = {
    std::size(kMulticastFields) + std::size(kSubjectFields),
    std::size(kMulticastFields),
    std::size(kRetransmissionFields),
    std::size(kRetransmissionFields),
    std::size(kPointToPointFields),
    std::size(kPointToPointFields),
    std::size(kSubjectFields),
};
static_assert(*std::ranges::max_element(kNumbersOfKind) == kSeriesNumbers);

// The part of the room that hosts and subjects leave to ports and groups: a flood of subjects
// doesn't hide a group.
constexpr uint64_t kShareOfWholes = 8;

constexpr bool isDetail(SeriesKind kind) {
    return kind == SeriesKind::kMulticastHost || kind == SeriesKind::kRetransmissionHost ||
           kind == SeriesKind::kPointToPointHost || kind == SeriesKind::kSubject;
}

constexpr size_t indexOf(SeriesKind kind) {
    return static_cast<size_t>(kind);
}

// A copy of the packed subject. Null where memory runs out.
const uint8_t* copySubject(const uint8_t* subject) {
    void* const copy = std::malloc(subjectLength(subject));
    return copy != nullptr
               ? static_cast<const uint8_t*>(std::memcpy(copy, subject, subjectLength(subject)))
               : nullptr;
}

void freeSubject(const SeriesRow& row) {
    std::free(const_cast<uint8_t*>(row.key.subject));
}

// Null where there is no room for it.
SeriesRow* addRow(SeriesTable& table, const RowKey& key, uint32_t hash) {
    const SeriesKind kind = seriesKindOf(key);
    const uint32_t series = seriesOfKind(kind);
    const uint64_t mostRowSeries = table.rules.mostSeries - kSeriesReserved;
    const uint64_t kept = isDetail(kind) ? mostRowSeries / kShareOfWholes : 0;
    if (table.rowSeries + series > mostRowSeries - kept) return nullptr;

    SeriesRow row{.hash = hash, .silentIntervals = 0, .key = key, .sums = {}};
    if (key.subject != nullptr) row.key.subject = copySubject(key.subject);
    const bool hasKey = key.subject == nullptr || row.key.subject != nullptr;
    const uint32_t at = hasKey ? rowAdd(table.rows, row, kNoRow) : kNoRow;
    if (at == kNoRow) {
        freeSubject(row);
        return nullptr;
    }
    table.rowSeries += series;
    return &table.rows.rows[at];
}

// The sums of the row, or those of its kind's "other" row.
SeriesSums& sumsOf(SeriesTable& table, const RowKey& key) {
    const auto hash = static_cast<uint32_t>(rowKeyHash(key));
    const uint32_t at = rowFind(
        table.rows, hash, [&key](const SeriesRow& row) { return rowKeysAreSame(row.key, key); });
    SeriesRow* const row = at != kNoRow ? &table.rows.rows[at] : addRow(table, key, hash);
    if (row != nullptr) {
        row->silentIntervals = 0;
        return row->sums;
    }
    const SeriesKind kind = seriesKindOf(key);
    table.hasOther[indexOf(kind)] = true;
    table.leftOutSeries += seriesOfKind(kind);
    return table.others[indexOf(kind)];
}

template <typename Record, size_t kCount>
void addFields(uint64_t* numbers, const Field<Record> (&fields)[kCount], const Record& record) {
    for (size_t at = 0; at < kCount; ++at) {
        numbers[at] += record.*fields[at].value;
    }
}

void addGroup(SeriesTable& table, const SnapPort& port, const SnapNet& net) {
    uint64_t* const numbers = sumsOf(table, {.port = port.port, .group = net.net}).numbers;
    addFields(numbers, kMulticastFields, sumOfHosts(hostsOf(net)));
    for (const SnapSubject& subject : subjectsOf(net)) {
        addFields(numbers + kMessagesAt, kSubjectFields, subject);
    }
}

// The sums of a port's tables of hosts are there before its first request or reject, and don't
// expire between two of them: a counter that first appears with a value shows no increase.
void addWhole(SeriesTable& table, const SnapPort& port) {
    for (const SnapNet& net : netsOf(port)) {
        addGroup(table, port, net);
    }
    addFields(sumsOf(table, {.table = BusTable::kRetransmission, .port = port.port}).numbers,
              kRetransmissionFields, sumOfHosts(rlHostsOf(port)));
    addFields(sumsOf(table, {.table = BusTable::kPointToPoint, .port = port.port}).numbers,
              kPointToPointFields, sumOfHosts(ptpHostsOf(port)));
}

void addHost(SeriesTable& table, const RowKey& key, const auto& fields, const auto& record) {
    SeriesSums& sums = sumsOf(table, key);
    addFields(sums.numbers, fields, record);
    if constexpr (requires { record.reliability; }) sums.reliability = record.reliability;
}

void addDetails(SeriesTable& table, const SnapPort& port) {
    const auto add = [&table](const RowKey& key, const auto& fields, const auto& record) {
        addHost(table, key, fields, record);
    };
    for (const SnapNet& net : netsOf(port)) {
        if (table.rules.hosts) eachHostRow(port, net, add);
        if (table.rules.subjects == nullptr) continue;
        eachSubjectRow(port, net, [&table](const RowKey& key, const SnapSubject& subject) {
            if (sublistMatch(table.rules.subjects, subject.subject) == nullptr) return;
            addFields(sumsOf(table, key).numbers, kSubjectFields, subject);
        });
    }
    if (table.rules.hosts) eachHostRow(port, add);
}

void addHead(SeriesTable& table, const SnapHeader& snapshot) {
    table.frames += snapshot.frames;
    table.packets += snapshot.packets;
    table.busPackets += snapshot.oskaPackets;
    table.kernelDrops += snapshot.source.kernelDrops;
    table.interfaceDrops += snapshot.source.interfaceDrops;
    for (size_t reason = 0; reason < kSnapNotReadKinds; ++reason)
        table.notRead[reason] += snapshot.source.notRead[reason];
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        table.faults[kind] += snapshot.faults[kind].packets;
    }
    ++table.intervals;
}

bool isExpired(const SeriesTable& table, const SeriesRow& row) {
    return row.silentIntervals >= table.rules.expireIntervals;
}

// Rows move together, and the index is made again.
void removeExpired(SeriesTable& table) {
    RowTable<SeriesRow>& rows = table.rows;
    uint32_t kept = 0;
    for (const SeriesRow& row : rowsOf(rows)) {
        if (isExpired(table, row)) {
            table.rowSeries -= seriesOfKind(seriesKindOf(row.key));
            freeSubject(row);
        } else {
            rows.rows[kept++] = row;
        }
    }
    std::fill_n(rows.slots, size_t{rows.slotMask} + 1, 0u);
    rows.count = kept;
    for (uint32_t at = 0; at < kept; ++at) {
        rowEnterSlot(rows, at);
    }
}

}  // namespace

uint32_t seriesOfKind(SeriesKind kind) {
    return kNumbersOfKind[indexOf(kind)] + (kind == SeriesKind::kMulticastHost ? 1 : 0);
}

void seriesAdd(SeriesTable& table, const SnapHeader& snapshot) {
    for (SeriesRow& row : rowsOf(table.rows)) {
        ++row.silentIntervals;  // until it is met
    }
    table.leftOutSeries = 0;
    addHead(table, snapshot);
    for (const SnapPort& port : portsOf(snapshot)) {
        addWhole(table, port);
    }
    for (const SnapPort& port : portsOf(snapshot)) {
        addDetails(table, port);
    }
    const auto expired = [&table](const SeriesRow& row) { return isExpired(table, row); };
    if (std::ranges::any_of(rowsOf(table.rows), expired)) removeExpired(table);
}

void seriesFree(SeriesTable& table) {
    for (const SeriesRow& row : rowsOf(table.rows)) {
        freeSubject(row);
    }
    rowsFree(table.rows);
    const SeriesRules rules = table.rules;
    table = {};
    table.rules = rules;
}
