#include "watch/serve/history.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>
#include <type_traits>
#include <utility>

#include "lib/containers/probe_index.h"
#include "lib/containers/subject.h"
#include "trace/counts/snapshot_totals.h"
#include "watch/core/fields.h"
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

uint64_t hashOfSubject(const uint8_t* subject) {
    constexpr size_t kBlockBytes = 16;
    const size_t length = subjectLength(subject);
    uint64_t state = length;
    size_t at = 0;
    for (; length - at >= kBlockBytes; at += kBlockBytes) {
        state = probeMixBlock(subject + at, state ^ probeSeed.first);
    }
    return probeMix(state ^ probeSeed.first,
                    probeMixFew(subject + at, length - at) ^ probeSeed.second);
}

uint64_t hashOf(const HistoryKey& key) {
    const uint64_t place = uint64_t{key.group} << 32 | key.host;
    const uint64_t rest = uint64_t{key.scid} << 32 | uint32_t{key.port} << 16 |
                          static_cast<uint32_t>(key.table) << 8 | (key.hasHost ? 1u : 0u);
    const uint64_t hash = probeMix(place ^ probeSeed.first, rest ^ probeSeed.second);
    if (key.subject == nullptr) return hash;
    return probeMix(hash ^ probeSeed.second, hashOfSubject(key.subject) ^ probeSeed.first);
}

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
            const HistoryKey& key,
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
    history.rows[history.rowCount++] = {hashOf(key), static_cast<uint32_t>(history.recordBytes)};
    history.recordBytes += static_cast<size_t>(at - begin);
}

HistoryKey keyOf(HistoryTable table, uint16_t port, uint32_t group) {
    return {.table = table,
            .hasHost = false,
            .port = port,
            .scid = 0,
            .group = group,
            .host = 0,
            .subject = nullptr};
}

template <typename Host>
HistoryKey withHost(HistoryKey key, const Host& host) {
    key.hasHost = true;
    key.host = host.host;
    key.scid = host.port;
    return key;
}

void addSubject(History& history, HistoryKey key, const SnapSubject& subject) {
    key.subject = subject.subject;
    addRow(history, key, kSubjectFields, subject);
    for (const SnapSubjectHost& sender : std::span(subject.hosts, subject.hostCount)) {
        addRow(history, withHost(key, sender), kSubjectSenderFields, sender);
    }
}

void addNet(History& history, uint16_t port, const SnapNet& net) {
    const std::span<const SnapHost> hosts(net.hosts, net.hostCount);
    const HistoryKey key = keyOf(HistoryTable::kMulticast, port, net.net);
    addRow(history, key, kMulticastFields, sumOfHosts(hosts));
    for (const SnapHost& host : hosts) {
        addRow(history, withHost(key, host), kMulticastFields, host);
    }
    for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        addSubject(history, keyOf(HistoryTable::kSubjects, port, net.net), subject);
    }
}

template <typename Host, typename Counters, size_t kCount>
void addHosts(History& history,
              const HistoryKey& key,
              const Field<Counters> (&fields)[kCount],
              std::span<const Host> hosts) {
    if (hosts.empty()) return;
    addRow(history, key, fields, sumOfHosts(hosts));
    for (const Host& host : hosts) {
        addRow(history, withHost(key, host), fields, host.counters);
    }
}

void addPort(History& history, const SnapPort& port) {
    for (const SnapNet& net : std::span(port.nets, port.netCount)) {
        addNet(history, port.port, net);
    }
    addHosts(history, keyOf(HistoryTable::kRetransmission, port.port, 0), kRetransmissionFields,
             std::span<const SnapRlHost>(port.rlHosts, port.rlHostCount));
    addHosts(history, keyOf(HistoryTable::kPointToPoint, port.port, 0), kPointToPointFields,
             std::span<const SnapPtpHost>(port.ptpHosts, port.ptpHostCount));
}

// The parts of an interval's block.
struct Parts {
    uint32_t* bucketEnds;
    uint64_t* hashes;
    uint32_t* places;  // of the records, behind the places
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
// back ends all that stands in it.
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
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
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
                const HistoryKey& key,
                uint64_t (&numbers)[kHistoryNumbers]) {
    std::ranges::fill(numbers, 0u);
    if (interval.rowCount == 0) return;
    const Parts parts = partsOf(interval);
    const uint64_t hash = hashOf(key);
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
