#include "lib/base/text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "tests/support/fail_alloc.h"

namespace {

using Block = std::unique_ptr<char, decltype(&std::free)>;

// A destination with marks behind the size that is told.
struct Room {
    explicit Room(const std::string& text) {
        std::memset(bytes, '#', sizeof bytes);
        std::memcpy(bytes, text.c_str(), text.size() + 1);
    }
    char bytes[32];
};

TEST(Text, FormatReturnsWhatItWrote) {
    const struct {
        size_t sizeBytes;
        std::string text, expected;
    } cases[] = {
        {8, "", ""},
        {8, "seven77", "seven77"},
        {8, "eight888", "eight88"},
        {1, "x", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        Room room("");
        EXPECT_EQ(boundedFormat(room.bytes, c.sizeBytes, "%s", c.text.c_str()), c.expected.size());
        EXPECT_EQ(room.bytes, c.expected);
        EXPECT_EQ(room.bytes[c.sizeBytes], '#');
    }
    Room room("kept");
    EXPECT_EQ(boundedFormat(room.bytes, 0, "%d", 1), 0u);
    EXPECT_STREQ(room.bytes, "kept");
}

TEST(Text, CopyAndAppendStayWithinTheSize) {
    const struct {
        std::string there, source;
        size_t sizeBytes;
        std::string copied, appended;
    } cases[] = {
        {"ab", "cde", 6, "cde", "abcde"},
        {"ab", "cde", 5, "cde", "abcd"},
        {"ab", "cde", 3, "cd", "ab"},
        {"ab", "cde", 2, "c", "ab"},  // fuller than told: an append leaves it
        {"ab", "cde", 0, "ab", "ab"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sizeBytes);
        Room copied(c.there);
        boundedCopy(copied.bytes, c.source.c_str(), c.sizeBytes);
        EXPECT_EQ(copied.bytes, c.copied);
        Room appended(c.there);
        boundedAppend(appended.bytes, c.source.c_str(), c.sizeBytes);
        EXPECT_EQ(appended.bytes, c.appended);
        EXPECT_TRUE(c.sizeBytes <= 2 || appended.bytes[c.sizeBytes] == '#');
    }
}

TEST(Text, ConcatIsANewBlockOrNone) {
    EXPECT_STREQ(Block(concat2("ab", "c"), std::free).get(), "abc");
    EXPECT_STREQ(Block(concat3("", "x", "yz"), std::free).get(), "xyz");
    const FailAlloc fail{.after = 0};
    EXPECT_EQ(concat3("a", "b", "c"), nullptr);
}

}  // namespace
