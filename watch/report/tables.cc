#include "watch/report/tables.h"

#include <algorithm>
#include <span>
#include <tuple>

#include "trace/counts/snapshot_totals.h"

namespace {

// What a host has in one group or on one subject, before it is added up.
ReportSender senderOf(uint32_t host, uint16_t scid) {
    ReportSender made = {};
    made.sum.host = host;
    made.sum.port = scid;
    return made;
}

void addHosts(std::vector<ReportSender>& senders, const SnapNet& net) {
    for (const SnapHost& host : std::span(net.hosts, net.hostCount)) {
        ReportSender& made = senders.emplace_back(senderOf(host.host, host.port));
        addCounters(made.sum, host);
    }
    for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        for (const SnapSubjectHost& host : std::span(subject.hosts, subject.hostCount)) {
            ReportSender& made = senders.emplace_back(senderOf(host.host, host.port));
            made.messages = host.msgs;
            made.messageBytes = host.bytes;
        }
    }
}

// Joins the pieces of each host.
void addUp(std::vector<ReportSender>& senders) {
    const auto key = [](const ReportSender& sender) {
        return std::tuple(sender.sum.host, sender.sum.port);
    };
    std::ranges::sort(senders, {}, key);
    size_t count = 0;
    for (const ReportSender& piece : senders) {
        if (count == 0 || key(senders[count - 1]) != key(piece)) {
            senders[count++] = piece;
            continue;
        }
        ReportSender& sum = senders[count - 1];
        addCounters(sum.sum, piece.sum);
        sum.messages += piece.messages;
        sum.messageBytes += piece.messageBytes;
    }
    senders.resize(count);
}

ReportGroup groupOf(const SnapPort& port, const SnapNet& net) {
    ReportGroup made = {.port = &port,
                        .net = &net,
                        .sum = sumOfHosts(std::span<const SnapHost>(net.hosts, net.hostCount)),
                        .messages = 0,
                        .messageBytes = 0};
    for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        made.messages += subject.msgs;
        made.messageBytes += subject.bytes;
    }
    return made;
}

void addNet(ReportTables& tables, const SnapPort& port, const SnapNet& net) {
    for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        tables.subjects.push_back({&port, &net, &subject});
    }
    addHosts(tables.senders, net);
    tables.groups.push_back(groupOf(port, net));
}

}  // namespace

ReportTables reportTables(const SnapHeader& sum) {
    ReportTables tables;
    for (const SnapPort& port : std::span(sum.ports, sum.portCount)) {
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            addNet(tables, port, net);
        }
        for (const SnapRlHost& host : std::span(port.rlHosts, port.rlHostCount)) {
            tables.retransmission.push_back({&port, &host, nullptr});
        }
        for (const SnapPtpHost& host : std::span(port.ptpHosts, port.ptpHostCount)) {
            tables.pointToPoint.push_back({&port, nullptr, &host});
        }
    }
    addUp(tables.senders);
    return tables;
}
