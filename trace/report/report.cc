#include "trace/report/report.h"

#include <cstdio>
#include <ctime>
#include <span>

#include "lib/base/bytes.h"
#include "lib/base/log.h"
#include "lib/base/prefetch.h"
#include "lib/containers/subject.h"
#include "trace/counts/services.h"
#include "trace/counts/snapshot_totals.h"
#include "trace/report/host_report.h"
#include "trace/report/report_format.h"
#include "trace/settings.h"

namespace {

constexpr size_t kLinesBytes = 65536;

struct Report {
    FILE* stream;
    ReportView view;

    SnapTotals totals;

    // The buffer of whole rows not yet written.
    char lines[kLinesBytes];
    size_t linesUsed;
};

Report report;

constexpr ReportTable<SnapHost, 7> kMcastTable = {
    "                                      Multicast Packet Statistics\n"
    "  Port   Address          SCid    Data     Bytes  Null   Rdata    Rbytes   Gaps   Bad    R\n"
    " -----   --------------- ----- ------- --------- ----- ------- --------- ------ ----- ----\n",
    {
        {7, &SnapHost::data},
        {9, &SnapHost::bytes},
        {5, &SnapHost::nulls},
        {7, &SnapHost::rdata},
        {9, &SnapHost::rbytes},
        {6, &SnapHost::gaps},
        {5, &SnapHost::bad},
    }};

constexpr ReportTable<RlCounters, 4> kRetransTable = {
    "                         Multicast Retrans Packet Statistics\n"
    "  Port   Address         SCid     Rreq      Rseq  Rrej     Bad\n"
    " -----   --------------- ----- ------- --------- -----  ------\n",
    {
        {7, &RlCounters::rreqSent, &RlCounters::rreqRecv},
        {9, &RlCounters::rseqSent, &RlCounters::rseqRecv},
        {5, &RlCounters::rrejSent, &RlCounters::rrejRecv},
        {7, &RlCounters::badSent, &RlCounters::badRecv},
    }};

constexpr ReportTable<PtpCounters, 6> kPtpTable = {
    "                                      PTP Packet Statistics\n"
    "  Port   Address         SCid     Data     Bytes  AckR     Ack       Nak    Bad\n"
    " -----   --------------- ----- ------- --------- -----  ------   ------- ------\n",
    {
        {7, &PtpCounters::dataSent, &PtpCounters::dataRecv},
        {9, &PtpCounters::bytesSent, &PtpCounters::bytesRecv},
        {5, &PtpCounters::ackmeSent, &PtpCounters::ackmeRecv},
        {7, &PtpCounters::ackSent, &PtpCounters::ackRecv},
        {9, &PtpCounters::nakSent, &PtpCounters::nakRecv},
        {6, &PtpCounters::badSent, &PtpCounters::badRecv},
    }};

constexpr ReportTable<SnapSubjectHost, 2> kSubjectTable = {
    "                          Multicast Subject Statistics\n"
    "  Port   Address          SCid    Msgs     Bytes  Subject\n"
    " -----   --------------- ----- ------- ---------  -------\n",
    {
        {7, &SnapSubjectHost::msgs},
        {9, &SnapSubjectHost::bytes},
    }};

// The log file, which stays valid even if it is rotated meanwhile. Reports never go to the standard
// error stream among the log lines.
FILE* chooseStream() {
    FILE* stream = logStreamGet();
    return stream == nullptr || stream == stderr ? stdout : stream;
}

void writeLines() {
    std::fwrite(report.lines, 1, report.linesUsed, report.stream);
    report.linesUsed = 0;
}

// Returns room for a row of up to kRowBytesMax bytes.
char* rowBegin() {
    if (kLinesBytes - report.linesUsed < kRowBytesMax) writeLines();
    return report.lines + report.linesUsed;
}

void rowEnd(const char* end) {
    report.linesUsed = static_cast<size_t>(end - report.lines);
}

void printText(const char* text) {
    rowEnd(appendText(rowBegin(), text));
}

// The start of a row: 30 characters in every table.

constexpr const char* kTotalsLead = "         Totals               ";
constexpr const char* kSecondLineLead = "                              ";
constexpr const char* kOneSidedIndent = "         ";
constexpr const char* kTwoSidedIndent = "       * ";

char* appendPort(char* at, uint16_t port) {
    *at++ = ' ';
    return appendCount(at, hostOrder16(port), 5);
}

char* appendPortLead(char* at, uint16_t port) {
    return appendBlanks(appendPort(at, port), 24);
}

char* appendNetLead(char* at, uint16_t port, uint32_t net) {
    at = appendText(appendPort(at, port), " * ");
    return appendBlanks(appendAddress(at, net), 6);
}

char* appendHostLead(char* at, const char* indent, uint32_t host, uint16_t scid) {
    at = appendAddress(appendText(at, indent), host);
    *at++ = ' ';
    return scid == 0 ? appendText(at, "-    ") : appendCount(at, hostOrder16(scid), 5);
}

template <typename Table>
void printTableHead(const Table& table, const typename Table::Counters& totals, const char* tail) {
    char* at = appendText(appendText(rowBegin(), table.title), kTotalsLead);
    at = appendCounters(at, report.view, table, totals);
    rowEnd(appendText(at, tail));
}

void printHead(const SnapHeader& snapshot) {
    const time_t seconds = snapshot.thisTime.seconds;
    tm local{};
    localtime_r(&seconds, &local);
    char* row = rowBegin();
    const int length = std::snprintf(
        row, kRowBytesMax, "Snapshot  %04d-%02d-%02d %02d:%02d:%02d  (%.1f elapsed seconds)\n\n",
        local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
        local.tm_sec, report.view.elapsedSeconds);
    rowEnd(row + length);
}

// In floating point throughout, so that no distance between two times overflows.
double secondsBetween(TimeSpec from, TimeSpec to) {
    const double nanoseconds = static_cast<double>(to.nanoseconds) - from.nanoseconds;
    const double seconds = static_cast<double>(to.seconds) - from.seconds;
    return nanoseconds / 1e9 + seconds;
}

void printMcastHost(const SnapHost& host) {
    char* at = appendHostLead(rowBegin(), kOneSidedIndent, host.host, host.port);
    at = appendCounters(at, report.view, kMcastTable, host);
    *at++ = ' ';
    at = appendWhole(at, host.reliability, 4);
    rowEnd(appendText(at, "\n"));
}

void printMcastNet(uint16_t port, const SnapNet& net) {
    const std::span<const SnapHost> hosts(net.hosts, net.hostCount);
    char* at = appendNetLead(rowBegin(), port, net.net);
    at = appendCounters(at, report.view, kMcastTable, sumOfHosts(hosts));
    rowEnd(appendText(at, "    -\n"));
    if (!traceSettings.displayAddrInfo) return;
    for (const SnapHost& host : hosts) {
        printMcastHost(host);
    }
}

void printMcastTable(const SnapHeader& snapshot) {
    printTableHead(kMcastTable, report.totals.multicast, "    -\n");
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            printMcastNet(port.port, net);
        }
    }
    printText("\n");
}

