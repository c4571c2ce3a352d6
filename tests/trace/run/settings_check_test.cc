#include "trace/run/settings_check.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"
#include "trace/capture/capture_session.h"
#include "trace/settings.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kLists = "the filter of -addr, -src, -dst and -port";

struct SettingsCheck : testing::Test {
    SettingsCheck() { traceSettings = {}; }
    ~SettingsCheck() override { traceSettings = {}; }

    TraceRun run;
};

TEST_F(SettingsCheck, RefusesFiltersThatTakeTooLongToCompile) {
    using Texts = std::vector<const char*>;
    const auto built = [](size_t srcs, size_t dsts, size_t ports) {
        return buildFilter(Texts(srcs, "10.200.200.200"), Texts(dsts, "10.0.0.1"),
                           Texts(ports, "65535"));
    };
    const struct {
        std::string filter;
        const char* refused;  // none: accepted
    } cases[] = {
        {built(100, 100, 100), nullptr},
        {built(250, 250, 0), nullptr},
        {built(0, 0, 150), nullptr},
        {built(10000, 10000, 0), kLists},
        {built(0, 0, 400), kLists},
        {built(150, 150, 150), kLists},
        {std::string(3000, ' ') + "udp", nullptr},
        {std::string(3000, '('), "-filter"},
        {std::string(100000, '1'), "-filter"},
    };
    for (const auto& [filter, refused] : cases) {
        SCOPED_TRACE(filter.substr(0, 60));
        const bool explicitly = refused != kLists;
        traceSettings.builtFilter = explicitly ? "udp" : filter;
        traceSettings.filterText = explicitly ? filter.c_str() : traceSettings.builtFilter.c_str();
        EXPECT_EQ(validateFilter(), refused ? kStatusInvalidArgument : kStatusSuccess);
        const std::string why = ": too long for libpcap to compile in reasonable time.";
        EXPECT_EQ(run.logged(), refused ? Lines({refused + why}) : Lines());
    }
}

TEST_F(SettingsCheck, RefusesFilesThatWouldOverwriteEachOther) {
    const Folder folder;
    const auto in = [&folder](const char* name) { return folder.path(name); };
    for (const char* const name : {"x", "x1", "x3"})
        writeFile(in(name), name);
    fs::create_symlink("x", in("symlink"));
    fs::create_symlink("x1", in("link1"));
    fs::create_hard_link(in("x"), in("hardlink"));
    fs::create_hard_link(in("x1"), in("hard1"));
    fs::create_directory_symlink(".", in("sub"));
    const std::string none;
    const std::string oneFile = " must not be the same file.";
    const std::string numbered = " must not be a numbered file of ";
    const struct {
        std::string read, write, log, refused;
    } cases[] = {
        {in("x"), in("y"), in("z"), ""},
        {in("x"), in("x"), none, "-r and -w" + oneFile},
        {in("x"), in("symlink"), none, "-r and -w" + oneFile},
        {in("hardlink"), in("x"), none, "-r and -w" + oneFile},
        {in("x"), in("sub/x"), none, "-r and -w" + oneFile},
        {in("x"), none, in("x"), "-r and -logfile" + oneFile},
        {none, in("new"), in("sub/new"), "-w and -logfile" + oneFile},
        {none, "/dev/null", "/dev/null", ""},
        {in("x1"), in("x"), none, "-r" + numbered + "-w."},
        {in("link1"), in("sub/x"), none, "-r" + numbered + "-w."},
        {in("hard1"), in("x"), none, ""},
        {in("x3"), in("x"), none, ""},
        {in("x02"), in("x"), none, ""},
        {in("x"), in("new"), in("new2"), "-logfile" + numbered + "-w."},
        {in("x"), in("new2"), in("new"), ""},
    };
    for (const auto& [read, write, log, refused] : cases) {
        SCOPED_TRACE(read + " " + write + " " + log);
        const auto given = [](const std::string& path) {
            return path.empty() ? nullptr : path.c_str();
        };
        traceSettings.readFile = given(read);
        traceSettings.writeFile = given(write);
        traceSettings.logFile = given(log);
        traceSettings.captureLimitBytes = 1;
        traceSettings.captureMaxRotations = 2;
        EXPECT_EQ(validateFiles(), refused.empty() ? kStatusSuccess : kStatusInvalidArgument);
        EXPECT_EQ(run.logged(), refused.empty() ? Lines() : Lines({refused}));
    }
}

}  // namespace
