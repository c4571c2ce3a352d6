#include "trace/counts/snapshot_totals.h"

namespace {

template <typename Record>
using Counter = uint64_t Record::*;

constexpr Counter<SnapHost> kHostCounters[] = {
    &SnapHost::data,   &SnapHost::bytes, &SnapHost::nulls, &SnapHost::rdata,
    &SnapHost::rbytes, &SnapHost::gaps,  &SnapHost::bad,
};

constexpr Counter<RlCounters> kRlCounters[] = {
    &RlCounters::badSent,  &RlCounters::badRecv,  &RlCounters::rreqSent, &RlCounters::rreqRecv,
    &RlCounters::rseqSent, &RlCounters::rseqRecv, &RlCounters::rrejSent, &RlCounters::rrejRecv,
};
static_assert(sizeof(RlCounters) == std::size(kRlCounters) * sizeof(uint64_t));

constexpr Counter<PtpCounters> kPtpCounters[] = {
    &PtpCounters::badSent,   &PtpCounters::badRecv,   &PtpCounters::dataSent,
    &PtpCounters::dataRecv,  &PtpCounters::bytesSent, &PtpCounters::bytesRecv,
    &PtpCounters::nakSent,   &PtpCounters::nakRecv,   &PtpCounters::ackmeSent,
    &PtpCounters::ackmeRecv, &PtpCounters::ackSent,   &PtpCounters::ackRecv,
};
static_assert(sizeof(PtpCounters) == std::size(kPtpCounters) * sizeof(uint64_t));

template <typename Record, size_t kCount>
void addAll(const Counter<Record> (&counters)[kCount], Record& sum, const Record& record) {
    for (const Counter<Record> counter : counters) {
        sum.*counter += record.*counter;
    }
}

template <typename Sum, typename Host>
Sum sumOfTwoSided(std::span<const Host> hosts) {
    Sum sum{};
    for (const Host& host : hosts) {
        addCounters(sum, host.counters);
    }
    return sum;
}

void addNet(SnapTotals& totals, const SnapNet& net) {
    for (const SnapHost& host : std::span(net.hosts, net.hostCount)) {
        addCounters(totals.multicast, host);
    }
    for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        totals.subjects.msgs += subject.msgs;
        totals.subjects.bytes += subject.bytes;
    }
}

}  // namespace

void addCounters(SnapHost& sum, const SnapHost& record) {
    addAll(kHostCounters, sum, record);
}

void addCounters(RlCounters& sum, const RlCounters& record) {
    addAll(kRlCounters, sum, record);
}

void addCounters(PtpCounters& sum, const PtpCounters& record) {
    addAll(kPtpCounters, sum, record);
}

SnapHost sumOfHosts(std::span<const SnapHost> hosts) {
    SnapHost sum{};
    for (const SnapHost& host : hosts) {
        addCounters(sum, host);
    }
    return sum;
}

RlCounters sumOfHosts(std::span<const SnapRlHost> hosts) {
    return sumOfTwoSided<RlCounters>(hosts);
}

PtpCounters sumOfHosts(std::span<const SnapPtpHost> hosts) {
    return sumOfTwoSided<PtpCounters>(hosts);
}

SnapTotals snapshotAddUp(const SnapHeader& snapshot) {
    SnapTotals totals = snapshot.beyond;
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            addNet(totals, net);
        }
        addCounters(totals.retransmission, sumOfHosts(std::span(port.rlHosts, port.rlHostCount)));
        addCounters(totals.pointToPoint, sumOfHosts(std::span(port.ptpHosts, port.ptpHostCount)));
    }
    return totals;
}
