#include "watch/core/totals.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

#include "lib/containers/probe_index.h"
#include "lib/containers/subject.h"
#include "trace/counts/snapshot_totals.h"
#include "watch/core/snapshot_rows.h"
#include "watch/core/span.h"

namespace {

uint32_t hashOf(uint64_t key, uint32_t parent) {
    return static_cast<uint32_t>(probeMix(key ^ probeSeed.first, parent ^ probeSeed.second));
}

uint64_t keyOf(uint32_t address, uint16_t port) {
    return uint64_t{address} << 16 | port;
}

uint32_t findPort(Totals& totals, const SnapPort& port) {
    const uint32_t hash = hashOf(port.port, 0);
    uint32_t at = rowFind(totals.ports, hash,
                          [&](const TotalPort& row) { return row.sum.port == port.port; });
    if (at == kNoRow) {
        TotalPort row{.hash = hash, .sum = {}};
        row.sum.port = port.port;
        at = rowAdd(totals.ports, row, totals.mostRows);
    }
    if (at != kNoRow) totals.ports.rows[at].sum.servicePort = port.servicePort;
    return at;
}

uint32_t findNet(Totals& totals, uint32_t port, uint32_t address) {
    if (port == kNoRow) return kNoRow;
    const uint32_t hash = hashOf(address, port);
    const uint32_t at = rowFind(totals.nets, hash, [&](const TotalNet& row) {
        return row.parent == port && row.sum.net == address;
    });
    if (at != kNoRow) return at;
    TotalNet row{.hash = hash, .parent = port, .place = 0, .sum = {}};
    row.sum.net = address;
    return rowAdd(totals.nets, row, totals.mostRows);
}

// The row of a host below its parent, whose record has nothing but its key where it is new; null
// where there can't be one.
template <typename Record>
Record* findHost(RowTable<TotalHost<Record>>& table,
                 uint32_t mostRows,
                 uint32_t parent,
                 const Record& host) {
    if (parent == kNoRow) return nullptr;
    const uint32_t hash = hashOf(keyOf(host.host, host.port), parent);
    uint32_t at = rowFind(table, hash, [&](const TotalHost<Record>& row) {
        return row.parent == parent && row.sum.host == host.host && row.sum.port == host.port;
    });
    if (at == kNoRow) {
        TotalHost<Record> row{.hash = hash, .parent = parent, .sum = {}};
        row.sum.host = host.host;
        row.sum.port = host.port;
        at = rowAdd(table, row, mostRows);
    }
    return at != kNoRow ? &table.rows[at].sum : nullptr;
}

// A comparison may read so many bytes of a subject, however short it is.
constexpr size_t kCompareBytes = 8;

// Appends the packed subject. False when memory runs out.
bool keepText(Totals& totals, const uint8_t* subject) {
    const size_t length = subjectLength(subject);
    if (totals.textCapacity - totals.textBytes < length + kCompareBytes) {
        const size_t capacity = std::max<size_t>(64 << 10, 2 * totals.textCapacity);
        void* const texts = std::realloc(totals.texts, capacity);
        if (texts == nullptr) return false;
        totals.texts = static_cast<uint8_t*>(texts);
        totals.textCapacity = capacity;
    }
    std::memcpy(totals.texts + totals.textBytes, subject, length);
    totals.textBytes += length;
    return true;
}

uint32_t findSubject(Totals& totals, uint32_t net, const uint8_t* subject) {
    if (net == kNoRow) return kNoRow;
    const size_t length = subjectLength(subject);
    const uint32_t hash = hashOf(subjectHash(subject), net);
    const uint32_t at = rowFind(totals.subjects, hash, [&](const TotalSubject& row) {
        return row.parent == net && subjectIs(totals.texts + row.textAt, subject, length);
    });
    if (at != kNoRow) return at;
    const size_t textAt = totals.textBytes;
    if (!keepText(totals, subject)) return kNoRow;
    const TotalSubject row{.hash = hash, .parent = net, .textAt = textAt, .place = 0, .sum = {}};
    const uint32_t added = rowAdd(totals.subjects, row, totals.mostRows);
    if (added == kNoRow) totals.textBytes = textAt;
    return added;
}

void addSender(Totals& totals, uint32_t subject, const SnapSubjectHost& sender) {
    const uint32_t hash = hashOf(keyOf(sender.host, sender.port), subject);
    uint32_t at = rowFind(totals.senders, hash, [&](const TotalSender& row) {
        return row.parent == subject && row.sum.host == sender.host && row.sum.port == sender.port;
    });
    if (at == kNoRow) {
        const SnapSubjectHost none{sender.host, sender.port, 0, 0};
        at = rowAdd(totals.senders, {.hash = hash, .parent = subject, .sum = none},
                    kTotalsMostSenders);
    }
    if (at == kNoRow) return;  // its subject has it in its sum
    totals.senders.rows[at].sum.msgs += sender.msgs;
    totals.senders.rows[at].sum.bytes += sender.bytes;
}

void addSubject(Totals& totals, uint32_t net, const SnapSubject& subject) {
    const uint32_t at = findSubject(totals, net, subject.subject);
    if (at == kNoRow) {
        totals.head.beyond.subjects.msgs += subject.msgs;
        totals.head.beyond.subjects.bytes += subject.bytes;
        return;
    }
    totals.subjects.rows[at].sum.msgs += subject.msgs;
    totals.subjects.rows[at].sum.bytes += subject.bytes;
    for (const SnapSubjectHost& sender : sendersOf(subject)) {
        addSender(totals, at, sender);
    }
}

void addNet(Totals& totals, uint32_t port, const SnapNet& net) {
    const uint32_t at = findNet(totals, port, net.net);
    for (const SnapHost& host : hostsOf(net)) {
        SnapHost* const sum = findHost(totals.hosts, totals.mostRows, at, host);
        addCounters(sum != nullptr ? *sum : totals.head.beyond.multicast, host);
        if (sum != nullptr) sum->reliability = host.reliability;
    }
    for (const SnapSubject& subject : subjectsOf(net)) {
        addSubject(totals, at, subject);
    }
}

void addPort(Totals& totals, const SnapPort& port) {
    const uint32_t at = findPort(totals, port);
    for (const SnapNet& net : netsOf(port)) {
        addNet(totals, at, net);
    }
    for (const SnapRlHost& host : rlHostsOf(port)) {
        SnapRlHost* const sum = findHost(totals.rlHosts, totals.mostRows, at, host);
        addCounters(sum != nullptr ? sum->counters : totals.head.beyond.retransmission,
                    host.counters);
    }
    for (const SnapPtpHost& host : ptpHostsOf(port)) {
        SnapPtpHost* const sum = findHost(totals.ptpHosts, totals.mostRows, at, host);
        addCounters(sum != nullptr ? sum->counters : totals.head.beyond.pointToPoint,
                    host.counters);
    }
}

void addFaults(FaultCounts& sums, const FaultCounts& counts) {
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        if (counts[kind].packets == 0) continue;
        if (sums[kind].packets == 0) sums[kind].first = counts[kind].first;
        sums[kind].packets += counts[kind].packets;
        sums[kind].last = counts[kind].last;
        sums[kind].lastSender = counts[kind].lastSender;
    }
}

