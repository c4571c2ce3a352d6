#include "lib/base/log.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>

#include "lib/base/log_pace.h"
#include "lib/base/thread.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test.h"

namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, std::string>;  // name and whole text

std::string line(const std::string& text) {
    return "2024-02-29 23:59:59 tool: " + text + "\n";
}

void printModule(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logPrintModule("queue", format, arguments);
    va_end(arguments);
}

struct Log : testing::Test {
    Log() {
        setenv("TZ", "CET-1", 1);
        tzset();
        logSetProgramName("tool");
        testing::internal::CaptureStderr();
    }
    ~Log() override {
        logClose();
        (void)testing::internal::GetCapturedStderr();
    }

    pelmoStatus open(uint32_t limitBytes, int32_t rotations, const char* header = nullptr) {
        return logOpen(path.c_str(), limitBytes, rotations, header);
    }

    // All that went to the standard error stream.
    const std::string& errors() {
        errorText += testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return errorText;
    }

    [[nodiscard]] std::string renameRefused(int number) const {
        return line("failed to rename '" + path + "' to '" + path + std::to_string(number) +
                    "' during log rotation.");
    }

    [[nodiscard]] Files files() const {
        Files all;
        for (const std::string& name : folder.names()) {
            all[name] = readFile(folder.path(name));
        }
        return all;
    }

    Folder folder;
    std::string path = folder.path("log"), errorText;
    FixedClock clock{1709247599, 123'456'789};
};

TEST_F(Log, GoesToTheFileTheStreamOrStandardError) {
    logPrint("%s %d", "before", 1);
    EXPECT_EQ(logStreamGet(), stderr);
    ASSERT_EQ(open(1000, 3), kStatusSuccess);
    logPrint("within");
    FILE* own = std::fopen(folder.path("trace").c_str(), "w");
    logSetStream(own);
    logPrint("%s", std::string(1000, 'a').c_str());  // this file is never rotated
    logClose();
    EXPECT_EQ(logStreamGet(), nullptr);
    EXPECT_EQ(std::fclose(own), 0);
    EXPECT_EQ(files(), Files({{"log", line("within")}, {"trace", line(std::string(1000, 'a'))}}));

    logPrint("after");
    path = folder.path("none/log");
    EXPECT_EQ(open(1, 1, "head"), kStatusInitFailed);
    EXPECT_EQ(logOpen(nullptr, 1, 1, "head"), kStatusSuccess);
    logPrint("b");
    EXPECT_EQ(errors(), line("before 1") + line("after") +
                            line("failed to open log file '" + path + "'.") + line("b"));
}

// The lengths are about the line buffer's size and far above it.
TEST_F(Log, LinesHaveTheirFormAndAreWhole) {
    const std::string module = "[queue][" + std::to_string(Thread_Number()) + "]: ";
    ASSERT_EQ(open(0, 0, "\nProduct 100%s %n\n"), kStatusSuccess);
    printModule("%s(%u)", "create", 7u);
    logSetUtcStamp(true);
    logPrint("traced");
    FixedClock::set(1709247599, 0);
    logPrint("%s", "");
    logSetUtcStamp(false);
    std::string expected = line("\nProduct 100%s %n\n") + line(module + "create(7)") +
                           "2024-02-29 22:59:59.123000000Z tool: traced\n" +
                           "2024-02-29 22:59:59Z tool: \n";
    for (size_t length = 980; length < 3000; length += length == 1030 ? 1900 : 1) {
        const std::string text = std::string(length, 'y') + "end";
        logPrint("%s", text.c_str());
        expected += line(text);
    }
    EXPECT_EQ(readFile(path), expected);
}

// A line that meets the limit, with what was there, moves the file aside; a header never does.
TEST_F(Log, RotatesAtItsLimit) {
    const auto size = static_cast<uint32_t>(line("a").size());
    for (const uint32_t limitBytes : {1u, 2 * size - 1, 2 * size, 2 * size + 1, 0x80000000u}) {
        for (int option = 0; option < 12; ++option) {
            SCOPED_TRACE(testing::Message() << "limit " << limitBytes << ", option " << option);
            const int rotations = option % 3;
            const char* header = option % 2 == 0 ? nullptr : "head";
            const std::string head = header != nullptr ? line(header) : "";
            Files expected = {{"log", option < 6 ? "" : line("was")}, {"log1", "old"}};
            for (const auto& [name, text] : expected) {
                writeFile(folder.path(name), text);
            }
            ASSERT_EQ(open(limitBytes, rotations, header), kStatusSuccess);
            std::string& log = expected["log"] += head;
            int next = 1;
            for (const char* text : {"a", "b", "c", "d", "e"}) {
                errno = EXDEV;
                logPrint("%s", text);
                EXPECT_EQ(errno, EXDEV);  // callers read it after they logged what failed
                log += line(text);
                if (log.size() < limitBytes) continue;
                if (rotations != 0) expected["log" + std::to_string(next)] = log;
                next = next == rotations ? 1 : next + 1;
                log = head;
            }
            logClose();
            EXPECT_EQ(files(), expected);
            for (const std::string& name : folder.names()) {
                fs::remove(folder.path(name));
            }
        }
    }
    EXPECT_EQ(errors(), "");
}

