#include "lib/base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <map>
#include <sstream>

#include "lib/base/log_pace.h"
#include "lib/base/thread.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test.h"

namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, std::string>;  // name and whole text

const std::string kLocalStamp = "2024-02-29 23:59:59";
const std::string kUtcStamp = "2024-02-29 22:59:59.123000000Z";

std::string line(const std::string& text) {
    return kLocalStamp + " tool: " + text + "\n";
}

// What goes to the standard error stream from here on.
struct StderrCapture {
    StderrCapture() : former(dup(STDERR_FILENO)) {
        const int file = open(folder.path("err").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(file, STDERR_FILENO);
        close(file);
    }
    ~StderrCapture() {
        dup2(former, STDERR_FILENO);
        close(former);
    }
    [[nodiscard]] std::string text() const { return readFile(folder.path("err")); }

    Folder folder;
    int former;
};

[[gnu::format(printf, 2, 3)]] void printModule(const char* module, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logPrintModule(module, format, arguments);
    va_end(arguments);
}

// Of the thread's and round's own.
std::string textOf(int thread, int round) {
    return std::to_string(thread) + std::string(static_cast<size_t>(round % 100), '.') +
           std::to_string(round);
}

struct Log : testing::Test {
    Log() {
        setenv("TZ", "CET-1", 1);
        tzset();
        logSetProgramName("tool");
    }
    ~Log() override { logClose(); }

    [[nodiscard]] pelmoStatus open(uint32_t limitBytes, int32_t rotations, const char* header) {
        return logOpen(path.c_str(), limitBytes, rotations, header);
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
    std::string path = folder.path("log");
    FixedClock clock{1709247599, 123'456'789};
    StderrCapture err;
};

TEST_F(Log, GoesToTheFileTheStreamOrStandardError) {
    logPrint("%s %d", "ahead", 1);
    EXPECT_EQ(logStreamGet(), stderr);
    ASSERT_EQ(open(1000, 3, nullptr), kStatusSuccess);
    logPrint("within");
    FILE* own = std::fopen(folder.path("trace").c_str(), "w");
    logSetStream(own);
    logPrint("%s", std::string(1000, 'a').c_str());  // of this file there is no rotation
    EXPECT_EQ(logStreamGet(), own);
    logClose();
    EXPECT_EQ(logStreamGet(), nullptr);
    std::fputs("still open\n", own);
    EXPECT_EQ(std::fclose(own), 0);
    const std::string traced = line(std::string(1000, 'a')) + "still open\n";
    EXPECT_EQ(files(), Files({{"log", line("within")}, {"trace", traced}}));

    logPrint("behind");
    path = folder.path("none/log");
    EXPECT_EQ(open(1, 1, "head"), kStatusInitFailed);
    logPrint("b");
    EXPECT_EQ(logOpen(nullptr, 1, 1, "head"), kStatusSuccess);
    logSetStream(nullptr);
    logPrint("c");
    EXPECT_EQ(err.text(), line("ahead 1") + line("behind") +
                              line("failed to open log file '" + path + "'.") + line("b") +
                              line("c"));
}

TEST_F(Log, LinesHaveTheirForm) {
    const std::string module = "[queue][" + std::to_string(Thread_Number()) + "]: ";
    ASSERT_EQ(open(0, 0, "\nProduct 100%s %n\n"), kStatusSuccess);
    logPrint("%s", "");
    printModule("queue", "%s(%u)", "create", 7u);
    logSetUtcStamp(true);
    logPrint("traced");
    FixedClock::set(1709247599, 0);
    logPrint("whole second");
    logSetUtcStamp(false);
    EXPECT_EQ(readFile(path), line("\nProduct 100%s %n\n") + line("") + line(module + "create(7)") +
                                  kUtcStamp +
                                  " tool: traced\n2024-02-29 22:59:59Z tool: whole second\n");
}

// Around the line buffer's size and far above it: written whole, by one road or the other.
TEST_F(Log, LinesOfAnyLengthAreWhole) {
    ASSERT_EQ(open(0, 0, nullptr), kStatusSuccess);
    std::string expected;
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
                EXPECT_EQ(errno, EXDEV);  // callers ask it after they logged what failed
                log += line(text);
                if (log.size() < limitBytes) continue;
                if (rotations != 0) expected["log" + std::to_string(next)] = log;
                next = next == rotations ? 1 : next + 1;
                log = head;
            }
            logClose();
            EXPECT_EQ(files(), expected);
            for (const auto& [name, text] : files()) {
                fs::remove(folder.path(name));
            }
        }
    }
    EXPECT_EQ(err.text(), "");
}

