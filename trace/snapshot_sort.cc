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
#include <cstring>
#include <memory>
#include <span>
#include <type_traits>

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

// Room for the keys and for a copy of the records of the largest array, or none.
struct Scratch {
    SortKey* keys = nullptr;
    void* records = nullptr;

    [[nodiscard]] bool serves(uint32_t count) const {
        return keys != nullptr && count >= kFewRecords;
    }
};

// Brings each record to the place of its key. Reading from all over the array and writing in
// order lets the reads overlap, which following the cycles of the exchange in place wouldn't.
template <typename Record>
void moveToKeys(Record* records, uint32_t count, const Scratch& scratch) {
    auto* moved = static_cast<Record*>(scratch.records);
    for (uint32_t i = 0; i < count; ++i) {
        moved[i] = records[scratch.keys[i].index];
    }
    std::memcpy(records, moved, count * sizeof(Record));
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

template <typename Record>
void sortRecords(Record* records, uint32_t count, const Scratch& scratch) {
    const auto before = [](const Record& left, const Record& right) {
        return orderWord(left) < orderWord(right);
    };
    if (std::is_sorted(records, records + count, before)) return;
    if (!scratch.serves(count)) {
        std::sort(records, records + count, before);
        return;
    }
    const std::span keys(scratch.keys, count);
    for (uint32_t i = 0; i < count; ++i) {
        keys[i] = {orderWord(records[i]), 0, i, 0, 0};
    }
    sortKeys(keys);
    moveToKeys(records, count, scratch);
}

// Subjects. One is ordered by its elements' texts, each up to its first NUL and with it, one behind
// the other. Behind the last element follow NULs without end: so the shorter of two comes first,
// except that empty elements at the end look like none and are told apart by the count.

void shiftIn(SortKey& key, uint8_t byte) {
    key.high = key.high << 8 | key.low >> 56;
    key.low = key.low << 8 | byte;
}

// Shifts the subject's next bytes into the key. False if there were none left. Works on a copy,
// which no store through a byte pointer could change and which so stays in registers.
bool takeBytes(SortKey& key, const uint8_t* subject, size_t count) {
    const size_t totalLength = subjectLength(subject);
    SortKey taken = key;
    for (; count > 0 && taken.element < totalLength; --count) {
        const uint8_t byte = subject[taken.next++];
        shiftIn(taken, byte);
        if (byte != 0) continue;
        taken.element = static_cast<uint16_t>(taken.element + subject[taken.element]);
        taken.next = static_cast<uint16_t>(taken.element + 1);
    }
    for (; count > 0; --count) {
        shiftIn(taken, 0);
    }
    const bool any = key.element < totalLength;
    key = taken;
    return any;
}

bool takeBytesOfAll(std::span<SortKey> keys, const SnapSubject* subjects, size_t count) {
    bool any = false;
    for (SortKey& key : keys) {
        any |= takeBytes(key, subjects[key.index].subject, count);
    }
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
        while (end < keys.size() && sameKey(keys[end], keys[start])) {
            ++end;
        }
        if (end - start > 1) sortSubjectKeys(keys.subspan(start, end - start), subjects);
    }
}

bool subjectBefore(const SnapSubject& left, const SnapSubject& right) {
    return subjectCompare(left.subject, right.subject) < 0;
}

void sortSubjects(SnapSubject* subjects, uint32_t count, const Scratch& scratch) {
    if (!scratch.serves(count)) {
        std::sort(subjects, subjects + count, subjectBefore);
        return;
    }
    const std::span keys(scratch.keys, count);
    for (uint32_t i = 0; i < count; ++i) {
        keys[i] = {0, 0, i, kSubjectHeadBytes, kSubjectHeadBytes + 1};
    }
    sortSubjectKeys(keys, subjects);
    moveToKeys(subjects, count, scratch);
}

// What has an order: `visit` gets each array of the Snapshot and its count, parents first.
template <typename Visit>
void eachArray(const SnapHeader& snapshot, Visit visit) {
    visit(snapshot.ports, snapshot.portCount);
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        visit(port.nets, port.netCount);
        visit(port.rlHosts, port.rlHostCount);
        visit(port.ptpHosts, port.ptpHostCount);
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            visit(net.hosts, net.hostCount);
            for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
                visit(subject.hosts, subject.hostCount);
            }
            visit(net.subjects, net.subjectCount);
        }
    }
}

struct Largest {
    uint32_t count = 0;
    size_t bytes = 0;
};

Largest findLargest(const SnapHeader& snapshot) {
    Largest largest;
    eachArray(snapshot, [&](const auto* records, uint32_t count) {
        largest.count = std::max(largest.count, count);
        largest.bytes = std::max(largest.bytes, count * sizeof *records);
    });
    return largest;
}

struct Free {
    void operator()(void* block) const { std::free(block); }
};

}  // namespace

void snapshotSort(SnapHeader* snapshot) {
    const Largest largest = findLargest(*snapshot);
    const size_t keyBytes = largest.count * sizeof(SortKey);
    std::unique_ptr<uint8_t, Free> block;
    Scratch scratch;
    if (largest.count >= kFewRecords) {
        block.reset(static_cast<uint8_t*>(std::malloc(keyBytes + largest.bytes)));
    }
    if (block != nullptr) {
        scratch = {reinterpret_cast<SortKey*>(block.get()), block.get() + keyBytes};
    }
    eachArray(*snapshot, [&](auto* records, uint32_t count) {
        if constexpr (std::is_same_v<decltype(records), SnapSubject*>) {
            sortSubjects(records, count, scratch);
        } else {
            sortRecords(records, count, scratch);
        }
    });
}
