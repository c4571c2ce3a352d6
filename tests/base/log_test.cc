#include "lib/base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lib/base/log_pace.h"
#include "lib/base/thread.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/fixed_clock.h"
#include "tests/support/scratch_folder.h"

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

TEST_F(Log, WritesToStandardErrorUntilAFileIsOpenAndAfterwards) {
    logPrint("%s %d", "ahead", 1);
    EXPECT_EQ(logStreamGet(), stderr);
    ASSERT_EQ(open(0, 0, nullptr), kStatusSuccess);
    logPrint("within");
    logClose();
    EXPECT_EQ(logStreamGet(), nullptr);
    logPrint("behind");
    EXPECT_EQ(err.text(), line("ahead 1") + line("behind"));
    EXPECT_EQ(files(), Files({{"log", line("within")}}));
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

TEST_F(Log, RotatesAtItsLimit) {
    const std::string a = line("a"), b = line("b"), c = line("c"), head = line("head");
    const auto twoLines = static_cast<uint32_t>(2 * a.size());
    const struct {
        const char* name;
        Files before;
        uint32_t limitBytes;
        int32_t rotations;
        const char* header;
        std::vector<const char*> lines;
        Files after;
    } cases[] = {
        {"one below", {}, twoLines + 1, 2, nullptr, {"a", "b"}, {{"log", a + b}}},
        {"met", {}, twoLines, 2, nullptr, {"a", "b", "c"}, {{"log", c}, {"log1", a + b}}},
        {"the largest limit", {}, 2147483648, 1, nullptr, {"a"}, {{"log", a}}},
        {"met with what was there",
         {{"log", a}},
         twoLines,
         2,
         nullptr,
         {"b"},
         {{"log", ""}, {"log1", a + b}}},
        {"ring wraps", {}, 1, 2, nullptr, {"a", "b", "c"}, {{"log", ""}, {"log1", c}, {"log2", b}}},
        {"starts over in place",
         {{"log1", "old"}},
         static_cast<uint32_t>(head.size()) + twoLines,
         0,
         "head",
         {"a", "b", "c"},
         {{"log", head + c}, {"log1", "old"}}},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        for (const auto& [name, text] : files()) {
            fs::remove(folder.path(name));
        }
        for (const auto& [name, text] : each.before) {
            writeFile(folder.path(name), text);
        }
        ASSERT_EQ(open(each.limitBytes, each.rotations, each.header), kStatusSuccess);
        for (const char* text : each.lines) {
            errno = EXDEV;
            logPrint("%s", text);
            EXPECT_EQ(errno, EXDEV);  // callers ask it after they logged what failed
        }
        logClose();
        EXPECT_EQ(files(), each.after);
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
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {3, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const std::string longText(1000, 'x');
    logPrint("%s", longText.c_str());
    setrlimit(RLIMIT_NOFILE, &limit);
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
    EXPECT_TRUE(fs::is_symlink(path));
    EXPECT_EQ(folder.names(), std::set<std::string>{"log"});

    fs::remove(path);
    ASSERT_EQ(open(0, 0, nullptr), kStatusSuccess);
    logPrint("a");
    EXPECT_EQ(readFile(path), line("a"));  // nothing is left over from the device
}

// A limit of the file's size stands for the disk. Twice over, so that all is told anew.
TEST_F(Log, KeepsWholeLinesOnAFullDiskAndCountsTheOthers) {
    const auto former = signal(SIGXFSZ, SIG_IGN);
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    ASSERT_EQ(open(0, 0, nullptr), kStatusSuccess);
    FILE* stream = logStreamGet();
    const std::string a = line("a"), longText(4000, 'y');
    logPrint("%s", longText.c_str());  // so that the limit leaves room for what is told
    std::string wanted = line(longText), told;
    for (const char* const lost : {"3", "3"}) {
        logPrint("a");
        const rlimit low = {wanted.size() + 2 * a.size() - 1, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &low);
        logPrint("a");
        std::fputs("row 1\nrow 2 which finds no room any more\n", stream);
        logCheckRotation();
        logPrint("a");
        setrlimit(RLIMIT_FSIZE, &limit);
        logPrint("a");
        wanted += a + "row 1\n" + line(std::string(lost) + " log lines were lost.") + a;
        told += line("failed to write log file '" + path +
                     "': File too large; lines are lost until it can be written.");
        EXPECT_EQ(readFile(path), wanted);
        EXPECT_EQ(err.text(), told);
    }
    signal(SIGXFSZ, former);
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

TEST_F(Log, TellsWhyItCannotOpen) {
    path = folder.path("none/log");
    EXPECT_EQ(open(1, 1, "head"), kStatusInitFailed);
    logPrint("b");
    EXPECT_EQ(err.text(), line("failed to open log file '" + path + "'.") + line("b"));
    EXPECT_EQ(logOpen(nullptr, 1, 1, "head"), kStatusSuccess);
    EXPECT_EQ(logStreamGet(), stderr);
}

TEST_F(Log, OpensWithoutMemoryForItsHeaderButNotForItsPath) {
    std::string told;
    const size_t failures = eachAllocationFails([this, &told] {
        fs::remove(path);
        const pelmoStatus status = open(0, 0, "head");
        allocationsHeal();
        if (status == kStatusSuccess) {
            logPrint("a");
            const std::string header = allocationsFailed() == 0 ? line("head") : "";
            EXPECT_EQ(readFile(path), header + line("a"));
        } else {
            told += line("failed to resolve log file '" + path + "'.");
        }
        logClose();
    });
    EXPECT_EQ(failures, 4u);
    EXPECT_NE(told, "");
    EXPECT_EQ(err.text(), told);
}

TEST_F(Log, FollowsAStreamThatStaysTheCallers) {
    ASSERT_EQ(open(1, 3, nullptr), kStatusSuccess);
    FILE* own = std::fopen(folder.path("trace").c_str(), "w");
    logSetStream(own);
    logPrint("a");
    EXPECT_EQ(logStreamGet(), own);
    logClose();
    std::fputs("still open\n", own);
    EXPECT_EQ(std::fclose(own), 0);
    EXPECT_EQ(files(), Files({{"log", ""}, {"trace", line("a") + "still open\n"}}));

    logSetStream(nullptr);
    logPrint("b");
    EXPECT_EQ(err.text(), line("b"));
}

TEST_F(Log, PacesTheLinesOfOneCauseOnceAskedTo) {
    FixedMonotonic steady(1000);
    for (int times = 0; times < 2; ++times)
        logPaced("cause %d", 1);
    std::string wanted = line("cause 1") + line("cause 1");
    logPaceBegin();
    for (int times = 0; times < 5; ++times) {
        logPaced("cause %d", 1);
        logPaced("cause %d", 2);
    }
    logPaceSettle();
    wanted += line("cause 1") + line("cause 2");
    EXPECT_EQ(err.text(), wanted);

    FixedMonotonic::set(1001, 0);
    logPaced("cause %d", 1);
    logPaceSettle();
    FixedMonotonic::set(1009, 0);
    logPaceSettle();
    EXPECT_EQ(err.text(), wanted + line("cause 1 (4 more)") + line("cause 2 (3 more)"));
}

// Four threads log, a fifth writes reports to the stream by itself, and the file rotates all the
// time: each line comes out whole and once.
TEST_F(Log, LinesOfManyThreadsNeverMix) {
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    ASSERT_EQ(open(2000, 1000, "head"), kStatusSuccess);
    FILE* stream = logStreamGet();
    std::vector<std::string> expected;
    std::vector<std::jthread> threads;
    for (int thread = 0; thread <= kThreads; ++thread) {
        std::vector<std::string> texts;
        for (int i = 0; i < kLines; ++i) {
            texts.push_back(std::to_string(thread) +
                            std::string(static_cast<size_t>(i % 100), '.') + std::to_string(i));
            expected.push_back(thread < kThreads ? line(texts.back()) : texts.back() + "\n");
        }
        threads.emplace_back([thread, stream, texts] {
            for (const std::string& text : texts) {
                if (thread < kThreads) {
                    logPrint("%s", text.c_str());
                } else {
                    std::fprintf(stream, "%s\n", text.c_str());
                    if (text.ends_with('0')) std::fflush(stream);
                    logCheckRotation();
                }
            }
        });
    }
    threads.clear();
    logClose();
    std::fputs("written after the end, to nowhere\n", stream);

    std::vector<std::string> found;
    for (const auto& [name, text] : files()) {
        EXPECT_TRUE(name == "log1" || text.starts_with(line("head"))) << name;
        std::istringstream lines(text);
        for (std::string each; std::getline(lines, each);) {
            if (each + "\n" != line("head")) found.push_back(each + "\n");
        }
    }
    std::ranges::sort(found);
    std::ranges::sort(expected);
    EXPECT_EQ(found, expected);
}

}  // namespace
