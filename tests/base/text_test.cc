#include "lib/base/text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/fail_alloc.h"

namespace {

// A destination with marks behind the size that is told.
struct Room {
    explicit Room(const std::string& text) {
        std::memset(bytes, '#', sizeof bytes);
        std::memcpy(bytes, text.c_str(), text.size() + 1);
    }
    char bytes[32];
};

TEST(Text, FormatReturnsWhatItWrote) {
    Room room("kept");
    EXPECT_EQ(boundedFormat(room.bytes, 0, "%d", 1), 0u);
    EXPECT_STREQ(room.bytes, "kept");
    for (const std::string text : {"", "seven77", "eight888", "nine99999"}) {
        const std::string expected = text.substr(0, 7);
        EXPECT_EQ(boundedFormat(room.bytes, 8, "%s", text.c_str()), expected.size());
        EXPECT_EQ(room.bytes, expected);
        EXPECT_EQ(room.bytes[8], '#');
    }
    EXPECT_EQ(boundedFormat(room.bytes, 1, "x"), 0u);
    EXPECT_STREQ(room.bytes, "");
}

TEST(Text, CopyAndAppendStayWithinTheSize) {
    const struct {
        size_t sizeBytes;
        std::string copied, appended;
    } cases[] = {
        {6, "cde", "abcde"}, {5, "cde", "abcd"},
        {3, "cd", "ab"},     {2, "c", "ab"},  // fuller than told: an append leaves it
        {0, "ab", "ab"},
    };
    for (const auto& [sizeBytes, copied, appended] : cases) {
        SCOPED_TRACE(sizeBytes);
        Room room("ab");
        boundedAppend(room.bytes, "cde", sizeBytes);
        EXPECT_EQ(room.bytes, appended);
        EXPECT_TRUE(sizeBytes <= 2 || room.bytes[sizeBytes] == '#');
        room = Room("ab");
        boundedCopy(room.bytes, "cde", sizeBytes);
        EXPECT_EQ(room.bytes, copied);
    }
}

TEST(Text, SizeIsShort) {
    const struct {
        uint64_t value;
        std::string text;
    } cases[] = {
        {0, "0"},
        {1, "0.001 K"},
        {1023, "0.999 K"},
        {1024, "1 K"},
        {1536, "1.500 K"},
        {(1 << 20) - 1, "1023.999 K"},
        {(1 << 20) - 1024, "1023 K"},
        {1 << 20, "1 M"},
        {(1 << 20) + 1024, "1.001 M"},
        {(1 << 30) - 1, "1024.000 M"},
        {(1 << 30) - (1 << 20), "1023 M"},
        {1 << 30, "1 G"},
        {(uint64_t{1} << 40) + (1 << 29), "1024.500 G"},
        {UINT64_MAX, "17179869184.000 G"},
    };
    for (const auto& [value, text] : cases) {
        Room room("");
        EXPECT_EQ(sizeText(value, room.bytes, text.size() + 1), kStatusSuccess);
        EXPECT_EQ(room.bytes, text);
        EXPECT_EQ(room.bytes[text.size() + 1], '#');
        EXPECT_EQ(sizeText(value, room.bytes, text.size()), kStatusInvalidArgument) << text;
        EXPECT_EQ(sizeText(value, room.bytes, 0), kStatusInvalidArgument);
    }
}

TEST(Text, ConcatIsANewBlockOrNone) {
    char* joined = concat3("", "x", "yz");
    EXPECT_STREQ(joined, "xyz");
    std::free(joined);
    const FailAlloc fail{.after = 0};
    EXPECT_EQ(concat3("a", "b", "c"), nullptr);
}

}  // namespace
