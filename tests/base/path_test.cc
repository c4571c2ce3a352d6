#include "lib/base/path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include "tests/support/scratch_folder.h"

namespace {

using Block = std::unique_ptr<char, decltype(&std::free)>;

// "" stands for null: no path resolves to nothing.
std::string resolved(const std::string& path) {
    const Block text(absolutePath(path.c_str()), std::free);
    return text != nullptr ? text.get() : "";
}

// The process's directory for the length of a test.
struct Inside {
    explicit Inside(const std::string& folder) {
        char path[4096];
        former = getcwd(path, sizeof path);
        EXPECT_EQ(chdir(folder.c_str()), 0);
    }
    ~Inside() { EXPECT_EQ(chdir(former.c_str()), 0); }
    std::string former;
};

TEST(AbsolutePath, PutsTheDirectoryAheadUpTo511Bytes) {
    const Folder folder;
    const Inside inside(folder.root);
    const size_t room = 512 - folder.root.size();
    const std::string longest(room - 1, 'f');

    EXPECT_EQ(resolved("a/b"), folder.root + "/a/b");
    EXPECT_EQ(resolved(longest), folder.root + "/" + longest);
    EXPECT_EQ(resolved(longest + "f"), "");
    const std::string absolute = "/" + std::string(2000, 'f');
    EXPECT_EQ(resolved(absolute), absolute);
    EXPECT_EQ(absolutePath(nullptr), nullptr);
}

TEST(AbsolutePath, IsNoneWhereTheDirectoryCannotBeRead) {
    const Folder folder;
    const Inside inside(folder.root);
    const std::string part(200, 'd');
    for (int depth = 0; depth < 3; ++depth) {
        ASSERT_EQ(mkdir(part.c_str(), 0700), 0);
        ASSERT_EQ(chdir(part.c_str()), 0);
    }
    EXPECT_EQ(resolved("f"), "");
    EXPECT_EQ(resolved("/f"), "/f");
}

TEST(FileSize, NeverShowsALargeFileAsSmall) {
    const Folder folder;
    const std::string path = folder.path("f");
    EXPECT_EQ(fileSize(path.c_str()), UINT32_MAX);
    EXPECT_EQ(fileSize64(path.c_str()), UINT64_MAX);

    writeFile(path, "");
    for (const uint64_t sizeBytes : {uint64_t{5}, uint64_t{UINT32_MAX}, uint64_t{1} << 32}) {
        ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(sizeBytes)), 0);
        EXPECT_EQ(fileSize(path.c_str()), std::min<uint64_t>(sizeBytes, UINT32_MAX - 1));
        EXPECT_EQ(fileSize64(path.c_str()), sizeBytes);
    }
}

}  // namespace
