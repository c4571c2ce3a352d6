#include "trace/counts/snapshot.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/lock.h"
#include "lib/base/log_pace.h"
#include "trace/counts/charge.h"
#include "trace/counts/host_status.h"
#include "trace/counts/snapshot_storage.h"
#include "trace/counts/statistics.h"

namespace {

constexpr size_t kAreaAlignment = 8;
constexpr uint32_t kSubjectsAhead = 8;

TimeSpec prevTime PELMO_GUARDED_BY(statsLock);

constexpr size_t padded(size_t size, size_t alignment) {
    return (size + alignment - 1) & ~(alignment - 1);
}

// What there is to copy, measured by the first pass.
struct Sizes {
    size_t ports, nets, hosts, rlHosts, ptpHosts, subjects, subjectHosts;
    size_t textBytes;
    size_t statusMsgs, statusBytes;
};

// Returns the subject at `place`. The subjects of a net are scattered in memory, so the one at
// `ahead` is prefetched.
SubjectEntry& nextSubject(const SubjectMap& subjects, uint32_t place, uint32_t ahead) {
    if (ahead < subjects.count) prefetchBytes(subjectMapAt(subjects, ahead), 2 * kCacheLineBytes);
    return subjectAt(subjects, place);
}

// Removes the subjects without traffic; a net without traffic loses all of them. It runs downwards,
// since a removal moves the last subject, which was already visited, to the current place.
void sweepSubjects(NetEntry& net) {
    if (net.liveSubjects == net.subjects.count) return;
    for (uint32_t place = net.subjects.count; place-- > 0;) {
        const uint32_t ahead = place - kSubjectsAhead;  // wraps around at the end
        if (nextSubject(net.subjects, place, ahead).msgs == 0) subjectRemove(net.subjects, place);
    }
}

void countNet(NetEntry& net, Sizes& sizes) {
    sweepSubjects(net);
    if (net.live == 0) return;
    ++sizes.nets;
    sizes.hosts += net.liveHosts.count;
    sizes.statusMsgs += net.statusCount;
    sizes.statusBytes += net.statusUsed;
}

Sizes countAll() {
    Sizes sizes{};
    sizes.subjects = statistics.live.subjects;
    sizes.subjectHosts = statistics.live.senders;
    sizes.textBytes = statistics.live.subjectBytes;
    eachRecord<PortEntry>(statistics.ports, [&](uint32_t, PortEntry& port) {
        if (port.live == 0) return;
        ++sizes.ports;
        eachRecord<NetEntry>(port.nets, [&](uint32_t, NetEntry& net) { countNet(net, sizes); });
        sizes.rlHosts += port.liveRlHosts.count;
        sizes.ptpHosts += port.livePtpHosts.count;
    });
    return sizes;
}

// The places for the next record of each array in the second pass.
struct Places {
    SnapPort* ports;
    SnapNet* nets;
    SnapHost* hosts;
    SnapRlHost* rlHosts;
    SnapPtpHost* ptpHosts;
    SnapSubject* subjects;
    SnapSubjectHost* subjectHosts;
    uint8_t* text;
    const uint8_t** statusMsgs;
    uint8_t* status;
};

template <typename Item>
Item* layOut(uintptr_t& at, size_t count) {
    auto* area = reinterpret_cast<Item*>(at);
    at += padded(count * sizeof(Item), kAreaAlignment);
    return area;
}

// Lays out the areas in their order from address `at`. Returns the address behind them, which for
// `at` 0 is their size.
uintptr_t layOutAreas(uintptr_t at, const Sizes& sizes, Places& places) {
    places.ports = layOut<SnapPort>(at, sizes.ports);
    places.nets = layOut<SnapNet>(at, sizes.nets);
    places.hosts = layOut<SnapHost>(at, sizes.hosts);
    places.rlHosts = layOut<SnapRlHost>(at, sizes.rlHosts);
    places.ptpHosts = layOut<SnapPtpHost>(at, sizes.ptpHosts);
    places.subjects = layOut<SnapSubject>(at, sizes.subjects);
    places.subjectHosts = layOut<SnapSubjectHost>(at, sizes.subjectHosts);
    places.text = layOut<uint8_t>(at, sizes.textBytes);
    places.statusMsgs = layOut<const uint8_t*>(at, sizes.statusMsgs);
    places.status = layOut<uint8_t>(at, sizes.statusBytes);
    return at;
}

// Copies and zeroes the counters. The sender's epoch, sequence number and reliability outlive the
// interval.
void copyHost(HostEntry& host, SnapHost& to) {
    to = {
        .host = host.path.address,
        .port = host.path.port,
        .reliability = host.reliability,
        .bad = host.bad,
        .gaps = host.gaps,
        .data = host.data,
        .bytes = host.bytes,
        .nulls = host.nulls,
        .rdata = host.rdata,
        .rbytes = host.rbytes,
    };
    host.data = host.bytes = host.nulls = host.gaps = host.bad = host.rdata = host.rbytes = 0;
}

template <typename Record, typename Snap>
void copyTwoSidedHost(Record& host, Snap& to) {
    to = {host.path.address, host.path.port, host.counters};
    host.counters = {};
}

// Copies the live senders of a subject to the next places. Returns their count.
uint32_t copySenders(const SubjectEntry& subject, SnapSubjectHost*& place) {
    const SnapSubjectHost* first = place;
    for (SubjectSender& sender : sendersOf(subject)) {
        if (sender.msgs == 0) continue;
        *place++ = {hostKeyAddress(sender.key), hostKeyPort(sender.key), sender.msgs, sender.bytes};
        sender.msgs = sender.bytes = 0;
    }
    return static_cast<uint32_t>(place - first);
}

// Copies the live records to the next places of their array and empties the list. Returns their
// count. The records are scattered in memory, so the next ones are prefetched.
template <typename Record, typename Snap>
uint32_t moveLive(LiveList<Record>& list, Snap*& place, void (*copy)(Record&, Snap&)) {
    constexpr uint32_t kAhead = 8;
    const uint32_t count = std::exchange(list.count, 0);
    for (uint32_t i = 0; i < count; ++i) {
        if (i + kAhead < count) {
            prefetchBytes(reinterpret_cast<uint8_t*>(list.records[i + kAhead]), sizeof(Record));
        }
        Record& record = *list.records[i];
        copy(record, *place++);
        record.live = 0;
    }
    return count;
}

void copySubjects(NetEntry& net, Places& places, SnapNet& to) {
    to.subjects = places.subjects;
    to.subjectCount = net.subjects.count;
    for (uint32_t place = 0; place < net.subjects.count; ++place) {
        SubjectEntry& subject = nextSubject(net.subjects, place, place + kSubjectsAhead);
        const uint8_t* packed = packedSubject(subject);
        std::memcpy(places.text, packed, subjectLength(packed));

        SnapSubject& copy = *places.subjects++;
        copy = {places.text, subject.msgs, subject.bytes, 0, places.subjectHosts};
        places.text += snapSubjectBytes(packed);
        copy.hostCount = copySenders(subject, places.subjectHosts);
        subject.msgs = subject.bytes = 0;
    }
    net.liveSubjects = 0;
}

void copyStatusMessages(NetEntry& net, Places& places, SnapNet& to) {
    to.statusMsgCount = net.statusCount;
    to.statusMsgs = net.statusCount != 0 ? places.statusMsgs : nullptr;
    const uint8_t* from = net.statusBuf;
    for (uint32_t i = 0; i < net.statusCount; ++i) {
        const uint32_t messageBytes = loadBe32At(from);
        std::memcpy(places.status, from, messageBytes);
        *places.statusMsgs++ = places.status;
        from += statusPadded(messageBytes);
        places.status += statusPadded(messageBytes);
    }
    net.statusCount = net.statusUsed = 0;
}

void copyNet(uint32_t address, NetEntry& net, Places& places) {
    SnapNet& to = *places.nets++;
    to = {};
    to.net = address;
    to.hosts = places.hosts;
    to.hostCount = moveLive(net.liveHosts, places.hosts, copyHost);
    copySubjects(net, places, to);
    copyStatusMessages(net, places, to);
    net.live = 0;
}

void copyPort(uint32_t number, PortEntry& port, Places& places) {
    SnapPort& to = *places.ports++;
    to = {};
    to.port = to.servicePort = static_cast<uint16_t>(number);
    to.nets = places.nets;
    eachRecord<NetEntry>(port.nets, [&](uint32_t address, NetEntry& net) {
        if (net.live != 0) copyNet(address, net, places);
    });
    to.netCount = static_cast<uint32_t>(places.nets - to.nets);
    to.rlHosts = places.rlHosts;
    to.rlHostCount = moveLive<RlHostEntry>(port.liveRlHosts, places.rlHosts, copyTwoSidedHost);
    to.ptpHosts = places.ptpHosts;
    to.ptpHostCount = moveLive<PtpHostEntry>(port.livePtpHosts, places.ptpHosts, copyTwoSidedHost);
    port.live = 0;
}

uint64_t faultyPackets(Fault fault) {
    return statistics.faults[static_cast<size_t>(fault)].packets;
}

// Those that didn't reach classification.
uint64_t cutFrames() {
    return faultyPackets(Fault::kEthernetHeaderCut) + faultyPackets(Fault::kIpHeaderCut);
}

void fillHead(SnapHeader& head, TimeSpec time, const Sizes& sizes, const Places& places)
    PELMO_REQUIRES(statsLock) {
    head = {
        .prevTime = prevTime,
        .thisTime = time,
        .frames = statistics.totalPackets + cutFrames(),
        .packets = statistics.totalPackets,
        .oskaPackets = statistics.oskaPackets,
        .source = {},
        .faults = {},
        .beyond = {},
        .portCount = static_cast<uint32_t>(sizes.ports),
        .ports = places.ports,
    };
    prevTime = time;
    std::ranges::copy(statistics.faults, head.faults);
    std::ranges::fill(statistics.faults, FaultCount{});
    statistics.totalPackets = statistics.oskaPackets = 0;
    statistics.live = {};
}

}  // namespace

void snapshotSetStart(TimeSpec time) {
    const LockGuard guard(statsLock);
    prevTime = time;
}

SnapHeader* snapshotTake(TimeSpec time) {
    const LockGuard guard(statsLock);
    chargesSettle();
    const Sizes sizes = countAll();

    Places places{};
    uint8_t* block = snapshotStorage(layOutAreas(sizeof(SnapHeader), sizes, places));
    if (block == nullptr) {
        logPaced("Out of memory allocating snapshot storage");
        return nullptr;
    }

    layOutAreas(reinterpret_cast<uintptr_t>(block) + sizeof(SnapHeader), sizes, places);
    auto* head = reinterpret_cast<SnapHeader*>(block);
    fillHead(*head, time, sizes, places);
    eachRecord<PortEntry>(statistics.ports, [&](uint32_t number, PortEntry& port) {
        if (port.live != 0) copyPort(number, port, places);
    });
    return head;
}
