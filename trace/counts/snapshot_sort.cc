// The order of a Snapshot's records.
//
// Records are large and subjects have long common beginnings, so an array of small keys is sorted:
// sixteen bytes of the record's sort order, and the record's place. An address with its SCid fits
// into that. The key of a subject holds the first bytes in which the subjects aren't all the same;
// subjects whose keys are equal are sorted among themselves by the bytes that follow. Finally the
// records are moved into the order of their keys.
//
// The keys need memory. Without it the records themselves are sorted, which is slower.

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <span>
#include <type_traits>

#include "lib/base/bytes.h"
#include "lib/base/prefetch.h"
#include "lib/containers/subject.h"
#include "trace/counts/snapshot.h"

namespace {

constexpr uint32_t kFewRecords = 16;  // fewer are sorted without keys
constexpr size_t kFewKeys = 24;       // up to so many are sorted by insertion

struct SortKey {
    uint64_t high, low;  // the bytes to compare next, as one number
    uint32_t index;      // of the record before the sort
    uint16_t element;    // of a subject: offset of the current element
    uint16_t next;       // and of the byte that follows those in `low`
};

constexpr size_t kKeyBytes = 16;

bool keyBefore(const SortKey& left, const SortKey& right) {
    if (left.high != right.high) return left.high < right.high;
    return left.low < right.low;
}

bool sameKey(const SortKey& left, const SortKey& right) {
    return left.high == right.high && left.low == right.low;
}

// Room for the keys and for a copy of the records of the largest array; null without memory.
struct Scratch {
    SortKey* keys = nullptr;
    void* records = nullptr;  // also the scratch space of the key sort

    [[nodiscard]] bool serves(uint32_t count) const {
        return keys != nullptr && count >= kFewRecords;
    }
};

// The length of the keys' common beginning, in bytes.
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

void sortByInsertion(std::span<SortKey> keys) {
    for (size_t i = 1; i < keys.size(); ++i) {
        const SortKey key = keys[i];
        size_t place = i;
        for (; place > 0 && keyBefore(key, keys[place - 1]); --place) {
            keys[place] = keys[place - 1];
        }
        keys[place] = key;
    }
}

// Distributes the keys into buckets by the first byte in which they differ, and sorts each bucket
// by the bytes that follow. Equal keys keep their order. A key has sixteen bytes, which bounds the
// recursion.
void sortByRadix(std::span<SortKey> keys, SortKey* dealt) {
    if (keys.size() < kFewKeys) return sortByInsertion(keys);
    const size_t common = countCommonBytes(keys);
    if (common == kKeyBytes) return;
    uint64_t SortKey::*const word = common < 8 ? &SortKey::high : &SortKey::low;
    const size_t shift = (7 - common % 8) * 8;

    std::array<uint32_t, 256> ends{};
    for (const SortKey& key : keys) {
        ++ends[key.*word >> shift & 0xff];
    }
    // During the distribution each bucket's end is the place of its next key.
    std::exclusive_scan(ends.begin(), ends.end(), ends.begin(), uint32_t{0});
    for (const SortKey& key : keys) {
        dealt[ends[key.*word >> shift & 0xff]++] = key;
    }
    std::memcpy(keys.data(), dealt, keys.size_bytes());
    uint32_t begin = 0;
    for (const uint32_t end : ends) {
        if (end - begin > 1) sortByRadix(keys.subspan(begin, end - begin), dealt);
        begin = end;
    }
}

void sortKeys(std::span<SortKey> keys, const Scratch& scratch) {
    if (std::is_sorted(keys.begin(), keys.end(), keyBefore)) return;
    sortByRadix(keys, static_cast<SortKey*>(scratch.records));
}

// Moves each record to the place of its key. Reading from all over the array and writing in order
// lets the reads overlap, which following the cycles of the exchange in place wouldn't.
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
    sortKeys(keys, scratch);
    moveToKeys(records, count, scratch);
}

// The order of subjects compares the texts of the elements one after the other, each up to and
// including its first NUL. The last element counts as followed by NULs without end, so the shorter
// of two subjects comes first; empty elements at the end make no difference then, so the element
// count decides.

// The next eight bytes of a subject as one number, padded with zeros at its end.
uint64_t loadAhead(const uint8_t* subject, size_t totalLength, size_t next) {
    const size_t left = totalLength - next;
    if (left >= 8) return loadBe64At(subject + next);
    if (totalLength >= 8) return loadBe64At(subject + totalLength - 8) << (8 - left) * 8;
    uint64_t bytes = 0;
    for (size_t i = 0; i < left; ++i) {
        bytes |= uint64_t{subject[next + i]} << (7 - i) * 8;
    }
    return bytes;
}

