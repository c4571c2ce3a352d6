#include "lib/containers/subject_map.h"

#include <algorithm>
#include <random>

#include "tests/support/container_values.h"

namespace {

uint8_t* find(const SubjectMap& map, const Packed& subject) {
    return subjectMapFind(map, subject.data(), subject.size(), subjectHash(subject.data()));
}

// Of every length, among them some that differ in one byte or only in their elements' borders.
Packed someSubject(std::mt19937& random) {
    const char* near[] = {"A", "B", "A.B", "AB", "A.B.C", "A.BC", "AB.C", "ABC"};
    const size_t choice = random() % 500;
    if (choice < 8) return pack(near[choice]);
    std::string text = "A." + std::to_string(choice);
    while (text.size() + 40 < choice / 3) {
        text += ".B" + std::string(choice % 37, 'x');
    }
    return pack(text);
}

// Two maps share a pool, so that one that takes another's lines shows.
TEST(SubjectMap, HoldsWhatWasPutInAndEachPlaceOnce) {
    LinePool pool{};
    SubjectMap maps[2] = {};
    std::vector<Packed> held[2];  // by place
    std::mt19937 random(5);
    for (SubjectMap& map : maps) {
        map.pool = &pool;
        map.headBytes = 24;
    }
    for (int step = 0; step < 60000; ++step) {
        const size_t which = random() % 2;
        SubjectMap& map = maps[which];
        std::vector<Packed>& known = held[which];
        const Packed subject = someSubject(random);
        const auto place = std::find(known.begin(), known.end(), subject) - known.begin();
        const bool isKnown = place < static_cast<std::ptrdiff_t>(known.size());
        uint8_t* record = find(map, subject);
        ASSERT_EQ(record != nullptr, isKnown);
        if (!isKnown) {
            ASSERT_TRUE(subjectMapReserve(map));
            Packed borrowed = subject;
            record = subjectMapAdd(map, borrowed.data(), subjectHash(borrowed.data()));
            ASSERT_NE(record, nullptr);
            ASSERT_EQ(std::count(record, record + map.headBytes, 0), map.headBytes);
            std::fill_n(record, map.headBytes, 0xaa);
            borrowed.assign(borrowed.size(), 0xff);
            known.push_back(subject);
        } else if (random() % 2 == 0) {
            subjectMapRemove(map, static_cast<uint32_t>(place));
            known[static_cast<size_t>(place)] = known.back();
            known.pop_back();
        }
        ASSERT_EQ(map.count, known.size());
        if (step % 1000 != 0) continue;
        for (uint32_t i = 0; i < map.count; ++i) {
            const uint8_t* at = subjectMapAt(map, i);
            const uint8_t* heldSubject = at + map.headBytes;
            ASSERT_EQ(Packed(heldSubject, heldSubject + subjectLength(heldSubject)), known[i]);
            ASSERT_EQ(find(map, known[i]), at);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(at) % kCacheLineBytes, 0u);
        }
    }
    for (SubjectMap& map : maps) {
        subjectMapClear(map);
    }
    EXPECT_EQ(pool.slabCount, 0u);
    linePoolClear(pool);
}

}  // namespace
