#include "lib/base/numbered_ring.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/scratch_folder.h"

namespace {

namespace fs = std::filesystem;
using enum RotationResult;
using Entries = std::set<std::string>;

using Damage = void (*)(const std::string& current, const std::string& numbered);

const Damage kOldFile = [](auto&, auto& numbered) { writeFile(numbered, "old"); };
const Damage kLink = [](auto& current, auto& numbered) { fs::create_hard_link(current, numbered); };
const Damage kCurrentGone = [](auto& current, auto&) { fs::remove(current); };

constexpr FileOps kUnlinkFails = {[](auto) { return -1; }, rename};
constexpr FileOps kRenameFails = {unlink, [](auto, auto) { return -1; }};

TEST(NumberedRing, TakesTheNextNumberAndStandsWhatIsInTheWay) {
    const struct {
        const char* name;
        int32_t count, next;
        Damage damage;
        const FileOps& files;
        RotationResult result;
        int32_t nextAfter;
        Entries left;
    } cases[] = {
        {"no ring", 0, 1, kOldFile, kSystemFileOps, kStartOver, 1, {"f=new", "f1=old"}},
        {"older file stays", 2, 2, kOldFile, kUnlinkFails, kMovedAside, 1, {"f2=new"}},
        {"link to the current file", 2, 2, kLink, kSystemFileOps, kMovedAside, 1, {"f2=new"}},
        {"rename fails", 2, 2, kOldFile, kRenameFails, kRenameFailed, 2, {"f=new"}},
        {"no current file", 2, 2, kCurrentGone, kSystemFileOps, kRenameFailed, 2, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Folder folder;
        const std::string current = folder.root + "/f";
        const std::string numbered = current + std::to_string(c.next);
        writeFile(current, "new");
        c.damage(current, numbered);

        NumberedRing ring{current.c_str(), c.count, &c.files, c.next};
        char name[260] = "";
        EXPECT_EQ(numberedRingMoveAside(ring, name), c.result);
        EXPECT_EQ(name, c.result == kStartOver ? "" : numbered);
        EXPECT_EQ(ring.next, c.nextAfter);
        EXPECT_EQ(folder.entries(), c.left);
    }
}

// The cut takes a digit, then the number, then the end of the path. None loses the file.
TEST(NumberedRing, CutsNamesAtTheBuffer) {
    for (const size_t pathSize : {257u, 258u, 259u, 262u}) {
        SCOPED_TRACE(pathSize);
        const Folder folder;
        std::string current = folder.root + "/";
        current.resize(pathSize, 'f');
        writeFile(current, "new");

        NumberedRing ring{.path = current.c_str(), .count = 12, .next = 12};
        char name[260];
        EXPECT_EQ(numberedRingMoveAside(ring, name), pathSize == 259 ? kRenameFailed : kMovedAside);
        EXPECT_EQ(name, (current + "12").substr(0, 259));
        EXPECT_EQ(folder.entries(), Entries{fs::path(name).filename().string() + "=new"});
    }
}

}  // namespace