// Prints two lines: what was sent to the host, then what it sent.
template <typename Table, typename Host>
void printTwoSidedHost(const Table& table, const Host& host) {
    char* at = appendHostLead(rowBegin(), kTwoSidedIndent, host.host, host.port);
    at = appendCounters(at, report.view, table, host.counters, Side::kRecv);
    at = appendText(at, "\n");
    at = appendText(at, kSecondLineLead);
    at = appendCounters(at, report.view, table, host.counters, Side::kSent);
    rowEnd(appendText(at, "\n"));
}

// `port` is in network order, `sum` that of the hosts.
template <typename Table, typename Host>
void printTwoSidedPort(const Table& table,
                       uint16_t port,
                       const typename Table::Counters& sum,
                       std::span<const Host> hosts) {
    char* at = appendPortLead(rowBegin(), port);
    at = appendCounters(at, report.view, table, sum);
    rowEnd(appendText(at, "\n"));
    if (!traceSettings.displayAddrInfo) return;
    for (const auto& host : hosts) {
        printTwoSidedHost(table, host);
    }
}

void printRetransTable(const SnapHeader& snapshot) {
    printTableHead(kRetransTable, report.totals.retransmission, "\n");
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        const std::span<const SnapRlHost> hosts(port.rlHosts, port.rlHostCount);
        const RlCounters sum = sumOfHosts(hosts);
        if (!anySent(kRetransTable, sum) && sum.badRecv == 0) continue;
        printTwoSidedPort(kRetransTable, port.servicePort, sum, hosts);
    }
    printText("\n");
}

