#include "watch/serve/series.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "lib/containers/probe_index.h"
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

// The part of the room that hosts and subjects leave to ports and groups: somebody who floods the
// bus with subjects doesn't hide a group.
constexpr uint64_t kShareOfWholes = 8;

constexpr bool isDetail(SeriesKind kind) {
    return kind == SeriesKind::kMulticastHost || kind == SeriesKind::kRetransmissionHost ||
           kind == SeriesKind::kPointToPointHost || kind == SeriesKind::kSubject;
}

constexpr size_t indexOf(SeriesKind kind) {
    return static_cast<size_t>(kind);
}

uint32_t hashOf(const SeriesKey& key) {
    const uint64_t place = uint64_t{key.group} << 32 | key.host;
    const uint64_t rest = uint64_t{indexOf(key.kind)} << 32 | uint32_t{key.port} << 16 | key.scid;
    const uint32_t subject = key.subject != nullptr ? subjectHash(key.subject) : 0;
    return probeHashKey(probeMix(place ^ probeSeed.first, rest ^ probeSeed.second) ^ subject);
}

bool isSameSubject(const uint8_t* left, const uint8_t* right) {
    if (left == nullptr || right == nullptr) return left == right;
    const size_t length = subjectLength(left);
    return subjectLength(right) == length && std::memcmp(left, right, length) == 0;
}

bool isSame(const SeriesKey& left, const SeriesKey& right) {
    return left.kind == right.kind && left.port == right.port && left.scid == right.scid &&
           left.group == right.group && left.host == right.host &&
           isSameSubject(left.subject, right.subject);
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
SeriesRow* addRow(SeriesTable& table, const SeriesKey& key, uint32_t hash) {
    const uint32_t series = seriesOfKind(key.kind);
    const uint64_t mostRowSeries = table.rules.mostSeries - kSeriesReserved;
    const uint64_t kept = isDetail(key.kind) ? mostRowSeries / kShareOfWholes : 0;
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
SeriesSums& sumsOf(SeriesTable& table, const SeriesKey& key) {
    const uint32_t hash = hashOf(key);
    const uint32_t at =
        rowFind(table.rows, hash, [&key](const SeriesRow& row) { return isSame(row.key, key); });
    SeriesRow* const row = at != kNoRow ? &table.rows.rows[at] : addRow(table, key, hash);
    if (row != nullptr) {
        row->silentIntervals = 0;
        return row->sums;
    }
    table.hasOther[indexOf(key.kind)] = true;
    table.leftOutSeries += seriesOfKind(key.kind);
    return table.others[indexOf(key.kind)];
}

template <typename Record, size_t kCount>
void addFields(uint64_t* numbers, const Field<Record> (&fields)[kCount], const Record& record) {
    for (size_t at = 0; at < kCount; ++at) {
        numbers[at] += record.*fields[at].value;
    }
}

SeriesKey keyOf(SeriesKind kind, uint16_t port, uint32_t group) {
    return {.kind = kind, .port = port, .scid = 0, .group = group, .host = 0, .subject = nullptr};
}

void addGroup(SeriesTable& table, uint16_t port, const SnapNet& net) {
    uint64_t* const numbers =
        sumsOf(table, keyOf(SeriesKind::kMulticastGroup, port, net.net)).numbers;
    addFields(numbers, kMulticastFields, sumOfHosts(std::span(net.hosts, net.hostCount)));
    for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        addFields(numbers + kMessagesAt, kSubjectFields, subject);
    }
}

void addMulticastHosts(SeriesTable& table, uint16_t port, const SnapNet& net) {
    SeriesKey key = keyOf(SeriesKind::kMulticastHost, port, net.net);
    for (const SnapHost& host : std::span(net.hosts, net.hostCount)) {
        key.host = host.host;
        key.scid = host.port;
        SeriesSums& sums = sumsOf(table, key);
        addFields(sums.numbers, kMulticastFields, host);
        sums.reliability = host.reliability;
    }
}

void addSubjects(SeriesTable& table, uint16_t port, const SnapNet& net) {
    SeriesKey key = keyOf(SeriesKind::kSubject, port, net.net);
    for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        if (sublistMatch(table.rules.subjects, subject.subject) == nullptr) continue;
        key.subject = subject.subject;
        addFields(sumsOf(table, key).numbers, kSubjectFields, subject);
    }
}

// The sums of a port's table of hosts. They are there before the port's first request or reject,
// and don't expire between two of them: what begins with its first number has no increase in it.
template <typename Host, typename Counters, size_t kCount>
void addTable(SeriesTable& table,
              SeriesKind kind,
              uint16_t port,
              const Field<Counters> (&fields)[kCount],
              std::span<const Host> hosts) {
    addFields(sumsOf(table, keyOf(kind, port, 0)).numbers, fields, sumOfHosts(hosts));
}

template <typename Host, typename Counters, size_t kCount>
void addHosts(SeriesTable& table,
              SeriesKind kind,
              uint16_t port,
              const Field<Counters> (&fields)[kCount],
              std::span<const Host> hosts) {
    SeriesKey key = keyOf(kind, port, 0);
    for (const Host& host : hosts) {
        key.host = host.host;
        key.scid = host.port;
        addFields(sumsOf(table, key).numbers, fields, host.counters);
    }
}

std::span<const SnapRlHost> rlHostsOf(const SnapPort& port) {
    return {port.rlHosts, port.rlHostCount};
}

std::span<const SnapPtpHost> ptpHostsOf(const SnapPort& port) {
    return {port.ptpHosts, port.ptpHostCount};
}

void addWhole(SeriesTable& table, const SnapPort& port) {
    for (const SnapNet& net : std::span(port.nets, port.netCount)) {
        addGroup(table, port.port, net);
    }
    addTable(table, SeriesKind::kRetransmissionPort, port.port, kRetransmissionFields,
             rlHostsOf(port));
    addTable(table, SeriesKind::kPointToPointPort, port.port, kPointToPointFields,
             ptpHostsOf(port));
}

void addDetails(SeriesTable& table, const SnapPort& port) {
    for (const SnapNet& net : std::span(port.nets, port.netCount)) {
        if (table.rules.hosts) addMulticastHosts(table, port.port, net);
        if (table.rules.subjects != nullptr) addSubjects(table, port.port, net);
    }
    if (!table.rules.hosts) return;
    addHosts(table, SeriesKind::kRetransmissionHost, port.port, kRetransmissionFields,
             rlHostsOf(port));
    addHosts(table, SeriesKind::kPointToPointHost, port.port, kPointToPointFields,
             ptpHostsOf(port));
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

// Rows move together, and the index is made anew.
void removeExpired(SeriesTable& table) {
    RowTable<SeriesRow>& rows = table.rows;
    uint32_t kept = 0;
    for (const SeriesRow& row : rowsOf(rows)) {
        if (isExpired(table, row)) {
            table.rowSeries -= seriesOfKind(row.key.kind);
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
    const std::span<const SnapPort> ports(snapshot.ports, snapshot.portCount);
    for (const SnapPort& port : ports) {
        addWhole(table, port);
    }
    for (const SnapPort& port : ports) {
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
