#include "lib/base/text.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lib/base/bytes.h"
#include "lib/base/path.h"
#include "tests/support/scratch_folder.h"

namespace {

// "" is null: no path resolves to nothing.
std::string resolved(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> text(absolutePath(path.c_str()), std::free);
    return text != nullptr ? text.get() : "";
}

TEST(AbsolutePath, BeginsWithTheDirectoryAndHasUpTo511Bytes) {
    const Folder folder;
    const std::filesystem::path former = std::filesystem::current_path();
    std::filesystem::current_path(folder.root);
    const std::string longest(511 - folder.root.size(), 'f');
    EXPECT_EQ(resolved(longest), folder.root + "/" + longest);
    EXPECT_EQ(resolved(longest + "f"), "");
    const std::string absolute = "/" + std::string(2000, 'f');
    EXPECT_EQ(resolved(absolute), absolute);
    std::filesystem::current_path(former);
}

TEST(FileSize, NeverShowsALargeFileAsSmall) {
    const Folder folder;
    const std::string path = folder.path("f");
    EXPECT_EQ(fileSize(path.c_str()), UINT32_MAX);
    writeFile(path, "");
    for (const uint64_t sizeBytes : {uint64_t{5}, uint64_t{UINT32_MAX}, uint64_t{1} << 32}) {
        ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(sizeBytes)), 0);
        EXPECT_EQ(fileSize(path.c_str()), std::min<uint64_t>(sizeBytes, UINT32_MAX - 1));
    }
}

// A vector of its own, so that the address sanitizer sees a byte read too far.
TEST(Bytes, LoadNothingPastTheEnd) {
    const std::vector<uint8_t> bytes = {0x81, 2, 3, 4, 5, 6, 7, 8, 0x99};
    EXPECT_EQ(loadBe16({bytes}, 7), 0x0899);
    EXPECT_EQ(loadBe32({bytes}, 5), 0x06070899u);
    EXPECT_EQ(loadBe64({bytes}, 1), 0x0203040506070899u);
    for (const size_t beyond : {size_t{0}, size_t{1}, SIZE_MAX - 8}) {
        EXPECT_EQ(loadBe16({bytes}, 8 + beyond), 0);
        EXPECT_EQ(loadBe32({bytes}, 6 + beyond), 0u);
        EXPECT_EQ(loadBe64({bytes}, 2 + beyond), 0u);
    }
}

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

TEST(Text, SizeIsShortAndWholeOrRefused) {
    const std::pair<uint64_t, const char*> cases[] = {
        {0, "0"},          {1, "0.001 K"},   {1023, "0.999 K"},
        {1536, "1.500 K"}, {1 << 20, "1 M"}, {UINT64_MAX, "17179869184.000 G"}};
    for (const auto& [value, text] : cases) {
        char room[32];
        EXPECT_EQ(sizeText(value, room, std::strlen(text) + 1), kStatusSuccess);
        EXPECT_STREQ(room, text);
        EXPECT_EQ(sizeText(value, room, std::strlen(text)), kStatusInvalidArgument) << text;
    }
}

}  // namespace
