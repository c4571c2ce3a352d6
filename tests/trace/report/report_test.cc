#include "trace/report/report.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

#include "lib/base/log.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/snapshot_builder.h"
#include "trace/counts/services.h"
#include "trace/report/report_format.h"
#include "trace/settings.h"

namespace {

constexpr TimeSpec kFrom = {1700000000, 0};
constexpr TimeSpec kTo = {1700000004, 0};

const std::string kHead = "Snapshot  2023-11-14 22:13:24  (4.0 elapsed seconds)\n\n";
const std::string kMcastTitle =
    "                                      Multicast Packet Statistics\n"
    "  Port   Address          SCid    Data     Bytes  Null   Rdata    Rbytes   Gaps   Bad    R\n"
    " -----   --------------- ----- ------- --------- ----- ------- --------- ------ ----- ----\n";
const std::string kRetransTitle =
    "                         Multicast Retrans Packet Statistics\n"
    "  Port   Address         SCid     Rreq      Rseq  Rrej     Bad\n"
    " -----   --------------- ----- ------- --------- -----  ------\n";
const std::string kPtpTitle =
    "                                      PTP Packet Statistics\n"
    "  Port   Address         SCid     Data     Bytes  AckR     Ack       Nak    Bad\n"
    " -----   --------------- ----- ------- --------- -----  ------   ------- ------\n";
const std::string kSubjectTitle =
    "                          Multicast Subject Statistics\n"
    "  Port   Address          SCid    Msgs     Bytes  Subject\n"
    " -----   --------------- ----- ------- ---------  -------\n";

struct ReportTest : testing::Test {
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        traceSettings = {};
    }

    void TearDown() override {
        traceSettings = {};
        servicesForget();
    }
};

std::string print(BuiltSnapshot& built, size_t allocations = kNeverFails) {
    char* text = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&text, &length);
    logSetStream(stream);
    SnapHeader* snapshot = built.link();
    {
        const FailAlloc fail{.after = allocations, .forGood = true};
        printSnapshot(snapshot);
    }
    std::string report(text, length);  // flushed by the report itself
    logSetStream(nullptr);
    std::fclose(stream);
    std::free(text);
    return report;
}

SnapHost mcastHost(const char* address, uint16_t scid, double reliability, uint64_t first) {
    return {.host = addressOf(address),
            .port = htons(scid),
            .reliability = reliability,
            .bad = first + 6,
            .gaps = first + 5,
            .data = first,
            .bytes = first + 1,
            .nulls = first + 2,
            .rdata = first + 3,
            .rbytes = first + 4};
}

SnapRlHost rlHost(const char* address, uint16_t scid, uint64_t sent, uint64_t recv) {
    return {addressOf(address),
            htons(scid),
            {sent + 3, recv + 3, sent, recv, sent + 1, recv + 1, sent + 2, recv + 2}};
}

SnapPtpHost ptpHost(const char* address, uint16_t scid, uint64_t sent, uint64_t recv) {
    return {addressOf(address),
            htons(scid),
            {sent + 5, recv + 5, sent, recv, sent + 1, recv + 1, sent + 4, recv + 4, sent + 2,
             recv + 2, sent + 3, recv + 3}};
}

SnapSubjectHost subjectHost(const char* address, uint16_t scid, uint64_t msgs, uint64_t bytes) {
    return {addressOf(address), htons(scid), msgs, bytes};
}

// One port with something in each table; a host without SCid in each.
BuiltSnapshot busy() {
    const BuiltNet net = {
        .net = addressOf("224.1.1.1"),
        .hosts = {mcastHost("10.0.0.2", 0, 0, 20), mcastHost("10.0.0.1", 8000, 60, 10)},
        .subjects = {{packText("B.C"), {subjectHost("10.0.0.1", 8000, 3, 300)}},
                     {packText("A%d"),
                      {subjectHost("10.0.0.2", 0, 2, 200), subjectHost("10.0.0.1", 8000, 1, 9)}}}};
    return {
        .from = kFrom,
        .to = kTo,
        .ports = {{.port = 7500,
                   .nets = {net},
                   .rlHosts = {rlHost("10.0.0.2", 0, 40, 50), rlHost("10.0.0.1", 8000, 60, 70)},
                   .ptpHosts = {ptpHost("10.0.0.2", 0, 0, 8), ptpHost("10.0.0.1", 8000, 1, 2)}}}};
}

