#include "lib/containers/subject.h"

#include <algorithm>
#include <random>
#include <set>
#include <span>
#include <utility>

#include "lib/containers/subject_map.h"
#include "tests/support/container_values.h"
#include "tests/support/packet_builder.h"

namespace {

using Texts = std::vector<std::string>;

const std::string k127(127, 'x');

// With a head that fits.
Packed wire(uint8_t count, Packed elements) {
    const Packed head = {0, static_cast<uint8_t>(elements.size() + 3), count};
    elements.insert(elements.begin(), head.begin(), head.end());
    return elements;
}

// What the header promises of a text's elements; empty where it is no subject.
Packed packed(const Texts& elements) {
    size_t size = 3;
    for (const std::string& element : elements) {
        const bool isRest = element == ">" && &element != &elements.back();
        if (element.empty() || element.size() > 127 || isRest) return {};
        size += element.size() + 2;
    }
    return size > 255 ? Packed() : packedElements(elements);
}

TEST(Subject, PacksWhatIsWellFormedText) {
    const Texts choice = {"", "A", "AB", "*", ">", ">>", "\xc3\xa4 b", k127, k127 + "x"};
    std::mt19937 random(1);
    for (int i = 0; i < 5000; ++i) {
        Texts elements(1 + random() % 4);
        std::string text;
        for (std::string& element : elements) {
            element = choice[random() % choice.size()];
            text += (&element == &elements[0] ? "" : ".") + element;
        }
        const Packed subject = packed(elements);
        ASSERT_EQ(pack(text), subject) << text;
        if (subject.empty()) continue;
        ASSERT_TRUE(subjectIsValid(subject.data())) << text;
        ASSERT_EQ(unpack(subject.data()), text);
        ASSERT_EQ(subjectTextSize(text.c_str()), static_cast<int32_t>(subject.size()) - 4);
        ASSERT_EQ(subjectHasWildcard(subject.data()),
                  std::ranges::count(elements, "*") + std::ranges::count(elements, ">") != 0);
    }
    EXPECT_EQ(subjectTextSize(nullptr), -1);
    EXPECT_EQ(subjectTextSize(".."), 5);
}

TEST(Subject, FitsTheBufferToTheByte) {
    uint8_t buffer[600];
    char text[9];
    for (const int32_t size : {9, 8, 6, 3, 0, -1}) {
        EXPECT_EQ(subjectFromText(buffer, size, "A.B"), size == 9 ? 9 : -1) << size;
    }
    EXPECT_EQ(subjectFromText(buffer, 9, "A.B"), 9);
    EXPECT_STREQ(subjectToText(text, 9, buffer), "A.B");
    // As the wire form, although the text would be shorter.
    EXPECT_EQ(subjectToText(text, 8, buffer), nullptr);
    // 255 bytes are the most, whatever the buffer holds.
    for (const size_t length : {251u, 900u, 250u}) {
        EXPECT_EQ(subjectInit(buffer, sizeof buffer), 3);
        EXPECT_EQ(subjectAppend(buffer, sizeof buffer, std::string(length, 'x').c_str()),
                  length == 250 ? 255 : -1);
    }
}

// `count` elements, each as the header draws it, and nothing left over.
bool isSound(uint8_t count, std::span<const uint8_t> left) {
    if (count == 0 || left.empty()) return count == 0 && left.empty();
    const size_t size = left[0];
    return size >= 2 && size <= left.size() && left[size - 1] == 0 &&
           isSound(static_cast<uint8_t>(count - 1), left.subspan(size));
}

TEST(Subject, JudgesBytesFromOutside) {
    const uint8_t choice[] = {0, 1, 2, 3, 5, 'A', 255};
    std::mt19937 random(1);
    std::vector<std::pair<Packed, bool>> cases = {
        {{0, 2}, false}, {{1, 0}, false}, {{1, 3}, false}, {subjectOf126Elements(), true}};
    for (int i = 0; i < 50000; ++i) {
        Packed elements(random() % 7);
        for (uint8_t& byte : elements) {
            byte = choice[random() % std::size(choice)];
        }
        const auto count = static_cast<uint8_t>(random() % 4);
        cases.push_back({wire(count, elements), isSound(count, elements)});
    }
    EXPECT_GT(std::ranges::count(cases, true, &std::pair<Packed, bool>::second), 1000);
    for (const auto& [bytes, valid] : cases) {
        ASSERT_EQ(subjectIsValid(bytes.data()), valid) << testing::PrintToString(bytes);
        Packed field = bytes;
        field.insert(field.begin(), 0x79);
        ASSERT_EQ(subjectFieldIsValid(field.data()), valid);
    }
    EXPECT_EQ(unpack(wire(3, {2, 0, 5, 'A', 0, 'B', 0, 2, 0}).data()), ".A.");
}

// Every byte and the length count, up to the longest subject and at every tail; nothing beyond is
// read, which the address sanitizer sees.
TEST(ProbeHash, CountsEveryByteAndNoneBeyond) {
    for (size_t size = 0; size <= 255; ++size) {
        std::vector<uint8_t> bytes(size);
        bytes.shrink_to_fit();
        std::set<uint32_t> hashes = {probeHashBytes(bytes.data(), size)};
        for (uint8_t& byte : bytes) {
            byte = 1;
            hashes.insert(probeHashBytes(bytes.data(), size));
            byte = 0;
        }
        EXPECT_GE(hashes.size(), size) << size;  // two may meet by chance
    }
}

// Of two to five lines.
Packed someSubject(std::mt19937& random) {
    const size_t choice = random() % 400;
    return pack(std::to_string(choice) + "." + k127.substr(choice % 127) + "." + k127.substr(27));
}

// Two maps share a pool, so that one that takes another's lines shows.
TEST(SubjectMap, HoldsWhatWasPutInAndEachPlaceOnce) {
    LinePool pool{};
    SubjectMap maps[2] = {{&pool, 24, 0, 0, 0, {}, {}}, {&pool, 24, 0, 0, 0, {}, {}}};
    std::vector<Packed> held[2];  // by place
    std::mt19937 random(5);
    const auto find = [](const SubjectMap& map, const Packed& subject) {
        return subjectMapFind(map, subject.data(), subject.size(), subjectHash(subject.data()));
    };
    for (int step = 0; step < 60000; ++step) {
        const size_t which = random() % 2;
        SubjectMap& map = maps[which];
        std::vector<Packed>& known = held[which];
        Packed subject = someSubject(random);
        const auto at = std::ranges::find(known, subject);
        ASSERT_EQ(find(map, subject) != nullptr, at != known.end());
        if (at == known.end()) {
            known.push_back(subject);
            ASSERT_TRUE(subjectMapReserve(map));
            uint8_t* record = subjectMapAdd(map, subject.data(), subjectHash(subject.data()));
            ASSERT_EQ(std::count(record, record + map.headBytes, 0), map.headBytes);
            std::fill_n(record, map.headBytes, 0xaa);
            std::ranges::fill(subject, 0xff);  // the map has a copy
        } else if (random() % 2 == 0) {
            subjectMapRemove(map, static_cast<uint32_t>(at - known.begin()));
            *at = known.back();
            known.pop_back();
        }
        ASSERT_EQ(map.count, known.size());
        for (uint32_t i = 0; step % 1000 == 0 && i < map.count; ++i) {
            const uint8_t* record = subjectMapAt(map, i);
            ASSERT_TRUE(std::ranges::equal(known[i], std::span(record + 24, known[i].size())));
            ASSERT_EQ(find(map, known[i]), record);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(record) % kCacheLineBytes, 0u);
        }
    }
    for (SubjectMap& map : maps) {
        subjectMapClear(map);
    }
    EXPECT_EQ(pool.slabCount, 0u);
    linePoolClear(pool);
}

}  // namespace