TEST_F(Log, TextThatPassesByTheLogRotatesItToo) {
    ASSERT_EQ(open(1000, 9, nullptr), kStatusSuccess);
    FILE* stream = logStreamGet();
    const std::string report(1000, 'r');
    std::fputs(report.c_str(), stream);
    std::fflush(stream);
    logCheckRotation();
    EXPECT_EQ(files(), Files({{"log", ""}, {"log1", report}}));

    // Without that check a line finds out, if not the next one.
    EXPECT_EQ(logStreamGet(), stream);
    std::fputs(report.c_str(), stream);
    for (int lines = 0; lines < 35; ++lines) {  // not enough for the limit by themselves
        logPrint("%s", "");
    }
    EXPECT_TRUE(readFile(folder.path("log2")).starts_with(report));
}

TEST_F(Log, RefusedRenameEmptiesTheFileAndKeepsTheNumber) {
    fs::create_directory(folder.path("log1"));
    ASSERT_EQ(open(1, 3, "head"), kStatusSuccess);
    logPrint("a");
    EXPECT_EQ(readFile(path), line("head"));
    fs::remove(folder.path("log1"));
    logPrint("b");
    EXPECT_EQ(files(), Files({{"log", line("head")}, {"log1", line("head") + line("b")}}));
    EXPECT_EQ(err.text(), renameRefused(1));
}

TEST_F(Log, GoesOnOnStandardErrorWhereTheFileIsRefusedAndComesBack) {
    ASSERT_EQ(open(1000, 3, "head"), kStatusSuccess);
    FILE* stream = logStreamGet();
    const std::string longText(1000, 'x');
    {
        const LowLimit noFiles(RLIMIT_NOFILE, 3);
        logPrint("%s", longText.c_str());
    }
    const std::string told = line("failed to open log file '" + path + "' during log rotation.");
    EXPECT_EQ(err.text(), told);
    EXPECT_EQ(logStreamGet(), stderr);
    std::fputs("a report under way is not harmed\n", stream);

    // The old file was moved aside already, so that a rename has nothing to move the next time.
    logPrint("%s", longText.c_str());
    EXPECT_EQ(err.text(), told + line(longText) + renameRefused(2));
    EXPECT_EQ(logStreamGet(), stream);
    logPrint("b");
    EXPECT_EQ(readFile(path), line("head") + line("b"));
}

// By way of a link, so that a rotation, were there one, would move that and not the device.
TEST_F(Log, StandsAFullDiskAndLeavesDevicesAlone) {
    fs::create_symlink("/dev/full", path);
    ASSERT_EQ(open(1, 3, "head"), kStatusSuccess);
    for (int lines = 0; lines < 1000; ++lines) {
        logPrint("lost");
    }
    logCheckRotation();
    EXPECT_TRUE(logHasLoss());
    logClose();
    EXPECT_EQ(err.text(), line("failed to write log file '" + path +
                               "': No space left on device; lines are lost until it can be "
                               "written."));
    EXPECT_EQ(folder.names(), std::set<std::string>{"log"});
    fs::remove(path);
    ASSERT_EQ(open(0, 0, nullptr), kStatusSuccess);
    EXPECT_EQ(readFile(path), "");  // nothing is left over from the device
}

// A limit of the file's size stands for the disk. Twice over, so that all is told anew.
TEST_F(Log, KeepsWholeLinesOnAFullDiskAndCountsTheOthers) {
    ASSERT_EQ(open(0, 0, nullptr), kStatusSuccess);
    FILE* stream = logStreamGet();
    const std::string a = line("a"), longText(4000, 'y');
    logPrint("%s", longText.c_str());  // so that the limit leaves room for what is told
    std::string wanted = line(longText), told;
    for (int times = 0; times < 2; ++times) {
        logPrint("a");
        {
            const LowLimit full(RLIMIT_FSIZE, wanted.size() + 2 * a.size() - 1);
            logPrint("a");
            std::fputs("row 1\nrow 2 which finds no room any more\n", stream);
            logCheckRotation();
            logPrint("a");
        }
        logPrint("a");
        wanted += a + "row 1\n" + line("3 log lines were lost.") + a;
        told += line("failed to write log file '" + path +
                     "': File too large; lines are lost until it can be written.");
        EXPECT_EQ(readFile(path), wanted);
        EXPECT_EQ(err.text(), told);
    }
}

