#include "lib/containers/subject_map.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "tests/support/container_values.h"

namespace {

struct Record {
    SubjectMapEntry entry;
    uint64_t messages;
};

struct Free {
    void operator()(void* block) const { std::free(block); }
};
using OwnedRecord = std::unique_ptr<Record, Free>;
using Map = std::unique_ptr<SubjectMap, decltype(&subjectMapDestroy)>;

OwnedRecord makeRecord(const Packed& subject) {
    OwnedRecord record(static_cast<Record*>(std::malloc(sizeof(Record) + subject.size())));
    if (record != nullptr) std::memcpy(record.get() + 1, subject.data(), subject.size());
    return record;
}

Map makeMap() {
    return Map(subjectMapCreate(sizeof(Record)), subjectMapDestroy);
}

// Among them subjects that differ in one byte or only in their elements' borders.
TEST(SubjectMap, HoldsWhatWasPutInAndEachPlaceOnce) {
    const char* near[] = {"A", "B", "A.B", "AB", "A.B.C", "A.BC", "AB.C", "ABC"};
    std::mt19937 random(5);
    const Map map = makeMap();
    std::map<std::string, OwnedRecord> held;
    for (int step = 0; step < 30000; ++step) {
        const size_t choice = random() % 500;
        const std::string text = choice < 8 ? near[choice] : "A." + std::to_string(choice) + ".B";
        const Packed subject = pack(text);
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

}  // namespace