// A link to the current file is replaced like any older file.
TEST_F(Log, RefusedRenameEmptiesTheFileAndKeepsTheNumber) {
    fs::create_directory(folder.path("log1"));
    ASSERT_EQ(open(1, 3, "head"), kStatusSuccess);
    logPrint("a");
    EXPECT_EQ(errors(), renameRefused(1));
    EXPECT_EQ(readFile(path), line("head"));
    fs::remove(folder.path("log1"));
    fs::create_hard_link(path, folder.path("log1"));
    logPrint("b");
    EXPECT_EQ(files(), Files({{"log", line("head")}, {"log1", line("head") + line("b")}}));
}

TEST_F(Log, UsesStandardErrorWhileTheFileIsRefused) {
    ASSERT_EQ(open(1000, 3, "head"), kStatusSuccess);
    FILE* stream = logStreamGet();
    const std::string longText(1000, 'x');
    (void)errors();
    {
        const LowLimit noFiles(RLIMIT_NOFILE, 3);
        logPrint("%s", longText.c_str());
    }
    EXPECT_EQ(logStreamGet(), stderr);
    std::fputs("a report under way is not harmed\n", stream);

    // The old file was moved aside already, so that the next rename finds nothing to move.
    logPrint("%s", longText.c_str());
    EXPECT_EQ(errors(), line("failed to open log file '" + path + "' during log rotation.") +
                            line(longText) + renameRefused(2));
    EXPECT_EQ(logStreamGet(), stream);
    logPrint("b");
    EXPECT_EQ(readFile(path), line("head") + line("b"));
}

// Through a link, so that a rotation would move the link and not the device.
TEST_F(Log, ReportsAFullDiskOnceAndLeavesDevicesAlone) {
    fs::create_symlink("/dev/full", path);
    ASSERT_EQ(open(1, 3, "head"), kStatusSuccess);
    for (int lines = 0; lines < 1000; ++lines) {
        logPrint("lost");
    }
    logCheckRotation();
    EXPECT_TRUE(logHasLoss());
    EXPECT_EQ(errors(), line("failed to write log file '" + path +
                             "': No space left on device; lines are lost until it can be "
                             "written."));
    EXPECT_EQ(folder.names(), std::set<std::string>{"log"});
}

// A limit of the file's size acts as the full disk. A short text written last finds the room that a
// longer one did not.
TEST_F(Log, KeepsWholeLinesOnAFullDiskAndCountsTheOthers) {
    ASSERT_EQ(open(0, 0), kStatusSuccess);
    FILE* stream = logStreamGet();
    const std::string longText(4000, 'y');
    logPrint("%s", longText.c_str());  // so that the limit leaves room for the report of the loss
    std::string wanted = line(longText);
    for (int times = 1; times <= 2; ++times) {
        {
            const LowLimit full(RLIMIT_FSIZE, wanted.size() + line("a").size() - 1);
            logPrint("a");
            std::fputs("row 1\nrow 2 which finds no room any more\n", stream);
            logCheckRotation();
            logPrint("a");
        }
        logPrint("a");
        wanted += "row 1\n" + line("3 log lines were lost.") + line("a");
        EXPECT_EQ(readFile(path), wanted);
        {
            const LowLimit full(RLIMIT_FSIZE, wanted.size() + 2000);
            std::fputs((longText + "\n").c_str(), stream);
            std::fputs("row\n", stream);
            logCheckRotation();
        }
        wanted += "row\n" + line("1 log lines were lost.");
        EXPECT_EQ(readFile(path), wanted);
        EXPECT_EQ(std::ranges::count(errors(), '\n'), 2 * times);
    }
}

TEST_F(Log, PacesTheLinesOfOneCauseOnceAskedTo) {
    FixedMonotonic steady(1000);
    logPaced("cause %d", 1);
    logPaceBegin();
    for (int times = 0; times < 5; ++times) {
        logPaced("cause %d", 1);
        logPaced("cause %d", 2);
    }
    std::string wanted = line("cause 1") + line("cause 1") + line("cause 2");
    for (uint32_t client = 0; client < kPacedLinesOfKind + 2; ++client) {
        logPacedAs("kind", "client %u", client);
        if (client < kPacedLinesOfKind) wanted += line("client " + std::to_string(client));
    }
    logPaceSettle();
    EXPECT_EQ(errors(), wanted);

    wanted += line("cause 1 (3 more)") + line("cause 2 (3 more)") + line("kind (1 more)");
    for (const int64_t seconds : {1001, 1009}) {
        FixedMonotonic::set(seconds, 0);
        logPaceSettle();
    }
    EXPECT_EQ(errors(), wanted);
}

}  // namespace
