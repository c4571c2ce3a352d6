#include "lib/containers/subject.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "tests/support/container_values.h"

namespace {

using Bytes = Packed;
using Texts = std::vector<std::string>;

const std::string k127(127, 'x');

// A head that fits the bytes behind it.
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
    EXPECT_EQ(subjectFromText(buffer, 9, "A.B"), 9);
    for (const int32_t size : {8, 6, 3, 0, -1}) {
        EXPECT_EQ(subjectFromText(buffer, size, "A.B"), -1) << size;
    }

    // As the wire form, although the text would be shorter.
    char text[9];
    EXPECT_EQ(subjectToText(text, 8, pack("A.B").data()), nullptr);
    EXPECT_STREQ(subjectToText(text, 9, pack("A.B").data()), "A.B");

    // 255 bytes are the most, whatever the buffer holds.
    uint8_t large[600];
    const std::string most = k127 + "." + std::string(121, 'y');
    EXPECT_EQ(subjectFromText(large, sizeof large, most.c_str()), 255);
    EXPECT_EQ(subjectFromText(large, sizeof large, (most + "y").c_str()), -1);
    EXPECT_EQ(subjectFromText(large, sizeof large, (most + ".y").c_str()), -1);
    EXPECT_EQ(subjectInit(large, sizeof large), 3);
    for (const size_t length : {251u, 900u, 250u}) {
        EXPECT_EQ(subjectAppend(large, sizeof large, std::string(length, 'x').c_str()),
                  length == 250 ? 255 : -1);
    }
    EXPECT_TRUE(subjectIsValid(large));
}

TEST(Subject, JudgesBytesFromOutside) {
    const Bytes most = subjectOf126Elements();
    Bytes tooMany = most;
    tooMany[2] = 125;

    const struct {
        const char* name;
        Bytes bytes;
        bool valid;
    } cases[] = {
        {"empty", wire(0, {}), true},
        {"empty, counts one", wire(1, {}), false},
        {"two, one without characters", wire(2, {2, 0, 3, 'A', 0}), true},
        {"NUL among the characters", wire(1, {5, 'A', 0, 'B', 0}), true},
        {"126 elements", most, true},
        {"counts 125 of 126", tooMany, false},
        {"no NUL", wire(1, {2, 'A'}), false},
        {"no NUL at the second", wire(2, {3, 'A', 0, 3, 'B', 'C'}), false},
        {"counts too many", wire(3, {3, 'A', 0, 3, 'B', 0}), false},
        {"counts none", wire(0, {3, 'A', 0}), false},
        {"element runs out", wire(1, {4, 'A', 0}), false},
        {"element size 255", wire(1, {255, 'A', 0}), false},
        {"left over", wire(1, {3, 'A', 0, 0}), false},
        {"size 0 behind a NUL", wire(2, {2, 0, 0}), false},
        {"size 0, counts 255", wire(255, {2, 0, 0, 0}), false},
        {"size 1", wire(1, {1, 0}), false},
        {"size 1 at the end", wire(2, {2, 0, 1}), false},
        {"length 2", {0, 2}, false},
        {"length 256", {1, 0}, false},
        {"length 259", {1, 3}, false},
    };
    for (const auto& [name, bytes, valid] : cases) {
        EXPECT_EQ(subjectIsValid(bytes.data()), valid) << name;
        for (const bool right : {true, false}) {
            Bytes field = {static_cast<uint8_t>(right ? 0x79 : 0x7a)};
            field.insert(field.end(), bytes.begin(), bytes.end());
            EXPECT_EQ(subjectFieldIsValid(field.data()), valid && right) << name;
        }
    }
    EXPECT_EQ(unpack(wire(3, {2, 0, 5, 'A', 0, 'B', 0, 2, 0}).data()), ".A.");
}

TEST(Subject, IsBuiltElementByElement) {
    uint8_t buffer[12];
    EXPECT_EQ(subjectInit(buffer, 2), -1);
    EXPECT_EQ(subjectInit(buffer, 3), 3);
    EXPECT_EQ(subjectAppend(buffer, 9, "AB"), 7);
    EXPECT_EQ(subjectAppend(buffer, 10, "C"), -1);  // 10 is not below 10
    EXPECT_EQ(subjectAppendBytes(buffer, 11, "CDE", 1), 10);
    EXPECT_EQ(Bytes(buffer, buffer + 10), pack("AB.C"));
    EXPECT_STREQ(subjectElement(buffer, 2), "C");
    EXPECT_EQ(subjectElement(buffer, 0), nullptr);
    EXPECT_EQ(subjectElement(buffer, 3), nullptr);
}

TEST(Subject, CopiesARangeOfElements) {
    const struct {
        uint32_t first, last;
        int32_t size, result;
        const char* text;
    } cases[] = {
        {1, 3, 50, 15, "X.a.b.c"}, {2, 2, 50, 9, "X.b"},    {3, 9, 50, 9, "X.c"},
        {3, 2, 50, 0, "X"},        {1, 3, 13, -1, "X.a.b"}, {0, 3, 50, 0, "X"},
    };
    for (const auto& [first, last, size, result, text] : cases) {
        Bytes target = pack("X");
        target.resize(50);
        EXPECT_EQ(subjectCopyElements(target.data(), size, pack("a.b.c").data(), first, last),
                  result);
        EXPECT_EQ(unpack(target.data()), text);
    }
}

TEST(Subject, SortsElementByElement) {
    const Texts order = {"A", "A.B", "A.B.C", "A.BA", "A.C",  "AB",   "AB.A",
                         "B", "a",   "a.A",   "aa",   "\x7f", "\x80", "\xff"};
    Texts shuffled = order;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(3));
    std::sort(shuffled.begin(), shuffled.end(), [](const auto& left, const auto& right) {
        return subjectCompare(pack(left).data(), pack(right).data()) < 0;
    });
    EXPECT_EQ(shuffled, order);
    EXPECT_LT(subjectCompare(wire(0, {}).data(), pack("A").data()), 0);
}

}  // namespace
