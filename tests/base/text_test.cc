#include "lib/base/text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(Text, CopyAppendAndFormatStayWithinTheSize) {
    const struct {
        size_t sizeBytes;
        std::string copied, appended;
    } cases[] = {{6, "cde", "abcde"},
                 {5, "cde", "abcd"},
                 {3, "cd", "ab"},
                 {2, "c", "ab"},  // the text is longer than the size: an append leaves it
                 {0, "ab", "ab"}};
    for (const auto& [sizeBytes, copied, appended] : cases) {
        SCOPED_TRACE(sizeBytes);
        char room[3][8] = {"ab\0####", "ab\0####", "ab\0####"};
        boundedCopy(room[0], "cde", sizeBytes);
        EXPECT_EQ(room[0], copied);
        boundedAppend(room[1], "cde", sizeBytes);
        EXPECT_EQ(room[1], appended);
        EXPECT_EQ(boundedFormat(room[2], sizeBytes, "%s", "cde"),
                  sizeBytes != 0 ? copied.size() : 0);
        EXPECT_EQ(room[2], copied);
        EXPECT_TRUE(sizeBytes < 3 || std::strspn(room[1] + sizeBytes, "#") == 7 - sizeBytes);
    }
}

}  // namespace