// The whole run's length has the silence in it.
void addSpan(SnapSpan& sum, const SnapSpan& span) {
    sum.elapsedNanoseconds += span.elapsedNanoseconds + span.skippedNanoseconds;
    sum.skippedNanoseconds += span.skippedNanoseconds;
    sum.stepNanoseconds += span.stepNanoseconds;
}

// From the earliest to the latest: a clock may have been set back.
void coverSpan(Totals& totals, const SnapHeader& snapshot) {
    const bool isFirst = !std::exchange(totals.hasBegun, true);
    SnapHeader& head = totals.head;
    const auto isBefore = [](TimeSpec left, TimeSpec right) {
        return nanosecondsOf(left) < nanosecondsOf(right);
    };
    if (isFirst || isBefore(snapshot.prevTime, head.prevTime)) head.prevTime = snapshot.prevTime;
    if (isFirst || isBefore(head.thisTime, snapshot.thisTime)) head.thisTime = snapshot.thisTime;
}

void addHead(Totals& totals, const SnapHeader& snapshot) {
    SnapHeader& head = totals.head;
    coverSpan(totals, snapshot);
    addSpan(head.span, snapshot.span);
    head.frames += snapshot.frames;
    head.packets += snapshot.packets;
    head.oskaPackets += snapshot.oskaPackets;
    head.source.kernelDrops += snapshot.source.kernelDrops;
    head.source.interfaceDrops += snapshot.source.interfaceDrops;
    for (size_t reason = 0; reason < kSnapNotReadKinds; ++reason)
        head.source.notRead[reason] += snapshot.source.notRead[reason];
    head.source.readBytes = snapshot.source.readBytes;
    head.source.fileBytes = snapshot.source.fileBytes;
    addFaults(head.faults, snapshot.faults);
}

// The arrays of the Snapshot, one after the other.
struct Layout {
    SnapHeader* head;
    SnapPort* ports;
    SnapNet* nets;
    SnapHost* hosts;
    SnapRlHost* rlHosts;
    SnapPtpHost* ptpHosts;
    SnapSubject* subjects;
    SnapSubjectHost* senders;
};

template <typename Item>
Item* layOut(uintptr_t& at, size_t count) {
    auto* const area = reinterpret_cast<Item*>(at);
    at += count * sizeof(Item);
    static_assert(sizeof(Item) % 8 == 0);
    return area;
}