TEST_F(ReportTest, ShowsCounts) {
    traceSettings.displayPtp = true;
    traceSettings.displayAddrInfo = true;
    BuiltSnapshot built = busy();
    EXPECT_EQ(
        print(built),
        kHead + kMcastTitle +
            "         Totals                     30        32    34      36        38     40    42 "
            "   -\n"
            "  7500 * 224.1.1.1                  30        32    34      36        38     40    42 "
            "   -\n"
            "         10.0.0.1         8000      10        11    12      13        14     15    16 "
            "  60\n"
            "         10.0.0.2        -          20        21    22      23        24     25    26 "
            "   0\n"
            "\n" +
            kRetransTitle +
            "         Totals                    100       102   104     106\n"
            "  7500                             100       102   104     106\n"
            "       * 10.0.0.1         8000      70        71    72      73\n"
            "                                    60        61    62      63\n"
            "       * 10.0.0.2        -          50        51    52      53\n"
            "                                    40        41    42      43\n"
            "\n" +
            kPtpTitle +
            "         Totals                      1         3     5       7         9     11\n"
            "  7500                               1         3     5       7         9     11\n"
            "       * 10.0.0.1         8000       2         3     4       5         6      7\n"
            "                                     1         2     3       4         5      6\n"
            "       * 10.0.0.2        -           8         9    10      11        12     13\n"
            "                                     0         1     2       3         4      5\n"
            "\n" +
            kSubjectTitle +
            "         Totals                      6       509\n"
            "  7500 * 224.1.1.1                   3       209  A%d\n"
            "         10.0.0.1         8000       1         9\n"
            "         10.0.0.2        -           2       200\n"
            "  7500 * 224.1.1.1                   3       300  B.C\n"
            "         10.0.0.1         8000       3       300\n"
            "\n");
}

TEST_F(ReportTest, ShowsRates) {
    traceSettings.displayPtp = traceSettings.displayRate = traceSettings.displayAddrInfo = true;
    BuiltSnapshot built = busy();
    built.to.nanoseconds = 100000000;
    const std::string report = print(built);
    for (const char* row :
         {"Snapshot  2023-11-14 22:13:24  (4.1 elapsed seconds)\n",
          "         10.0.0.1         8000     2.4       2.7   2.9     3.2       3.4    3.7   3.9",
          "  7500                            24.4      24.9  25.4    25.9\n",
          "                                   0.2       0.5   0.7     1.0       1.2    1.5\n",
          "  7500 * 224.1.1.1                 0.7      51.0  A%d\n"}) {
        EXPECT_NE(report.find(row), std::string::npos) << row << report;
    }
}

// As rates counters are signed numbers: the largest is -1.
TEST_F(ReportTest, LetsWideRatesBreakTheColumns) {
    traceSettings.displayRate = true;
    traceSettings.displayAddrInfo = true;
    constexpr double kInfinite = std::numeric_limits<double>::infinity();
    SnapHost host = mcastHost("255.255.255.255", 65535, kInfinite, 0);
    host.bytes = host.bad = std::numeric_limits<uint64_t>::max();
    host.gaps = 1234567;
    host.data = 12345678;
    BuiltSnapshot built = {.from = kFrom,
                           .to = kTo,
                           .ports = {{.port = 65535, .nets = {{.net = 1, .hosts = {host}}}}}};
    const std::string report = print(built);
    EXPECT_NE(report.find("         255.255.255.255 65535 3086419.5      -0.2   0.5     0.8"
                          "       1.0 308641.8  -0.2  inf\n"),
              std::string::npos)
        << report;
}

