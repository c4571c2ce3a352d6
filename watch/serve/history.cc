#include "watch/serve/history.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>
#include <type_traits>
#include <utility>

#include "lib/base/bytes.h"
#include "trace/counts/snapshot_totals.h"
#include "watch/core/snapshot_rows.h"
#include "watch/core/span.h"
#include "watch/serve/history_totals.h"

// A row of the interval that is being made.
struct HistoryRow {
    uint64_t hash;
    uint32_t recordAt;
};

namespace {

constexpr size_t kMaskBytes = 2;
constexpr size_t kNumberBytes = 10;  // of a LEB128, at most
constexpr size_t kRecordBytes = kMaskBytes + kHistoryNumbers * kNumberBytes;
constexpr uint32_t kRowsOfBucket = 4;

template <typename Item>
bool reserve(Item*& items, size_t needed, auto& capacity) {
    if (needed <= capacity) return true;
    const size_t wanted = std::max<size_t>(needed, 2 * size_t{capacity});
    void* const block = std::realloc(items, wanted * sizeof(Item));
    if (block == nullptr) return false;
    items = static_cast<Item*>(block);
    capacity = static_cast<std::remove_reference_t<decltype(capacity)>>(wanted);
    return true;
}

uint8_t* appendNumber(uint8_t* at, uint64_t number) {
    for (; number >= 0x80; number >>= 7) {
        *at++ = static_cast<uint8_t>(number | 0x80);
    }
    *at++ = static_cast<uint8_t>(number);
    return at;
}

uint64_t takeNumber(const uint8_t*& at) {
    uint64_t number = 0;
    for (unsigned shift = 0;; shift += 7) {
        const uint8_t byte = *at++;
        number |= uint64_t{byte & 0x7fu} << shift;
        if (byte < 0x80) return number;
    }
}

template <typename Record, size_t kCount>
void addRow(History& history,
            const RowKey& key,
            const Field<Record> (&fields)[kCount],
            const Record& record) {
    static_assert(kCount <= kHistoryNumbers);
    if (history.failed || !reserve(history.rows, history.rowCount + 1, history.rowCapacity) ||
        !reserve(history.records, history.recordBytes + kRecordBytes, history.recordCapacity)) {
        history.failed = true;
        return;
    }
    uint8_t* const begin = history.records + history.recordBytes;
    uint8_t* at = begin + kMaskBytes;
    uint16_t mask = 0;
    for (size_t field = 0; field < kCount; ++field) {
        const uint64_t number = record.*fields[field].value;
        if (number == 0) continue;
        mask = static_cast<uint16_t>(mask | 1u << field);
        at = appendNumber(at, number);
    }
    storeBe16At(begin, mask);
    history.rows[history.rowCount++] = {rowKeyHash(key),
                                        static_cast<uint32_t>(history.recordBytes)};
    history.recordBytes += static_cast<size_t>(at - begin);
}

// The sum of a table, where it has hosts.
template <typename Host, typename Record, size_t kCount>
void addSum(History& history,
            const RowKey& key,
            const Field<Record> (&fields)[kCount],
            std::span<const Host> hosts) {
    if (!hosts.empty()) addRow(history, key, fields, sumOfHosts(hosts));
}

void addPort(History& history, const SnapPort& port) {
    const auto add = [&history](const RowKey& key, const auto& fields, const auto& record) {
        addRow(history, key, fields, record);
    };
    for (const SnapNet& net : netsOf(port)) {
        addSum(history, {.port = port.port, .group = net.net}, kMulticastFields, hostsOf(net));
        eachHostRow(port, net, add);
        eachSubjectRow(port, net, [&add](const RowKey& key, const SnapSubject& subject) {
            add(key, kSubjectFields, subject);
            for (const SnapSubjectHost& sender : sendersOf(subject)) {
                add(rowKeyOfHost(key, sender), kSubjectSenderFields, sender);
            }
        });
    }
    addSum(history, {.table = BusTable::kRetransmission, .port = port.port}, kRetransmissionFields,
           rlHostsOf(port));
    addSum(history, {.table = BusTable::kPointToPoint, .port = port.port}, kPointToPointFields,
           ptpHostsOf(port));
    eachHostRow(port, add);
}

// The parts of an interval's block.
struct Parts {
    uint32_t* bucketEnds;
    uint64_t* hashes;
    uint32_t* places;  // of the records, which follow the places
    uint8_t* records;
};

// Hashes go first: they want the widest boundary.
Parts partsOf(const HistoryInterval& interval) {
    Parts parts{};
    parts.hashes = reinterpret_cast<uint64_t*>(interval.block);
    parts.bucketEnds = reinterpret_cast<uint32_t*>(parts.hashes + interval.rowCount);
    parts.places = parts.bucketEnds + interval.bucketMask + 1;
    parts.records = reinterpret_cast<uint8_t*>(parts.places + interval.rowCount);
    return parts;
}

size_t blockBytesOf(const History& history, uint32_t buckets) {
    return history.rowCount * (sizeof(uint64_t) + sizeof(uint32_t)) + buckets * sizeof(uint32_t) +
           history.recordBytes;
}

uint32_t bucketOf(const HistoryInterval& interval, uint64_t hash) {
    return static_cast<uint32_t>(hash) & interval.bucketMask;
}

// Sorts the rows by their buckets: counted, summed up to where each bucket begins, and placed, by
// which each beginning moves to its end.
void fillBlock(const History& history, HistoryInterval& interval) {
    const Parts parts = partsOf(interval);
    const std::span rows(history.rows, history.rowCount);
    const std::span ends(parts.bucketEnds, size_t{interval.bucketMask} + 1);
    std::ranges::fill(ends, 0u);
    for (const HistoryRow& row : rows) {
        ++ends[bucketOf(interval, row.hash)];
    }
    uint32_t begin = 0;
    for (uint32_t& end : ends) {
        begin += std::exchange(end, begin);
    }
    for (const HistoryRow& row : rows) {
        const uint32_t at = ends[bucketOf(interval, row.hash)]++;
        parts.hashes[at] = row.hash;
        parts.places[at] = row.recordAt;
    }
    std::memcpy(parts.records, history.records, history.recordBytes);
}

// Without memory, or where the rows alone are more than all may be, the interval has none.
void keepRows(History& history, HistoryInterval& interval) {
    if (history.failed || history.rowCount == 0) return;
    const uint32_t buckets = std::bit_ceil(history.rowCount / kRowsOfBucket + 1);
    const size_t blockBytes = blockBytesOf(history, buckets);
    if (blockBytes > history.mostBytes) return;
    interval.block = static_cast<uint8_t*>(std::malloc(blockBytes));
    if (interval.block == nullptr) return;
    interval.rowCount = history.rowCount;
    interval.bucketMask = buckets - 1;
    interval.blockBytes = blockBytes;
    history.blockBytes += blockBytes;
    fillBlock(history, interval);
}

HistoryInterval& slotAt(History& history, uint32_t at) {
    return history.intervals[(history.first + at) % kHistoryMostIntervals];
}

void removeFirst(History& history) {
    HistoryInterval& interval = slotAt(history, 0);
    history.blockBytes -= interval.blockBytes;
    std::free(interval.block);
    interval = {};
    history.first = (history.first + 1) % kHistoryMostIntervals;
    --history.count;
}

// Makes room for an interval of this time. Times only rise within the history: a clock that was set
// back ends all that is in it.
void removeOld(History& history, TimeSpec newestTime) {
    constexpr int64_t kHistoryNanoseconds = kHistorySeconds * kNanosecondsOfSecond;
    const int64_t newest = nanosecondsOf(newestTime);
    const auto timeAt = [&](uint32_t at) { return nanosecondsOf(slotAt(history, at).time); };
    const bool isSetBack = history.count > 0 && timeAt(history.count - 1) > newest;
    while (history.count > 0 && (isSetBack || history.count == kHistoryMostIntervals ||
                                 timeAt(0) <= newest - kHistoryNanoseconds)) {
        removeFirst(history);
    }
}

void keepTotals(HistoryInterval& interval, const SnapHeader& snapshot) {
    size_t at = 0;
    historyEachTotal(snapshot, snapshotAddUp(snapshot),
                     [&](const char*, const char*, uint64_t number) {
                         if (at < kHistoryTotals) interval.totals[at++] = number;
                     });
}

}  // namespace