// Returns the address after all, which for `at` 0 is the size.
uintptr_t layOutAll(uintptr_t at, const Totals& totals, Layout& layout) {
    layout.head = layOut<SnapHeader>(at, 1);
    layout.ports = layOut<SnapPort>(at, totals.ports.count);
    layout.nets = layOut<SnapNet>(at, totals.nets.count);
    layout.hosts = layOut<SnapHost>(at, totals.hosts.count);
    layout.rlHosts = layOut<SnapRlHost>(at, totals.rlHosts.count);
    layout.ptpHosts = layOut<SnapPtpHost>(at, totals.ptpHosts.count);
    layout.subjects = layOut<SnapSubject>(at, totals.subjects.count);
    layout.senders = layOut<SnapSubjectHost>(at, totals.senders.count);
    return at;
}

bool makeRoom(Totals& totals, size_t sizeBytes) {
    if (sizeBytes <= totals.blockBytes) return true;
    void* const block = std::realloc(totals.block, sizeBytes);
    if (block == nullptr) return false;
    totals.block = block;
    totals.blockBytes = sizeBytes;
    return true;
}

// Gives each parent its slice of the area, and each row its place there: first each parent's rows
// are counted, then the area is cut, then rows go in. `parentOf` is a row's parent in the Snapshot.
template <typename Row, typename Parent, typename Record, typename ParentOf, typename Placed>
void distribute(RowTable<Row>& table,
                std::span<Parent> parents,
                Record* Parent::*slice,
                uint32_t Parent::*count,
                Record* area,
                ParentOf parentOf,
                Placed placed) {
    for (const Row& row : rowsOf(table)) {
        ++(parentOf(row).*count);
    }
    Record* next = area;
    for (Parent& parent : parents) {
        parent.*slice = next;
        next += parent.*count;
        parent.*count = 0;
    }
    for (Row& row : rowsOf(table)) {
        Parent& parent = parentOf(row);
        Record& record = (parent.*slice)[(parent.*count)++];
        record = row.sum;
        placed(row, record);
    }
}

void fill(Totals& totals, const Layout& layout) {
    *layout.head = totals.head;
    layout.head->portCount = totals.ports.count;
    layout.head->ports = layout.ports;

    const std::span ports(layout.ports, totals.ports.count);
    const std::span nets(layout.nets, totals.nets.count);
    const std::span subjects(layout.subjects, totals.subjects.count);
    const auto portOf = [&](const auto& row) -> SnapPort& { return ports[row.parent]; };
    const auto netOf = [&](const auto& row) -> SnapNet& {
        return nets[totals.nets.rows[row.parent].place];
    };
    const auto subjectOf = [&](const TotalSender& row) -> SnapSubject& {
        return subjects[totals.subjects.rows[row.parent].place];
    };
    const auto nothing = [](const auto&, const auto&) {};
    const auto netPlaced = [&](TotalNet& row, const SnapNet& net) {
        row.place = static_cast<uint32_t>(&net - layout.nets);
    };
    const auto subjectPlaced = [&](TotalSubject& row, SnapSubject& subject) {
        row.place = static_cast<uint32_t>(&subject - layout.subjects);
        subject.subject = totals.texts + row.textAt;
    };

    for (uint32_t at = 0; at < totals.ports.count; ++at) {
        ports[at] = totals.ports.rows[at].sum;
    }
    distribute(totals.nets, ports, &SnapPort::nets, &SnapPort::netCount, layout.nets, portOf,
               netPlaced);
    distribute(totals.rlHosts, ports, &SnapPort::rlHosts, &SnapPort::rlHostCount, layout.rlHosts,
               portOf, nothing);
    distribute(totals.ptpHosts, ports, &SnapPort::ptpHosts, &SnapPort::ptpHostCount,
               layout.ptpHosts, portOf, nothing);
    distribute(totals.hosts, nets, &SnapNet::hosts, &SnapNet::hostCount, layout.hosts, netOf,
               nothing);
    distribute(totals.subjects, nets, &SnapNet::subjects, &SnapNet::subjectCount, layout.subjects,
               netOf, subjectPlaced);
    distribute(totals.senders, subjects, &SnapSubject::hosts, &SnapSubject::hostCount,
               layout.senders, subjectOf, nothing);
}

}  // namespace

void totalsAdd(Totals& totals, const SnapHeader& snapshot) {
    addHead(totals, snapshot);
    for (const SnapPort& port : portsOf(snapshot)) {
        addPort(totals, port);
    }
}

SnapHeader* totalsSnapshot(Totals& totals) {
    Layout layout{};
    if (!makeRoom(totals, layOutAll(0, totals, layout))) return nullptr;
    layOutAll(reinterpret_cast<uintptr_t>(totals.block), totals, layout);
    fill(totals, layout);
    snapshotSort(layout.head);
    return layout.head;
}

void totalsFree(Totals& totals) {
    rowsFree(totals.ports);
    rowsFree(totals.nets);
    rowsFree(totals.hosts);
    rowsFree(totals.rlHosts);
    rowsFree(totals.ptpHosts);
    rowsFree(totals.subjects);
    rowsFree(totals.senders);
    std::free(totals.texts);
    std::free(totals.block);
    totals = {};
}