// What is written last finds the room that a longer text didn't.
TEST_F(Log, TellsOfLostTextBehindWhichAShorterOneFoundRoom) {
    ASSERT_EQ(open(0, 0, nullptr), kStatusSuccess);
    FILE* stream = logStreamGet();
    for (int times = 1; times <= 2; ++times) {
        logPrint("a");
        const std::string before = readFile(path);
        {
            const LowLimit full(RLIMIT_FSIZE, before.size() + 2000);
            std::fputs((std::string(3000, 'x') + "\n").c_str(), stream);
            std::fputs("row\n", stream);
            logCheckRotation();
        }
        EXPECT_EQ(readFile(path), before + "row\n" + line("1 log lines were lost."));
        EXPECT_EQ(std::ranges::count(err.text(), '\n'), times);
        EXPECT_TRUE(logHasLoss());
    }
}

// A pipe that nobody reads takes so much, and each write waits; until waits are bounded.
TEST_F(Log, WaitsForAReaderUntilWaitsAreBounded) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_EQ(open(0, 0, nullptr), kStatusSuccess);
    const int pipeBytes = fcntl(reader, F_SETPIPE_SZ, 4096);
    std::thread writing([pipeBytes] {
        for (int bytes = 0; bytes <= 4 * pipeBytes; bytes += 1000)
            logPrint("%s", std::string(1000, 'x').c_str());
    });
    std::string text(4 * static_cast<size_t>(pipeBytes), ' ');
    for (size_t got = 0; got <= static_cast<size_t>(2 * pipeBytes);) {
        const ssize_t count = read(reader, text.data(), text.size());
        if (count > 0) got += static_cast<size_t>(count);
    }
    logBoundWaits(0);
    writing.join();
    logBoundWaits(INFINITY);
    EXPECT_TRUE(logHasLoss());
    close(reader);
}

TEST_F(Log, OpensWithoutMemoryForItsHeaderButNotForItsPath) {
    std::string told;
    const size_t failures = eachAllocationFails([this, &told] {
        fs::remove(path);
        const pelmoStatus status = open(0, 0, "head");
        allocationsHeal();
        const bool isWhole = allocationsFailed() == 0;
        const std::string refused = line("failed to resolve log file '" + path + "'.");
        if (status != kStatusSuccess) told += refused;
        EXPECT_EQ(readFile(path), isWhole ? line("head") : "");
        logClose();
    });
    EXPECT_EQ(failures, 4u);
    EXPECT_NE(told, "");
    EXPECT_EQ(err.text(), told);
}

TEST_F(Log, PacesTheLinesOfOneCauseOnceAskedTo) {
    FixedMonotonic steady(1000);
    logPaced("cause %d", 1);
    logPaced("cause %d", 1);
    logPaceBegin();
    for (int times = 0; times < 5; ++times) {
        logPaced("cause %d", 1);
        logPaced("cause %d", 2);
    }
    std::string each;
    for (uint32_t who = 0; who < kPacedLinesOfKind + 2; ++who) {
        logPacedAs("kind", "client %u", who);
        if (who < kPacedLinesOfKind) each += line(("client " + std::to_string(who)).c_str());
    }
    logPaceSettle();
    const std::string one = line("cause 1");
    std::string wanted = one + one + one + line("cause 2") + each;
    EXPECT_EQ(err.text(), wanted);

    FixedMonotonic::set(1001, 0);
    logPaced("cause %d", 1);
    wanted += line("cause 1 (4 more)") + line("cause 2 (3 more)") + line("kind (1 more)");
    for (const int64_t seconds : {1001, 1009}) {
        FixedMonotonic::set(seconds, 0);
        logPaceSettle();
    }
    EXPECT_EQ(err.text(), wanted);
}

// Four threads log, a fifth writes reports to the stream by itself, and the file rotates all the
// time: each line comes out whole and once.
TEST_F(Log, LinesOfManyThreadsNeverMix) {
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    ASSERT_EQ(open(2000, 1000, "head"), kStatusSuccess);
    FILE* stream = logStreamGet();
    race(kThreads + 1, kLines, [&](int thread, int round) {
        const std::string text = textOf(thread, round);
        if (thread < kThreads) return logPrint("%s", text.c_str());
        std::fprintf(stream, "%s\n", text.c_str());
        if (round % 10 == 0) std::fflush(stream);
        logCheckRotation();
    });
    logClose();
    std::fputs("written after the end, to nowhere\n", stream);

    std::multiset<std::string> expected, found;
    for (int each = 0; each < (kThreads + 1) * kLines; ++each) {
        const int thread = each / kLines;
        const std::string text = textOf(thread, each % kLines);
        expected.insert(thread < kThreads ? line(text) : text + "\n");
    }
    for (const auto& [name, text] : files()) {
        std::istringstream lines(text);
        for (std::string each; std::getline(lines, each);) {
            found.insert(each + "\n");
        }
        EXPECT_TRUE(text.starts_with(line("head"))) << name;
        found.erase(found.find(line("head")));
    }
    EXPECT_EQ(found, expected);
}

}  // namespace