// Whether a row without a net stands under the port, of five places.
bool showsPort(const std::string& report, const char* port) {
    return report.find("\n " + std::string(port) + "      ") != std::string::npos;
}

std::string reportOf(const std::vector<BuiltPort>& ports) {
    BuiltSnapshot built = {.from = kFrom, .to = kTo, .ports = ports};
    return print(built);
}

// Retransmission packets come from another port: their row stands under the one where the host was
// last shown as a sender.
TEST_F(ReportTest, RemembersTheServicePortOfAHost) {
    traceSettings.displayAddrInfo = true;
    const auto sends = [](uint16_t port) {
        const SnapHost host = mcastHost("10.0.0.1", 8000, 0, 1);
        return BuiltPort{.port = port, .nets = {{.net = 1, .hosts = {host}}}};
    };
    const BuiltPort asks = {.port = 8000, .rlHosts = {rlHost("10.0.0.1", 8000, 1, 1)}};
    EXPECT_TRUE(showsPort(reportOf({asks}), " 8000"));
    EXPECT_TRUE(showsPort(reportOf({sends(7500), asks}), " 7500"));
    EXPECT_TRUE(showsPort(reportOf({asks}), " 7500"));  // kept from report to report
    EXPECT_TRUE(showsPort(reportOf({sends(7300), sends(7900), asks}), " 7900"));
}

TEST_F(ReportTest, LeavesOutPortsWithNothingToShow) {
    SnapRlHost silent{}, asked{}, bad{};
    silent.counters.rreqRecv = silent.counters.rseqRecv = silent.counters.rrejRecv = 9;
    asked.counters.rrejSent = 1;
    bad.counters.badRecv = 5;
    const BuiltPort first = {.port = 1, .rlHosts = {silent}},
                    second = {.port = 2, .rlHosts = {asked}}, third = {.port = 3, .rlHosts = {bad}};
    const std::string report = reportOf({first, second, third});
    EXPECT_FALSE(showsPort(report, "    1"));
    EXPECT_TRUE(showsPort(report, "    2"));
    EXPECT_TRUE(showsPort(report, "    3"));

    // Nobody sent anything: no table, though a port would have a row.
    EXPECT_EQ(reportOf({first, third}).find(kRetransTitle), std::string::npos);
}

TEST_F(ReportTest, PrintsLongReportsWhole) {
    constexpr int kSubjects = 3000;
    const std::string longElement(120, 'e');
    BuiltSnapshot built = {.from = kFrom, .to = kTo, .ports = {{.port = 9, .nets = {{.net = 0}}}}};
    std::string rows;
    for (int i = 0; i < kSubjects; ++i) {
        const std::string text = longElement + "." + std::to_string(10000 + i);
        built.ports[0].nets[0].subjects.push_back(
            {packText(text), {subjectHost("1.2.3.4", 5, 1, 2)}});
        rows += "     9 * 0.0.0.0                     1         2  " + text + "\n";
    }
    std::reverse(built.ports[0].nets[0].subjects.begin(), built.ports[0].nets[0].subjects.end());
    traceSettings.displayMcast = traceSettings.displayStats = false;
    EXPECT_EQ(print(built),
              kSubjectTitle + "         Totals                   3000      6000\n" + rows + "\n");
}

// Without memory for service ports the rows stand all the same, and nothing half-made stays.
TEST_F(ReportTest, NeedsNoMemory) {
    traceSettings.displayAddrInfo = true;
    BuiltSnapshot built = busy();
    const std::string whole = print(built);
    for (const size_t after : {0, 1, 2}) {
        servicesForget();
        const std::string report = print(built, after);
        const char* what = after == 0 ? "allocating" : "storing";
        EXPECT_NE(report.find(std::string("Out of memory ") + what + " service entry"),
                  std::string::npos);
        EXPECT_EQ(report.substr(report.find("         Totals")),
                  whole.substr(whole.find("         Totals")));
    }
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
