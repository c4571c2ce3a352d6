#include "trace/report/report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "lib/base/log.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/packet_builder.h"
#include "tests/support/snapshot_builder.h"
#include "trace/counts/services.h"
#include "trace/report/report_format.h"
#include "trace/settings.h"

namespace {

constexpr TimeSpec kFrom = {1700000000, 0};
constexpr TimeSpec kTo = {1700000004, 0};

const std::string kSubjectTitle =
    "                          Multicast Subject Statistics\n"
    "  Port   Address          SCid    Msgs     Bytes  Subject\n"
    " -----   --------------- ----- ------- ---------  -------\n";

struct ReportTest : testing::Test {
    ReportTest() { traceSettings = {}; }
    ~ReportTest() override {
        traceSettings = {};
        servicesForget();
    }
};

std::string print(BuiltSnapshot& built) {
    char* text = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&text, &length);
    logSetStream(stream);
    printSnapshot(built.link());
    std::string report(text, length);  // flushed by the report itself
    logSetStream(nullptr);
    std::fclose(stream);
    std::free(text);
    return report;
}

TEST_F(ReportTest, PrintsLongReportsWhole) {
    constexpr int kSubjects = 3000;
    const std::string longElement(120, 'e');
    BuiltSnapshot built = {.from = kFrom, .to = kTo, .ports = {{.port = 9, .nets = {{.net = 0}}}}};
    std::string rows;
    for (int i = 0; i < kSubjects; ++i) {
        const std::string text = longElement + "." + std::to_string(10000 + i);
        built.ports[0].nets[0].subjects.push_back(
            {packText(text), {SnapSubjectHost{addressOf("1.2.3.4"), htons(5), 1, 2}}});
        rows += "     9 * 0.0.0.0                     1         2  " + text + "\n";
    }
    std::reverse(built.ports[0].nets[0].subjects.begin(), built.ports[0].nets[0].subjects.end());
    traceSettings.displayMcast = traceSettings.displayStats = false;
    const FailAlloc fail{.after = 0, .forGood = true};  // it needs none
    EXPECT_EQ(print(built),
              kSubjectTitle + "         Totals                   3000      6000\n" + rows + "\n");
}

// Without memory for service ports the rows stand all the same, and nothing half-made stays.
TEST_F(ReportTest, TellsOfServicePortsWithoutMemory) {
    traceSettings.displayAddrInfo = true;
    SnapHost host{};
    host.host = addressOf("10.0.0.1");
    host.port = htons(8000);
    BuiltSnapshot built = {
        .from = kFrom, .to = kTo, .ports = {{.port = 9, .nets = {{.net = 0, .hosts = {host}}}}}};
    const std::string whole = print(built);
    EXPECT_NE(whole.find("10.0.0.1         8000       0"), std::string::npos);
    for (const size_t after : {0, 1, 2}) {
        servicesForget();
        const std::string told =
            "Out of memory " + std::string(after == 0 ? "allocat" : "stor") + "ing service entry\n";
        const FailAlloc fail{.after = after, .forGood = true};
        const std::string report = print(built);
        EXPECT_NE(report.find(told), std::string::npos) << report;
        EXPECT_EQ(report.substr(report.find("Snapshot")), whole);
    }
}

// Each line is a message's own or tells of it; or a value lacked the memory.
TEST_F(ReportTest, PrintsHostMessagesWithoutMemory) {
    traceSettings.displayStats = traceSettings.displayMcast = traceSettings.displaySubjects = false;
    traceSettings.displayHostMsgs = true;
    const auto status = [](const char* text) {
        return message({subjectField(packedSubject("_PM.INFO.SYSTEM.HOST.h")),
                        field(named("s"), 8, named(text))});
    };
    const Bytes one = status("one"), two = status("two");
    BuiltSnapshot built = {
        .from = kFrom,
        .to = kTo,
        .ports = {{.port = 7500, .nets = {{.net = 0, .statusMsgs = {one.data(), two.data()}}}}}};
    const std::string whole = print(built);
    const auto has = [](const std::string& text, const char* words) {
        return text.find(words) != text.npos;
    };
    const size_t failing = eachAllocationFails([&] {
        const std::string printed = print(built);
        EXPECT_TRUE(has(printed, "System host messages for port 7500\n"));
        EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 6) << printed;
        const bool tells =
            has(printed, "bytes without text: Memory allocation failed]\n") || has(printed, "[NO ");
        EXPECT_TRUE(allocationsFailed() == 0 ? printed == whole : tells) << printed;
    });
    EXPECT_GT(failing, 4u);
}

// Ties, carries, numbers beside them, and any others.
TEST(ReportFormat, ShowsNumbersAsPrintfDoes) {
    std::vector<double> values = {0.0,   -0.0,     0.05,        0.25,      0.75,  0.95,
                                  9.95,  99.95,    1e15,        0x1p53,    1e300, 1e-300,
                                  -1.25, INFINITY, NAN,         0.0078125, 0.5,   999999.5,
                                  1e5,   0x1p-60,  0x1p52 + 0.5};
    std::mt19937_64 random(7);
    for (int i = 0; i < 20000; ++i) {
        const double divisor = i % 2 == 0 ? 1 : static_cast<double>(random() % 20000 + 1) / 1000;
        const double sixteenths = static_cast<double>(random() % 100000) / 16;
        const int exponent = static_cast<int>(random() % 120) - 64;
        values.push_back(sixteenths / divisor);
        values.push_back(std::ldexp(static_cast<double>(random() >> 11), exponent - 53));
    }
    const size_t listed = values.size();
    for (size_t i = 0; i < listed; ++i) {
        values.push_back(std::nextafter(values[i], 1e9));
        values.push_back(std::nextafter(values[i], -1e9));
    }

    char ours[kNumberBytesMax], theirs[kNumberBytesMax];
    for (const double value : values) {
        *appendRate(ours, value, 7) = '\0';
        std::snprintf(theirs, sizeof theirs, "%7.1f", value);
        ASSERT_STREQ(ours, theirs) << std::hexfloat << value;
        *appendWhole(ours, value, 4) = '\0';
        std::snprintf(theirs, sizeof theirs, "%4.0f", value);
        ASSERT_STREQ(ours, theirs) << std::hexfloat << value;
    }
}

}  // namespace
