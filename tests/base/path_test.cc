#include "lib/base/path.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>

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

}  // namespace
