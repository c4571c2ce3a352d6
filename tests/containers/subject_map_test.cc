#include "lib/containers/subject_map.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/support/fail_alloc.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Record {
    SubjectMapEntry entry;
    uint64_t messages;
};

struct Free {
    void operator()(void* block) const { std::free(block); }
};
using OwnedRecord = std::unique_ptr<Record, Free>;
using Map = std::unique_ptr<SubjectMap, decltype(&subjectMapDestroy)>;

Bytes pack(const std::string& text) {
    uint8_t buffer[256];
    const int32_t length = subjectFromText(buffer, sizeof buffer, text.c_str());
    EXPECT_GT(length, 0);
    return Bytes(buffer, buffer + length);
}

OwnedRecord makeRecord(const Bytes& subject) {
    OwnedRecord record(static_cast<Record*>(std::malloc(sizeof(Record) + subject.size())));
    if (record != nullptr) std::memcpy(record.get() + 1, subject.data(), subject.size());
    return record;
}

Map makeMap() {
    return Map(subjectMapCreate(sizeof(Record)), subjectMapDestroy);
}

TEST(SubjectMap, HoldsWhatWasPutInAndEachPlaceOnce) {
    std::mt19937 random(5);
    const Map map = makeMap();
    std::map<std::string, OwnedRecord> held;
    for (int step = 0; step < 30000; ++step) {
        const std::string text = "A." + std::to_string(random() % 500) + ".B";
        const Bytes subject = pack(text);
        SubjectMapEntry* found = subjectMapFind(map.get(), subject.data());
        const auto known = held.find(text);
        ASSERT_EQ(found, known == held.end() ? nullptr : &known->second->entry);
        if (found == nullptr) {
            OwnedRecord record = makeRecord(subject);
            ASSERT_EQ(subjectMapInsert(map.get(), &record->entry), kStatusSuccess);
            ASSERT_EQ(subjectMapAt(map.get(), subjectMapCount(map.get()) - 1), &record->entry);
            held[text] = std::move(record);
        } else if (random() % 2 == 0) {
            subjectMapRemove(map.get(), found);
            held.erase(known);
        }
        ASSERT_EQ(subjectMapCount(map.get()), held.size());
        if (step % 1000 != 0) continue;
        for (uint32_t i = 0; i < subjectMapCount(map.get()); ++i) {
            const SubjectMapEntry* record = subjectMapAt(map.get(), i);
            ASSERT_EQ(record->position, i);
            ASSERT_EQ(subjectMapFind(map.get(), subjectMapSubject(map.get(), record)), record);
        }
    }
}

// Subjects that begin alike, differ in one byte or only in their elements' borders.
TEST(SubjectMap, TellsSubjectsApartThatNearlyAgree) {
    const Map map = makeMap();
    std::vector<OwnedRecord> records;
    for (const char* text : {"A", "B", "A.B", "AB", "A.B.C", "A.BC", "AB.C", "ABC"}) {
        const Bytes subject = pack(text);
        EXPECT_EQ(subjectMapFind(map.get(), subject.data()), nullptr) << text;
        records.push_back(makeRecord(subject));
        EXPECT_EQ(subjectMapInsert(map.get(), &records.back()->entry), kStatusSuccess);
    }
    for (const OwnedRecord& record : records) {
        const uint8_t* subject = subjectMapSubject(map.get(), &record->entry);
        EXPECT_EQ(subjectMapFind(map.get(), subject), &record->entry);
    }
}

// As a snapshot does it: downwards, each record seen once although removals move others.
TEST(SubjectMap, CanBeWalkedDownwardsWhileItIsThinnedOut) {
    const Map map = makeMap();
    std::vector<OwnedRecord> records;
    for (int i = 0; i < 100; ++i) {
        records.push_back(makeRecord(pack(std::to_string(i))));
        records.back()->messages = static_cast<uint64_t>(i);
        ASSERT_EQ(subjectMapInsert(map.get(), &records.back()->entry), kStatusSuccess);
    }
    std::set<uint64_t> seen;
    for (uint32_t i = subjectMapCount(map.get()); i-- > 0;) {
        auto* record = reinterpret_cast<Record*>(subjectMapAt(map.get(), i));
        EXPECT_TRUE(seen.insert(record->messages).second);
        if (record->messages % 3 != 0) subjectMapRemove(map.get(), &record->entry);
    }
    EXPECT_EQ(seen.size(), 100u);
    EXPECT_EQ(subjectMapCount(map.get()), 34u);
}

TEST(SubjectMap, LeavesNoTraceOfWhatMemoryFailed) {
    const size_t failed = eachAllocationFails([] {
        const Map map = makeMap();
        if (map == nullptr) return;
        std::vector<OwnedRecord> held;
        for (int i = 0; i < 40; ++i) {
            const Bytes subject = pack(std::to_string(i));
            OwnedRecord record = makeRecord(subject);
            if (record == nullptr) continue;
            const pelmoStatus status = subjectMapInsert(map.get(), &record->entry);
            if (status != kStatusSuccess) {
                EXPECT_EQ(status, kStatusNoMemory);
                EXPECT_EQ(subjectMapFind(map.get(), subject.data()), nullptr);
                continue;
            }
            held.push_back(std::move(record));
        }
        EXPECT_EQ(subjectMapCount(map.get()), held.size());
        for (const OwnedRecord& record : held) {
            EXPECT_EQ(subjectMapAt(map.get(), record->entry.position), &record->entry);
            subjectMapRemove(map.get(), &record->entry);
        }
    });
    EXPECT_GT(failed, 80u);
}

}  // namespace
