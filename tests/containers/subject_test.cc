#include "lib/containers/subject.h"

#include <algorithm>
#include <random>
#include <span>
#include <utility>

#include "tests/support/container_values.h"

namespace {

using Bytes = Packed;
using Texts = std::vector<std::string>;

const std::string k127(127, 'x');

// A head that fits the bytes after it.
Bytes wire(uint8_t count, const Bytes& elements) {
    Bytes all = {0, static_cast<uint8_t>(elements.size() + 3), count};
    all.insert(all.end(), elements.begin(), elements.end());
    return all;
}

// What the header promises of a text's elements; empty where it is no subject.
Bytes packed(const Texts& elements) {
    Bytes all;
    for (const std::string& element : elements) {
        const bool isRest = element == ">" && &element != &elements.back();
        if (element.empty() || element.size() > 127 || isRest) return {};
        all.push_back(static_cast<uint8_t>(element.size() + 2));
        all.insert(all.end(), element.begin(), element.end());
        all.push_back(0);
    }
    return all.size() > 252 ? Bytes() : wire(static_cast<uint8_t>(elements.size()), all);
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
        const Bytes subject = packed(elements);
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
    uint8_t buffer[9];
    char text[9];
    EXPECT_EQ(subjectFromText(buffer, 9, "A.B"), 9);
    EXPECT_STREQ(subjectToText(text, 9, buffer), "A.B");
    // As the wire form, although the text would be shorter.
    EXPECT_EQ(subjectToText(text, 8, buffer), nullptr);
    for (const int32_t size : {8, 6, 3, 0, -1}) {
        EXPECT_EQ(subjectFromText(buffer, size, "A.B"), -1) << size;
    }
    EXPECT_EQ(subjectInit(buffer, 2), -1);

    // 255 bytes are the most, whatever the buffer holds.
    uint8_t large[600];
    for (const size_t length : {251u, 900u, 250u}) {
        EXPECT_EQ(subjectInit(large, sizeof large), 3);
        EXPECT_EQ(subjectAppend(large, sizeof large, std::string(length, 'x').c_str()),
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
    std::vector<std::pair<Bytes, bool>> cases = {
        {{0, 2}, false}, {{1, 0}, false}, {{1, 3}, false}, {subjectOf126Elements(), true}};
    cases.push_back(cases.back());
    cases.back().first[2] = 125;
    cases.back().second = false;
    for (int i = 0; i < 50000; ++i) {
        Bytes elements(random() % 7);
        for (uint8_t& byte : elements) {
            byte = choice[random() % std::size(choice)];
        }
        const auto count = static_cast<uint8_t>(random() % 4);
        cases.push_back({wire(count, elements), isSound(count, elements)});
    }
    EXPECT_GT(std::ranges::count(cases, true, &std::pair<Bytes, bool>::second), 1000);
    for (const auto& [bytes, valid] : cases) {
        ASSERT_EQ(subjectIsValid(bytes.data()), valid) << testing::PrintToString(bytes);
        Bytes field = Bytes{0x79};
        field.insert(field.end(), bytes.begin(), bytes.end());
        ASSERT_EQ(subjectFieldIsValid(field.data()), valid);
    }
    EXPECT_EQ(unpack(wire(3, {2, 0, 5, 'A', 0, 'B', 0, 2, 0}).data()), ".A.");
}

TEST(Subject, CopiesARangeOfElements) {
    const struct {
        uint32_t first, last;
        int32_t size, result;
        const char* text;
    } cases[] = {{1, 3, 50, 15, "X.a.b.c"},
                 {3, 9, 50, 9, "X.c"},
                 {3, 2, 50, 0, "X"},
                 {1, 3, 13, -1, "X.a.b"},
                 {0, 3, 50, 0, "X"}};
    for (const auto& [first, last, size, result, text] : cases) {
        Bytes target = pack("X");
        target.resize(50);
        const Bytes source = pack("a.b.c");
        EXPECT_EQ(subjectCopyElements(target.data(), size, source.data(), first, last), result);
        EXPECT_EQ(unpack(target.data()), text);
    }
}

TEST(Subject, SortsElementByElement) {
    const Texts order = {"A", "A.B", "A.B.C", "A.BA", "A.C",  "AB",   "AB.A",
                         "B", "a",   "a.A",   "aa",   "\x7f", "\x80", "\xff"};
    for (size_t i = 0; i < order.size() * order.size(); ++i) {
        const size_t left = i / order.size(), right = i % order.size();
        const int compared = subjectCompare(pack(order[left]).data(), pack(order[right]).data());
        EXPECT_EQ(compared < 0, left < right) << order[left] << " " << order[right];
        EXPECT_EQ(compared > 0, left > right) << order[left] << " " << order[right];
    }
}

}  // namespace
