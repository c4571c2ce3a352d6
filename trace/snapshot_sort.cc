// The order of a Snapshot's records.
//
// Records are large and subjects begin alike, so what is sorted is an array of small keys: sixteen
// bytes of what orders a record, and the record's place. An address with its SCid fits into that.
// Of subjects these are the first bytes in which they aren't all the same; those that still agree
// are sorted among themselves by what follows. Last, the records are moved to where their keys are.
//
// The keys need memory. Without it the records themselves are sorted, slower.

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <memory>
#include <span>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "trace/snapshot.h"

namespace {

constexpr uint32_t kFewRecords = 16;  // not worth keys

struct SortKey {
    uint64_t high, low;  // the bytes that are compared next, as one number
    uint32_t index;      // of the record, ahead of the sort
    uint16_t element;    // of a subject: where the element in hand begins
    uint16_t next;       // and its byte behind those in `low`
};

constexpr size_t kKeyBytes = 16;

bool keyBefore(const SortKey& left, const SortKey& right) {
    if (left.high != right.high) return left.high < right.high;
    return left.low < right.low;
}

bool sameKey(const SortKey& left, const SortKey& right) {
    return left.high == right.high && left.low == right.low;
}

void sortKeys(std::span<SortKey> keys) {
    if (std::is_sorted(keys.begin(), keys.end(), keyBefore)) return;
    std::sort(keys.begin(), keys.end(), keyBefore);
}

// Brings each record to the place of its key, one cycle of the exchange after the other. Uses up
// the keys.
template <typename Record>
void moveToKeys(Record* records, std::span<SortKey> keys) {
    for (uint32_t start = 0; start < keys.size(); ++start) {
        const Record first = records[start];
        uint32_t hole = start;
        for (uint32_t from = keys[hole].index; from != start; from = keys[hole].index) {
            records[hole] = records[from];
            keys[hole].index = hole;
            hole = from;
        }
        records[hole] = first;
        keys[hole].index = hole;
    }
}

uint64_t orderWord(const SnapPort& port) {
    return hostOrder16(port.port);
}

uint64_t orderWord(const SnapNet& net) {
    return hostOrder32(net.net);
}

template <typename Host>
uint64_t orderWord(const Host& host) {
    return uint64_t{hostOrder32(host.host)} << 16 | hostOrder16(host.port);
}

// `keys` has room for all records, or is none.
template <typename Record>
void sortRecords(Record* records, uint32_t count, SortKey* keys) {
    const auto before = [](const Record& left, const Record& right) {
        return orderWord(left) < orderWord(right);
    };
    if (std::is_sorted(records, records + count, before)) return;
    if (keys == nullptr || count < kFewRecords) {
        std::sort(records, records + count, before);
        return;
    }
    for (uint32_t i = 0; i < count; ++i)
        keys[i] = {orderWord(records[i]), 0, i, 0, 0};
    sortKeys({keys, count});
    moveToKeys(records, {keys, count});
}

// Subjects. One is ordered by its elements' texts, each up to its first NUL and with it, one behind
// the other. Behind the last element follow NULs without end: so the shorter of two comes first,
// except that empty elements at the end look like none and are told apart by the count.

void shiftIn(SortKey& key, uint8_t byte) {
    key.high = key.high << 8 | key.low >> 56;
    key.low = key.low << 8 | byte;
}

// Shifts the subject's next bytes into the key. False if there were none left.
bool takeBytes(SortKey& key, const uint8_t* subject, size_t count) {
    const size_t totalLength = subjectLength(subject);
    if (key.element == totalLength) {
        for (; count > 0; --count)
            shiftIn(key, 0);
        return false;
    }
    for (; count > 0; --count) {
        const uint8_t byte = key.element < totalLength ? subject[key.next++] : uint8_t{0};
        shiftIn(key, byte);
        if (byte != 0 || key.element >= totalLength) continue;
        key.element = static_cast<uint16_t>(key.element + subject[key.element]);
        key.next = static_cast<uint16_t>(key.element + 1);
    }
    return true;
}

bool takeBytesOfAll(std::span<SortKey> keys, const SnapSubject* subjects, size_t count) {
    bool any = false;
    for (SortKey& key : keys)
        any |= takeBytes(key, subjects[key.index].subject, count);
    return any;
}

// How many bytes all keys begin with alike.
size_t countCommonBytes(std::span<const SortKey> keys) {
    uint64_t high = 0;
    uint64_t low = 0;
    for (const SortKey& key : keys) {
        high |= key.high ^ keys[0].high;
        low |= key.low ^ keys[0].low;
    }
    const int bits = high != 0 ? std::countl_zero(high) : 64 + std::countl_zero(low);
    return static_cast<size_t>(bits) / 8;
}

// Keys that agree in all bytes: by count of elements, then by the place that they had.
void sortEqual(std::span<SortKey> keys, const SnapSubject* subjects) {
    for (SortKey& key : keys) {
        key.high = subjectElementCount(subjects[key.index].subject);
        key.low = key.index;
    }
    sortKeys(keys);
}

// Sorts keys that agree in the bytes taken so far. A subject has few bytes, and sixteen more of
// them are taken each time, which bounds the recursion.
void sortSubjectKeys(std::span<SortKey> keys, const SnapSubject* subjects) {
    size_t common = kKeyBytes;
    while (takeBytesOfAll(keys, subjects, common)) {
        common = countCommonBytes(keys);
        if (common == 0) break;
    }
    if (countCommonBytes(keys) == kKeyBytes) {
        sortEqual(keys, subjects);
        return;
    }
    sortKeys(keys);
    for (size_t start = 0, end = 0; start < keys.size(); start = end) {
        while (end < keys.size() && sameKey(keys[end], keys[start]))
            ++end;
        if (end - start > 1) sortSubjectKeys(keys.subspan(start, end - start), subjects);
    }
}

bool subjectBefore(const SnapSubject& left, const SnapSubject& right) {
    return subjectCompare(left.subject, right.subject) < 0;
}

void sortSubjects(SnapSubject* subjects, uint32_t count, SortKey* keys) {
    if (keys == nullptr || count < kFewRecords) {
        std::sort(subjects, subjects + count, subjectBefore);
        return;
    }
    for (uint32_t i = 0; i < count; ++i)
        keys[i] = {0, 0, i, kSubjectHeadBytes, kSubjectHeadBytes + 1};
    sortSubjectKeys({keys, count}, subjects);
    moveToKeys(subjects, {keys, count});
}

void sortNet(SnapNet& net, SortKey* keys) {
    sortRecords(net.hosts, net.hostCount, keys);
    for (SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        sortRecords(subject.hosts, subject.hostCount, keys);
    }
    sortSubjects(net.subjects, net.subjectCount, keys);
}

void sortPort(SnapPort& port, SortKey* keys) {
    sortRecords(port.nets, port.netCount, keys);
    for (SnapNet& net : std::span(port.nets, port.netCount))
        sortNet(net, keys);
    sortRecords(port.rlHosts, port.rlHostCount, keys);
    sortRecords(port.ptpHosts, port.ptpHostCount, keys);
}

uint32_t largestArray(const SnapHeader& snapshot) {
    uint32_t largest = snapshot.portCount;
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        largest = std::max({largest, port.netCount, port.rlHostCount, port.ptpHostCount});
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            largest = std::max({largest, net.hostCount, net.subjectCount});
            for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
                largest = std::max(largest, subject.hostCount);
            }
        }
    }
    return largest;
}

struct Free {
    void operator()(void* block) const { std::free(block); }
};

}  // namespace

void snapshotSort(SnapHeader* snapshot) {
    const uint32_t largest = largestArray(*snapshot);
    std::unique_ptr<SortKey[], Free> keys;
    if (largest >= kFewRecords) {
        keys.reset(static_cast<SortKey*>(std::malloc(size_t{largest} * sizeof(SortKey))));
    }
    sortRecords(snapshot->ports, snapshot->portCount, keys.get());
    for (SnapPort& port : std::span(snapshot->ports, snapshot->portCount)) {
        sortPort(port, keys.get());
    }
}