// The number of bytes before the first NUL; 8 when there is none.
size_t countBeforeNul(uint64_t bytes) {
    constexpr uint64_t kLow7 = 0x7f7f7f7f7f7f7f7f;
    const uint64_t nuls = ~(((bytes & kLow7) + kLow7) | bytes | kLow7);
    return static_cast<size_t>(std::countl_zero(nuls)) / 8;
}

// Shifts the first `count` of `bytes`, 1 to 8, into the key.
void shiftIn(SortKey& key, uint64_t bytes, size_t count) {
    const uint64_t first = bytes >> (8 - count) * 8;
    key.high = count == 8 ? key.low : key.high << count * 8 | key.low >> (8 - count) * 8;
    key.low = count == 8 ? first : key.low << count * 8 | first;
}

// Shifts the subject's next bytes into the key. False if there were none left. It works on a local
// copy, which can stay in registers because no byte pointer aliases it.
bool takeBytes(SortKey& key, const uint8_t* subject, size_t count) {
    const size_t totalLength = subjectLength(subject);
    SortKey taken = key;
    while (count > 0 && taken.element < totalLength) {
        const uint64_t bytes = loadAhead(subject, totalLength, taken.next);
        const size_t text = countBeforeNul(bytes);
        const size_t shifted = std::min({text + 1, count, size_t{8}});
        shiftIn(taken, bytes, shifted);
        count -= shifted;
        taken.next = static_cast<uint16_t>(taken.next + shifted);
        if (shifted <= text) continue;
        taken.element = static_cast<uint16_t>(taken.element + subject[taken.element]);
        taken.next = static_cast<uint16_t>(taken.element + 1);
    }
    while (count > 0) {
        const size_t shifted = std::min<size_t>(count, 8);
        shiftIn(taken, 0, shifted);
        count -= shifted;
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

// Sorts keys that agree in all bytes by their element count. Keys that agree in that too keep their
// order.
void sortEqual(std::span<SortKey> keys, const SnapSubject* subjects, const Scratch& scratch) {
    for (SortKey& key : keys) {
        key.high = 0;
        key.low = subjectElementCount(subjects[key.index].subject);
    }
    sortKeys(keys, scratch);
}

// Is the key one of several that agree, so that its subject will be read again?
bool isShared(std::span<const SortKey> keys, size_t at) {
    return at < keys.size() && sameKey(keys[at], keys[at - 1]);
}

// The records of sorted keys are scattered in memory, so those of later keys are prefetched: first
// the record and, once it has arrived, its subject.
void prefetchSubject(std::span<const SortKey> keys, size_t at, const SnapSubject* subjects) {
    constexpr size_t kAhead = 12;
    if (isShared(keys, at + 2 * kAhead)) prefetchLine(&subjects[keys[at + 2 * kAhead].index]);
    if (isShared(keys, at + kAhead)) prefetchLine(subjects[keys[at + kAhead].index].subject);
}

// Sorts keys that agree in the bytes taken so far. A subject has few bytes, and sixteen more of
// them are taken each time, which bounds the recursion.
void sortSubjectKeys(std::span<SortKey> keys, const SnapSubject* subjects, const Scratch& scratch) {
    size_t common = kKeyBytes;
    while (takeBytesOfAll(keys, subjects, common)) {
        common = countCommonBytes(keys);
        if (common == 0) break;
    }
    if (countCommonBytes(keys) == kKeyBytes) {
        sortEqual(keys, subjects, scratch);
        return;
    }
    sortKeys(keys, scratch);
    for (size_t start = 0, end = 0; start < keys.size(); start = end) {
        while (end < keys.size() && sameKey(keys[end], keys[start])) {
            prefetchSubject(keys, end++, subjects);
        }
        if (end - start > 1) sortSubjectKeys(keys.subspan(start, end - start), subjects, scratch);
    }
}

bool subjectBefore(const SnapSubject& left, const SnapSubject& right) {
    return subjectCompare(left.subject, right.subject) < 0;
}

void sortSubjects(SnapSubject* subjects, uint32_t count, const Scratch& scratch) {
    if (!scratch.serves(count)) {
        std::stable_sort(subjects, subjects + count, subjectBefore);
        return;
    }
    const std::span keys(scratch.keys, count);
    for (uint32_t i = 0; i < count; ++i) {
        keys[i] = {0, 0, i, kSubjectHeadBytes, kSubjectHeadBytes + 1};
    }
    sortSubjectKeys(keys, subjects, scratch);
    moveToKeys(subjects, count, scratch);
}

// Calls visit(array, count) for each array of the Snapshot that is sorted, parents first.
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
        static_assert(sizeof *records >= sizeof(SortKey));  // the key sort uses it too
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