void printPtpTable(const SnapHeader& snapshot) {
    printTableHead(kPtpTable, report.totals.pointToPoint, "\n");
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        const std::span<const SnapPtpHost> hosts(port.ptpHosts, port.ptpHostCount);
        const PtpCounters sum = sumOfHosts(hosts);
        if (!anySent(kPtpTable, sum)) continue;
        printTwoSidedPort(kPtpTable, port.port, sum, hosts);
    }
    printText("\n");
}

void printSubject(uint16_t port, uint32_t net, const SnapSubject& subject) {
    const SnapSubjectHost sum{.host = 0, .port = 0, .msgs = subject.msgs, .bytes = subject.bytes};
    char* at = appendNetLead(rowBegin(), port, net);
    at = appendCounters(at, report.view, kSubjectTable, sum);
    at = appendText(at, "  ");
    at = subjectWriteText(at, subject.subject);
    rowEnd(appendText(at, "\n"));
    if (!traceSettings.displayAddrInfo) return;

    for (const SnapSubjectHost& host : std::span(subject.hosts, subject.hostCount)) {
        at = appendHostLead(rowBegin(), kOneSidedIndent, host.host, host.port);
        at = appendCounters(at, report.view, kSubjectTable, host);
        rowEnd(appendText(at, "\n"));
    }
}

// Sorted subjects are scattered in memory, so what a row needs is prefetched some rows ahead.
void printSubjects(uint16_t port, const SnapNet& net) {
    constexpr size_t kRowsAhead = 8;
    const std::span subjects(net.subjects, net.subjectCount);
    for (size_t i = 0; i < subjects.size(); ++i) {
        if (i + kRowsAhead < subjects.size()) {
            const SnapSubject& ahead = subjects[i + kRowsAhead];
            prefetchLine(ahead.subject);
            if (traceSettings.displayAddrInfo) prefetchLine(ahead.hosts);
        }
        printSubject(port, net.net, subjects[i]);
    }
}

void printSubjectTable(const SnapHeader& snapshot) {
    printTableHead(kSubjectTable, report.totals.subjects, "\n");
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            printSubjects(port.port, net);
        }
    }
    printText("\n");
}

void printAllHostMessages(const SnapHeader& snapshot) {
    printText("\n");
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            writeLines();
            printHostMessages(port.port, net, report.stream);
        }
    }
    printText("\n");
}

void printTables(const SnapHeader& snapshot) {
    const TraceSettings& show = traceSettings;
    if (show.displayMcast) printMcastTable(snapshot);
    if (show.displayMcast && anySent(kRetransTable, report.totals.retransmission))
        printRetransTable(snapshot);
    if (show.displayPtp && anySent(kPtpTable, report.totals.pointToPoint)) printPtpTable(snapshot);
    if (show.displaySubjects) printSubjectTable(snapshot);
    if (show.displayHostMsgs) printAllHostMessages(snapshot);
}

}  // namespace

void printSnapshot(SnapHeader* snapshot) {
    report.stream = chooseStream();
    report.view = {.rate = traceSettings.displayRate,
                   .elapsedSeconds = secondsBetween(snapshot->prevTime, snapshot->thisTime)};
    report.linesUsed = 0;
    if (traceSettings.displayStats) printHead(*snapshot);

    // Faster before the sort, while the hosts of subjects still follow each other in memory in
    // the subjects' order; the sums are the same.
    report.totals = snapshotAddUp(*snapshot);
    snapshotSort(snapshot);
    if (traceSettings.displayMcast && traceSettings.displayAddrInfo) servicesFind(snapshot);
    printTables(*snapshot);

    writeLines();
    std::fflush(report.stream);
    logCheckRotation();
}
