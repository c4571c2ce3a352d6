#include "trace/report.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

#include "lib/base/log.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/snapshot_builder.h"
#include "trace/report_format.h"
#include "trace/settings.h"
#include "trace/statistics.h"

namespace {

constexpr SnapTime kFrom = {1700000000, 0};
constexpr SnapTime kTo = {1700000004, 0};
constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();

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
const std::string kMcastZeros =
    "         Totals                      0         0     0       0         0      0     0    -\n";
const std::string kSubjectZeros = "         Totals                      0         0\n";

struct ReportTest : testing::Test {
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        traceSettings = {};
        ASSERT_EQ(statsInit(), kStatusSuccess);
    }

    void TearDown() override {
        traceSettings = {};
        statsDestroy();
    }
};

std::string print(BuiltSnapshot& built) {
    char* text = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&text, &length);
    logSetStream(stream);
    SnapHeader* snapshot = built.link();
    printSnapshot(snapshot);
    std::string report(text, length);  // flushed by the report itself
    logSetStream(nullptr);
    std::fclose(stream);
    std::free(text);
    return report;
}

SnapHost mcastHost(const char* address, uint16_t scid, double reliability, uint64_t first) {
    return {.host = addressOf(address),
            .net = 0,
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

BuiltSnapshot quiet() {
    return {.from = kFrom, .to = kTo};
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

TEST_F(ReportTest, ShowsOnlyTotalsOfAQuietInterval) {
    traceSettings.displayPtp = true;
    traceSettings.displayAddrInfo = true;
    BuiltSnapshot built = quiet();
    EXPECT_EQ(print(built),
              kHead + kMcastTitle + kMcastZeros + "\n" + kSubjectTitle + kSubjectZeros + "\n");
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
    traceSettings.displayPtp = true;
    traceSettings.displayRate = true;
    BuiltSnapshot built = busy();
    built.to.nanoseconds = 100000000;
    EXPECT_EQ(
        print(built),
        "Snapshot  2023-11-14 22:13:24  (4.1 elapsed seconds)\n\n" + kMcastTitle +
            "         Totals                    7.3       7.8   8.3     8.8       9.3    9.8  10.2 "
            "   -\n"
            "  7500 * 224.1.1.1                 7.3       7.8   8.3     8.8       9.3    9.8  10.2 "
            "   -\n"
            "\n" +
            kRetransTitle +
            "         Totals                   24.4      24.9  25.4    25.9\n"
            "  7500                            24.4      24.9  25.4    25.9\n"
            "\n" +
            kPtpTitle +
            "         Totals                    0.2       0.7   1.2     1.7       2.2    2.7\n"
            "  7500                             0.2       0.7   1.2     1.7       2.2    2.7\n"
            "\n" +
            kSubjectTitle +
            "         Totals                    1.5     124.1\n"
            "  7500 * 224.1.1.1                 0.7      51.0  A%d\n"
            "  7500 * 224.1.1.1                 0.7      73.2  B.C\n"
            "\n");

    traceSettings.displayAddrInfo = true;
    const std::string rows = print(built);
    for (const char* row :
         {"         10.0.0.1         8000     2.4       2.7   2.9     3.2       3.4    3.7   3.9   "
          "60\n",
          "         10.0.0.2        -         4.9       5.1   5.4     5.6       5.9    6.1   6.3   "
          " 0\n",
          "       * 10.0.0.2        -        12.2      12.4  12.7    12.9\n"
          "                                   9.8      10.0  10.2    10.5\n",
          "       * 10.0.0.1         8000     0.5       0.7   1.0     1.2       1.5    1.7\n"
          "                                   0.2       0.5   0.7     1.0       1.2    1.5\n",
          "         10.0.0.2        -         0.5      48.8\n"}) {
        EXPECT_NE(rows.find(row), std::string::npos) << row << rows;
    }
}

TEST_F(ReportTest, LetsWideNumbersBreakTheColumns) {
    traceSettings.displayAddrInfo = true;
    traceSettings.displayMcast = true;
    SnapHost host = mcastHost("255.255.255.255", 65535, 1e12, 0);
    host.bytes = host.bad = kLargest;
    host.gaps = 1234567;
    host.data = 12345678;
    BuiltSnapshot built = {
        .from = {std::numeric_limits<int32_t>::max(), 0},
        .to = {std::numeric_limits<int32_t>::min(), 0},
        .ports = {
            {.port = 65535, .nets = {{.net = addressOf("255.255.255.255"), .hosts = {host}}}}}};
    const std::string head = "Snapshot  1901-12-13 20:45:52  (-4294967295.0 elapsed seconds)\n\n";
    EXPECT_EQ(print(built),
              head + kMcastTitle +
                  "         Totals                12345678 18446744073709551615     2       3"
                  "         4 1234567 18446744073709551615    -\n"
                  " 65535 * 255.255.255.255       12345678 18446744073709551615     2       3"
                  "         4 1234567 18446744073709551615    -\n"
                  "         255.255.255.255 65535 12345678 18446744073709551615     2       3"
                  "         4 1234567 18446744073709551615 1000000000000\n\n" +
                  kSubjectTitle + kSubjectZeros + "\n");

    // As rates counters are signed numbers: the largest is -1.
    traceSettings.displayRate = true;
    built.from = kFrom;
    built.to = kTo;
    built.ports[0].nets[0].hosts[0].reliability = std::numeric_limits<double>::infinity();
    const std::string rates = print(built);
    EXPECT_NE(rates.find("         255.255.255.255 65535 3086419.5      -0.2   0.5     0.8"
                         "       1.0 308641.8  -0.2  inf\n"),
              std::string::npos)
        << rates;
}

TEST_F(ReportTest, ShowsWhatDividingByNoTimeGives) {
    traceSettings.displayRate = true;
    traceSettings.displayMcast = false;
    BuiltSnapshot built = {
        .from = kTo,
        .to = kTo,
        .ports = {{.port = 1,
                   .nets = {{.net = 0,
                             .subjects = {{packText("A"), {subjectHost("1.1.1.1", 1, 1, 0)}}}}}}}};
    char zeroByZero[32];
    volatile double zero = 0;
    std::snprintf(zeroByZero, sizeof zeroByZero, "     inf %9.1f", zero / zero);
    const std::string head = "Snapshot  2023-11-14 22:13:24  (0.0 elapsed seconds)\n\n";
    EXPECT_EQ(print(built), head + kSubjectTitle + "         Totals               " + zeroByZero +
                                "\n     1 * 0.0.0.0              " + zeroByZero + "  A\n\n");
}

TEST_F(ReportTest, ShowsWhatTheSwitchesSay) {
    const struct {
        const char* what;
        void (*set)(TraceSettings& settings);
        std::vector<std::string> shown;
    } cases[] = {
        {"by default", [](TraceSettings&) {}, {"Snap", "Packet", "Retrans", "Subject"}},
        {"ptp",
         [](TraceSettings& settings) { settings.displayPtp = true; },
         {"Snap", "Packet", "Retrans", "PTP", "Subject"}},
        {"no mcast",
         [](TraceSettings& settings) { settings.displayMcast = false; },
         {"Snap", "Subject"}},
        {"no subjects",
         [](TraceSettings& settings) { settings.displaySubjects = false; },
         {"Snap", "Packet", "Retrans"}},
        {"nothing",
         [](TraceSettings& settings) {
             settings.displayStats = settings.displayMcast = settings.displaySubjects = false;
         },
         {}},
    };
    const struct {
        const char* name;
        std::string text;
    } parts[] = {{"Snap", kHead},
                 {"Packet", kMcastTitle},
                 {"Retrans", kRetransTitle},
                 {"PTP", kPtpTitle},
                 {"Subject", kSubjectTitle}};
    for (const auto& [what, set, shown] : cases) {
        SCOPED_TRACE(what);
        traceSettings = {};
        set(traceSettings);
        BuiltSnapshot built = busy();
        const std::string report = print(built);
        std::vector<std::string> found;
        for (const auto& [name, text] : parts) {
            if (report.find(text) != std::string::npos) found.push_back(name);
        }
        EXPECT_EQ(found, shown);
        EXPECT_EQ(report.empty(), shown.empty());
    }
}

TEST_F(ReportTest, LeavesOutPortsWithNothingToShow) {
    traceSettings.displayPtp = true;
    traceSettings.displayMcast = true;
    traceSettings.displaySubjects = false;
    SnapRlHost silent{}, asked{}, bad{};
    silent.counters.rreqRecv = silent.counters.rseqRecv = silent.counters.rrejRecv = 9;
    asked.counters.rrejSent = 1;
    bad.counters.badRecv = 5;
    SnapPtpHost ptpSilent{}, ptpBad{};
    ptpSilent.counters.dataRecv = ptpSilent.counters.badRecv = 9;
    ptpBad.counters.badSent = 2;
    BuiltSnapshot built = {.from = kFrom,
                           .to = kTo,
                           .ports = {{.port = 1, .rlHosts = {silent}, .ptpHosts = {ptpSilent}},
                                     {.port = 2, .rlHosts = {asked}, .ptpHosts = {ptpBad}},
                                     {.port = 3, .rlHosts = {bad}}}};
    EXPECT_EQ(
        print(built),
        kHead + kMcastTitle + kMcastZeros + "\n" + kRetransTitle +
            "         Totals                      0         0     1       0\n"
            "     2                               0         0     1       0\n"
            "     3                               0         0     0       0\n\n" +
            kPtpTitle +
            "         Totals                      0         0     0       0         0      2\n"
            "     2                               0         0     0       0         0      2\n\n");

    // Nobody sent anything: no table, though a port would have a row.
    built.ports.erase(built.ports.begin() + 1);
    EXPECT_EQ(print(built), kHead + kMcastTitle + kMcastZeros + "\n");
}

// The port rows of the retransmission table.
std::string retransPorts(BuiltSnapshot& built) {
    const std::string report = print(built);
    std::string ports;
    size_t at = report.find(kRetransTitle);
    while ((at = report.find('\n', at)) != std::string::npos) {
        ++at;
        if (report.compare(at, 1, "\n") == 0) break;
        const std::string row = report.substr(at, 10);
        if (row.substr(6) == "    " && row.substr(0, 6) != "      ") ports += row.substr(1, 5);
    }
    return ports;
}

TEST_F(ReportTest, RemembersTheServicePortOfAHost) {
    const auto onPort = [](uint16_t port, std::vector<SnapHost> hosts) {
        return BuiltPort{.port = port, .nets = {{.net = 1, .hosts = std::move(hosts)}}};
    };
    const SnapHost sender = mcastHost("10.0.0.1", 8000, 0, 1);
    const SnapHost nameless = mcastHost("10.0.0.0", 0, 0, 1);
    const SnapHost other = mcastHost("10.0.0.2", 8000, 0, 1);
    const BuiltPort retrans = {
        .port = 8000,
        .rlHosts = {rlHost("10.0.0.2", 8000, 1, 1), rlHost("10.0.0.1", 8000, 1, 1),
                    rlHost("10.0.0.0", 0, 1, 1)}};

    BuiltSnapshot built = {
        .from = kFrom, .to = kTo, .ports = {onPort(7500, {sender, nameless}), retrans}};
    EXPECT_EQ(retransPorts(built), " 8000");  // nothing is learnt without host rows
    traceSettings.displayAddrInfo = true;
    EXPECT_EQ(retransPorts(built), " 7500");

    traceSettings.displayAddrInfo = false;
    built.ports = {retrans};
    EXPECT_EQ(retransPorts(built), " 7500");  // kept from report to report

    traceSettings.displayAddrInfo = true;
    built.ports = {onPort(7600, {sender}), onPort(7700, {other}), retrans};
    EXPECT_EQ(retransPorts(built), " 7600");  // the last row that showed the first known host
    built.ports = {onPort(7300, {sender}), onPort(7900, {sender}), retrans};
    EXPECT_EQ(retransPorts(built), " 7900");
    EXPECT_EQ(servicePort(addressOf("10.0.0.0"), 0), htons(7500));  // whatever the SCid
}

TEST_F(ReportTest, FramesTheMessagesOfHosts) {
    traceSettings.displayStats = traceSettings.displayMcast = traceSettings.displaySubjects = false;
    traceSettings.displayHostMsgs = true;
    BuiltSnapshot built = busy();
    EXPECT_EQ(print(built), "\n\n");
}

TEST_F(ReportTest, GoesToTheLogFileAndRotatesIt) {
    BuiltSnapshot built = quiet();
    const Folder folder;
    const std::string path = folder.path("log");
    ASSERT_EQ(logOpen(path.c_str(), 400, 1, nullptr), kStatusSuccess);
    printSnapshot(built.link());
    logClose();
    EXPECT_EQ(readFile(path), "");
    EXPECT_EQ(readFile(path + "1").substr(0, kHead.size()), kHead);
}

TEST_F(ReportTest, GoesToTheStandardOutputWhereTheLogIsOnTheStandardError) {
    BuiltSnapshot built = quiet();
    for (FILE* stream : {static_cast<FILE*>(nullptr), stderr}) {
        logSetStream(stream);
        testing::internal::CaptureStdout();
        printSnapshot(built.link());
        EXPECT_EQ(testing::internal::GetCapturedStdout().substr(0, kHead.size()), kHead);
    }
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

TEST_F(ReportTest, NeedsNoMemory) {
    traceSettings.displayAddrInfo = true;
    BuiltSnapshot built = busy();
    std::string report;
    {
        char* text = nullptr;
        size_t length = 0;
        FILE* stream = open_memstream(&text, &length);
        logSetStream(stream);
        SnapHeader* snapshot = built.link();
        const FailAlloc fail{.after = 0, .forGood = true};
        printSnapshot(snapshot);
        allocationsHeal();
        report.assign(text, length);
        logSetStream(nullptr);
        std::fclose(stream);
        std::free(text);
    }
    EXPECT_NE(report.find("Out of memory allocating service entry"), std::string::npos);
    EXPECT_EQ(report.substr(report.find("Snapshot")), print(built));
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
