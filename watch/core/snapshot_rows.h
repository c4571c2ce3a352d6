// The rows of a Snapshot: the walk over them, and what names one in whatever is kept by rows.
//
//     snapshot -> ports -> nets -> hosts
//                       |       -> subjects -> senders
//                       -> hosts of retransmission, hosts of point-to-point
//
// Ownership: nothing; spans and keys point into the Snapshot.
//
// Threads: any; no state.

#pragma once

#include <cstdint>
#include <span>

#include "trace/counts/snapshot.h"
#include "watch/core/fields.h"

enum class BusTable : uint8_t { kMulticast, kRetransmission, kPointToPoint, kSubjects };

// One row, or the sum of all rows of a group, port or subject where it names no host. In the words
// of the Snapshot; what the table doesn't have is 0.
struct RowKey {
    BusTable table = BusTable::kMulticast;
    bool hasHost = false;
    uint16_t port = 0;
    uint16_t scid = 0;
    uint32_t group = 0;
    uint32_t host = 0;
    const uint8_t* subject = nullptr;  // packed; null but for kSubjects
};

// Seeded by the process, so that no sender can make two keys share one.
[[nodiscard]] uint64_t rowKeyHash(const RowKey& key);

[[nodiscard]] bool rowKeysAreSame(const RowKey& left, const RowKey& right);

// The key of a host's row in the table of the other key.
template <typename Host>
[[nodiscard]] RowKey rowKeyOfHost(RowKey key, const Host& host) {
    key.hasHost = true;
    key.host = host.host;
    key.scid = host.port;
    return key;
}

[[nodiscard]] inline std::span<const SnapPort> portsOf(const SnapHeader& snapshot) {
    return {snapshot.ports, snapshot.portCount};
}

[[nodiscard]] inline std::span<const SnapNet> netsOf(const SnapPort& port) {
    return {port.nets, port.netCount};
}

[[nodiscard]] inline std::span<const SnapHost> hostsOf(const SnapNet& net) {
    return {net.hosts, net.hostCount};
}

[[nodiscard]] inline std::span<const SnapSubject> subjectsOf(const SnapNet& net) {
    return {net.subjects, net.subjectCount};
}

[[nodiscard]] inline std::span<const SnapSubjectHost> sendersOf(const SnapSubject& subject) {
    return {subject.hosts, subject.hostCount};
}

[[nodiscard]] inline std::span<const SnapRlHost> rlHostsOf(const SnapPort& port) {
    return {port.rlHosts, port.rlHostCount};
}

[[nodiscard]] inline std::span<const SnapPtpHost> ptpHostsOf(const SnapPort& port) {
    return {port.ptpHosts, port.ptpHostCount};
}

// Calls visit(port, net) for each net.
template <typename Visit>
void eachNet(const SnapHeader& snapshot, Visit visit) {
    for (const SnapPort& port : portsOf(snapshot)) {
        for (const SnapNet& net : netsOf(port)) {
            visit(port, net);
        }
    }
}

// Calls visit(key, fields, record) for each host of the net. The fields are those of
// watch/core/fields.h, which the record has.
template <typename Visit>
void eachHostRow(const SnapPort& port, const SnapNet& net, Visit visit) {
    const RowKey key{.port = port.port, .group = net.net};
    for (const SnapHost& host : hostsOf(net)) {
        visit(rowKeyOfHost(key, host), kMulticastFields, host);
    }
}

// Calls visit(key, subject) for each subject of the net.
template <typename Visit>
void eachSubjectRow(const SnapPort& port, const SnapNet& net, Visit visit) {
    RowKey key{.table = BusTable::kSubjects, .port = port.port, .group = net.net};
    for (const SnapSubject& subject : subjectsOf(net)) {
        key.subject = subject.subject;
        visit(key, subject);
    }
}

// Calls visit(key, fields, record) for the hosts of the port's two tables that have no nets.
template <typename Visit>
void eachHostRow(const SnapPort& port, Visit visit) {
    const RowKey retransmission{.table = BusTable::kRetransmission, .port = port.port};
    for (const SnapRlHost& host : rlHostsOf(port)) {
        visit(rowKeyOfHost(retransmission, host), kRetransmissionFields, host.counters);
    }
    const RowKey pointToPoint{.table = BusTable::kPointToPoint, .port = port.port};
    for (const SnapPtpHost& host : ptpHostsOf(port)) {
        visit(rowKeyOfHost(pointToPoint, host), kPointToPointFields, host.counters);
    }
}
