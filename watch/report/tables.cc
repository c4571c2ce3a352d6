#include "watch/report/tables.h"

#include <algorithm>
#include <numeric>
#include <span>
#include <tuple>

#include "trace/counts/snapshot_totals.h"
#include "watch/core/snapshot_rows.h"
#include "watch/report/largest.h"

namespace {

constexpr size_t kLargestOfEach = 5;

// What a host has in one group or on one subject, before it is added up.
ReportSender senderOf(uint32_t host, uint16_t scid) {
    ReportSender made = {};
    made.sum.host = host;
    made.sum.port = scid;
    return made;
}

void addHosts(std::vector<ReportSender>& senders, const SnapNet& net) {
    for (const SnapHost& host : hostsOf(net)) {
        ReportSender& made = senders.emplace_back(senderOf(host.host, host.port));
        addCounters(made.sum, host);
    }
    for (const SnapSubject& subject : subjectsOf(net)) {
        for (const SnapSubjectHost& host : sendersOf(subject)) {
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
                        .sum = sumOfHosts(hostsOf(net)),
                        .messages = 0,
                        .messageBytes = 0};
    for (const SnapSubject& subject : subjectsOf(net)) {
        made.messages += subject.msgs;
        made.messageBytes += subject.bytes;
    }
    return made;
}

void addNet(ReportTables& tables, const SnapPort& port, const SnapNet& net, bool withPairs) {
    for (const SnapSubject& subject : subjectsOf(net)) {
        tables.subjects.push_back({&port, &net, &subject, tables.pairs.size()});
        if (!withPairs) continue;
        for (const SnapSubjectHost& sender : sendersOf(subject))
            tables.pairs.push_back({&port, &net, &subject, &sender});
    }
    addHosts(tables.senders, net);
    tables.groups.push_back(groupOf(port, net));
}

uint64_t bytesOf(const ReportPair& pair) {
    return pair.sender->bytes;
}

uint64_t messagesOf(const ReportPair& pair) {
    return pair.sender->msgs;
}

// The largest pairs of each listed subject.
void appendOfSubjects(std::vector<uint32_t>& numbers,
                      const ReportTables& tables,
                      std::span<const uint32_t> subjects) {
    for (const uint32_t number : subjects) {
        const ReportSubject& row = tables.subjects[number];
        const std::span pairs(tables.pairs.data() + row.firstPair, row.subject->hostCount);
        const size_t before = numbers.size();
        appendLargest(numbers, pairs, kLargestOfEach, bytesOf);
        for (size_t at = before; at < numbers.size(); ++at)
            numbers[at] += static_cast<uint32_t>(row.firstPair);
    }
}

// The largest pairs of each listed sender. Senders are sorted by their hosts.
void appendOfSenders(std::vector<uint32_t>& numbers,
                     const ReportTables& tables,
                     std::span<const uint32_t> senders) {
    std::vector<uint32_t> all(tables.pairs.size());
    std::iota(all.begin(), all.end(), 0U);
    const auto host = [&](uint32_t number) {
        const SnapSubjectHost& sender = *tables.pairs[number].sender;
        return std::tuple(sender.host, sender.port);
    };
    std::ranges::sort(all, {}, [&](uint32_t number) {
        return std::tuple(host(number), ~bytesOf(tables.pairs[number]), number);
    });
    for (const uint32_t number : senders) {
        const ReportSender& row = tables.senders[number];
        const auto key = std::tuple(row.sum.host, row.sum.port);
        const auto begin = std::ranges::lower_bound(all, key, {}, host);
        const auto end = std::ranges::upper_bound(all, key, {}, host);
        const auto count = std::min<std::ptrdiff_t>(end - begin, kLargestOfEach);
        numbers.insert(numbers.end(), begin, begin + count);
    }
}

}  // namespace

std::vector<uint32_t> listedPairs(const ReportTables& tables,
                                  std::span<const uint32_t> subjects,
                                  std::span<const uint32_t> senders) {
    std::vector<uint32_t> numbers =
        largestRows(std::span(tables.pairs), kLargestRows, bytesOf, messagesOf);
    appendOfSubjects(numbers, tables, subjects);
    appendOfSenders(numbers, tables, senders);
    std::ranges::sort(numbers);
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}

ReportTables reportTables(const SnapHeader& sum, bool withPairs) {
    ReportTables tables;
    for (const SnapPort& port : portsOf(sum)) {
        for (const SnapNet& net : netsOf(port)) {
            addNet(tables, port, net, withPairs);
        }
        for (const SnapRlHost& host : rlHostsOf(port)) {
            tables.retransmission.push_back({&port, &host, nullptr});
        }
        for (const SnapPtpHost& host : ptpHostsOf(port)) {
            tables.pointToPoint.push_back({&port, nullptr, &host});
        }
    }
    addUp(tables.senders);
    return tables;
}