void historyAdd(History& history, const SnapHeader& snapshot) {
    if (history.intervals == nullptr) {
        history.intervals = static_cast<HistoryInterval*>(
            std::calloc(kHistoryMostIntervals, sizeof(HistoryInterval)));
        if (history.intervals == nullptr) return;
    }
    removeOld(history, snapshot.thisTime);
    history.rowCount = 0;
    history.recordBytes = 0;
    history.failed = false;
    for (const SnapPort& port : portsOf(snapshot)) {
        addPort(history, port);
    }
    HistoryInterval& interval = slotAt(history, history.count++);
    interval = {};
    interval.time = snapshot.thisTime;
    interval.elapsedNanoseconds = snapshot.span.elapsedNanoseconds;
    keepTotals(interval, snapshot);
    keepRows(history, interval);
    while (history.blockBytes > history.mostBytes) {
        removeFirst(history);
    }
}

const HistoryInterval& historyAt(const History& history, uint32_t at) {
    return history.intervals[(history.first + at) % kHistoryMostIntervals];
}

void historyRow(const HistoryInterval& interval,
                const RowKey& key,
                uint64_t (&numbers)[kHistoryNumbers]) {
    std::ranges::fill(numbers, 0u);
    if (interval.rowCount == 0) return;
    const Parts parts = partsOf(interval);
    const uint64_t hash = rowKeyHash(key);
    const uint32_t bucket = bucketOf(interval, hash);
    const uint32_t end = parts.bucketEnds[bucket];
    uint32_t at = bucket == 0 ? 0 : parts.bucketEnds[bucket - 1];
    while (at < end && parts.hashes[at] != hash) {
        ++at;
    }
    if (at == end) return;
    const uint8_t* record = parts.records + parts.places[at];
    const uint16_t mask = loadBe16At(record);
    record += kMaskBytes;
    for (size_t field = 0; field < kHistoryNumbers; ++field) {
        if ((mask >> field & 1u) != 0) numbers[field] = takeNumber(record);
    }
}

void historyFree(History& history) {
    while (history.count > 0) {
        removeFirst(history);
    }
    std::free(history.intervals);
    std::free(history.rows);
    std::free(history.records);
    history = {};
}
