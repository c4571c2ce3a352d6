#include "trace/report/report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/services.h"
#include "trace/report/report_format.h"
#include "trace/settings.h"

namespace {

struct ReportTest : testing::Test {
    ReportTest() { traceSettings.displayStats = traceSettings.displayMcast = false; }
    ~ReportTest() override {
        traceSettings = {};
        servicesForget();
    }

    // Log lines among the report's are without what precedes them.
    Lines print(SnapHeader* snapshot) {
        printSnapshot(snapshot);
        return run.logged();
    }

    TraceRun run;
};

// More than is written at once, and without any memory; of so many subjects that charges wait.
TEST_F(ReportTest, PrintsLongReportsWhole) {
    traceSettings.displayAddrInfo = true;
    std::vector<Bytes> packets;
    Lines expected = {"                          Multicast Subject Statistics",
                      "  Port   Address          SCid    Msgs     Bytes  Subject",
                      " -----   --------------- ----- ------- ---------  -------",
                      "         Totals                   6000    882000"};
    const std::string stem = std::string(120, 'e') + ".";
    for (uint32_t i = 0; i < 6000; ++i) {
        const Bytes subject = packedSubject(stem + std::to_string(12999 - i % 3000));
        const PacketHead head = {
            .srcIp = ipv4(10, 0, 0, i % 3), .dstIp = ipv4(239, 1, 1, i % 2), .seq = i + 1};
        packets.push_back(dataPacket(head, message({subjectField(subject)})));
    }
    for (uint32_t net = 0; net < 2; ++net) {
        for (uint32_t number = 10001 - net; number < 13000; number += 2) {
            expected.push_back("  7500 * 239.1.1." + std::to_string(net) +
                               "                   2       294  " + stem + std::to_string(number));
            expected.push_back("         10.0.0." + std::to_string((12999 - number) % 3) +
                               "         7001       2       294");
        }
    }
    expected.push_back("");
    analyze(packets);
    SnapHeader* const snapshot = snapshotTake({});
    const FailAlloc fail{.after = 0, .forGood = true};
    EXPECT_EQ(print(snapshot), expected);
}

// Without memory a service port or a host message is missing, and each line of the tables is there.
TEST_F(ReportTest, KeepsItsLinesWhateverAllocationFails) {
    traceSettings.displayMcast = traceSettings.displayAddrInfo = traceSettings.displayHostMsgs =
        true;
    const Bytes status = message({subjectField(packedSubject("_PM.INFO.SYSTEM.HOST.h")),
                                  field(named("s"), 8, named("one"))});
    analyze({dataPacket({.srcPort = 8000}, joined({status, status}))});
    SnapHeader* const snapshot = snapshotTake({});
    const Lines whole = print(snapshot);
    const size_t failing = eachAllocationFails([&] {
        servicesForget();
        const Lines lines = print(snapshot);
        EXPECT_GE(lines.size(), whole.size());
        EXPECT_EQ(allocationsFailed() == 0, lines == whole);
    });
    EXPECT_GT(failing, 5u);
}

TEST(ReportFormat, ShowsNumbersAsPrintfDoes) {
    std::vector<double> values = {0.0,   -0.0,     0.05,        0.25,      0.75,  0.95,
                                  9.95,  99.95,    1e15,        0x1p53,    1e300, 1e-300,
                                  -1.25, INFINITY, NAN,         0.0078125, 0.5,   999999.5,
                                  1e5,   0x1p-60,  0x1p52 + 0.5};
    std::mt19937_64 random(7);
    for (int i = 0; i < 20000; ++i) {
        const double divisor = i % 2 == 0 ? 1 : static_cast<double>(random() % 20000 + 1) / 1000;
        values.push_back(static_cast<double>(random() % 100000) / 16 / divisor);
        const int exponent = static_cast<int>(random() % 120) - 64;
        values.push_back(std::ldexp(static_cast<double>(random() >> 11), exponent - 53));
    }
    for (size_t i = values.size(); i-- > 0;)
        values.push_back(std::nextafter(values[i], i % 2 == 0 ? 1e9 : -1e9));
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
