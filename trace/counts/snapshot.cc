#include "trace/counts/snapshot.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
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

// What a part of a snapshot has room for at least, where there is so much: so that each part gets
// on, and fits into the block that there is from the start.
constexpr size_t kLeastRecords = 16;
constexpr size_t kLeastBytes = 4096;
static_assert(kLeastBytes >= kSubjectMaxBytes);
constexpr unsigned kMostHalvings = 32;

TimeSpec prevTime PELMO_GUARDED_BY(statsLock);

constexpr size_t padded(size_t size, size_t alignment) {
    return (size + alignment - 1) & ~(alignment - 1);
}

// What there is to copy, measured by the first pass; in the second, what there is room for.
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
        for (NetEntry* net : std::span(port.listedNets.records, port.listedNets.count)) {
            countNet(*net, sizes);
        }
        sizes.rlHosts += port.liveRlHosts.count;
        sizes.ptpHosts += port.livePtpHosts.count;
    });
    return sizes;
}

size_t halved(size_t size, unsigned times, size_t least) {
    return std::max(size >> times, std::min(size, least));
}

Sizes halved(const Sizes& sizes, unsigned times) {
    return {
        .ports = halved(sizes.ports, times, kLeastRecords),
        .nets = halved(sizes.nets, times, kLeastRecords),
        .hosts = halved(sizes.hosts, times, kLeastRecords),
        .rlHosts = halved(sizes.rlHosts, times, kLeastRecords),
        .ptpHosts = halved(sizes.ptpHosts, times, kLeastRecords),
        .subjects = halved(sizes.subjects, times, kLeastRecords),
        .subjectHosts = halved(sizes.subjectHosts, times, kLeastRecords),
        .textBytes = halved(sizes.textBytes, times, kLeastBytes),
        .statusMsgs = halved(sizes.statusMsgs, times, kLeastRecords),
        .statusBytes = halved(sizes.statusBytes, times, kLeastBytes),
    };
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
    Sizes room;  // of records and bytes that still fit
};

template <typename Item>
Item* layOut(uintptr_t& at, size_t count) {
    auto* area = reinterpret_cast<Item*>(at);
    at += padded(count * sizeof(Item), kAreaAlignment);
    return area;
}

// Lays out the areas in their order from address `at`. Returns the address after them, which for
// `at` 0 is their size.
uintptr_t layOutAreas(uintptr_t at, const Sizes& sizes, Places& places) {
    places.room = sizes;
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

// Copies the live senders of a subject to the next places. Returns their count. In a part of a
// snapshot those without room are left out: one subject may have more than there ever is room for.
uint32_t copySenders(const SubjectEntry& subject, Places& places) {
    const SnapSubjectHost* first = places.subjectHosts;
    for (HostSubjEntry& sender : sendersOf(subject)) {
        if (sender.msgs == 0) continue;
        if (places.room.subjectHosts != 0) {
            --places.room.subjectHosts;
            *places.subjectHosts++ = {hostKeyAddress(sender.key), hostKeyPort(sender.key),
                                      sender.msgs, sender.bytes};
        }
        sender.msgs = sender.bytes = 0;
        --statistics.live.senders;
    }
    return static_cast<uint32_t>(places.subjectHosts - first);
}

// Takes the live records that there is room for off the list, and copies them to the next places of
// their array. Returns their count. The records are scattered in memory, so the next ones are
// prefetched.
template <typename Record, typename Snap>
uint32_t moveLive(LiveList<Record>& list,
                  Snap*& place,
                  size_t& room,
                  void (*copy)(Record&, Snap&)) {
    constexpr uint32_t kAhead = 8;
    const auto count = static_cast<uint32_t>(std::min<size_t>(list.count, room));
    list.count -= count;
    room -= count;
    Record** const records = list.records + list.count;
    for (uint32_t i = 0; i < count; ++i) {
        if (i + kAhead < count) {
            prefetchBytes(reinterpret_cast<uint8_t*>(records[i + kAhead]), sizeof(Record));
        }
        Record& record = *records[i];
        copy(record, *place++);
        record.live = 0;
    }
    return count;
}

// Behind the first pass all subjects of a net are live.
void copySubjects(NetEntry& net, Places& places, SnapNet& to) {
    Sizes& room = places.room;
    const auto most = static_cast<uint32_t>(std::min<size_t>(net.subjects.count, room.subjects));
    to.subjects = places.subjects;
    for (uint32_t place = 0; place < most; ++place) {
        SubjectEntry& subject = nextSubject(net.subjects, place, place + kSubjectsAhead);
        const uint8_t* packed = packedSubject(subject);
        const size_t textBytes = snapSubjectBytes(packed);
        if (textBytes > room.textBytes) break;
        room.textBytes -= textBytes;
        std::memcpy(places.text, packed, subjectLength(packed));

        SnapSubject& copy = *places.subjects++;
        copy = {places.text, subject.msgs, subject.bytes, 0, places.subjectHosts};
        places.text += textBytes;
        if (subject.senders != nullptr) copy.hostCount = copySenders(subject, places);
        subject.msgs = subject.bytes = 0;
        statistics.live.subjectBytes -= textBytes;
    }
    to.subjectCount = static_cast<uint32_t>(places.subjects - to.subjects);
    room.subjects -= to.subjectCount;
    net.liveSubjects -= to.subjectCount;
    statistics.live.subjects -= to.subjectCount;
}

// Those without room move to the front of the net's buffer.
void copyStatusMessages(NetEntry& net, Places& places, SnapNet& to) {
    Sizes& room = places.room;
    const uint8_t** const first = places.statusMsgs;
    const uint8_t* from = net.statusBuf;
    while (net.statusCount != 0) {
        const uint32_t messageBytes = loadBe32At(from);
        const uint32_t paddedBytes = statusPadded(messageBytes);
        if (room.statusMsgs == 0 || paddedBytes > room.statusBytes) break;
        std::memcpy(places.status, from, messageBytes);
        *places.statusMsgs++ = places.status;
        from += paddedBytes;
        places.status += paddedBytes;
        --room.statusMsgs;
        room.statusBytes -= paddedBytes;
        --net.statusCount;
        net.statusUsed -= paddedBytes;
        ++to.statusMsgCount;
    }
    to.statusMsgs = to.statusMsgCount != 0 ? first : nullptr;
    if (net.statusCount != 0) std::memmove(net.statusBuf, from, net.statusUsed);
}

void copyNet(NetEntry& net, Places& places) {
    SnapNet& to = *places.nets++;
    --places.room.nets;
    to = {};
    to.net = net.address;
    to.hosts = places.hosts;
    to.hostCount = moveLive(net.liveHosts, places.hosts, places.room.hosts, copyHost);
    copySubjects(net, places, to);
    copyStatusMessages(net, places, to);
    net.live = net.liveHosts.count != 0 || net.liveSubjects != 0 || net.statusCount != 0;
}

// Returns whether all of them were copied whole. A net stays listed while it has anything for the
// next snapshot to copy or to remove.
bool copyNets(PortEntry& port, Places& places) {
    LiveList<NetEntry>& list = port.listedNets;
    bool whole = true;
    for (uint32_t i = 0, count = std::exchange(list.count, 0); i < count; ++i) {
        NetEntry& net = *list.records[i];
        if (net.live != 0 && places.room.nets != 0) copyNet(net, places);
        if (net.live != 0) whole = false;
        net.listed = net.live != 0 || net.subjects.count != 0;
        if (net.listed) list.records[list.count++] = &net;
    }
    return whole;
}

void copyPort(uint32_t number, PortEntry& port, Places& places) {
    Sizes& room = places.room;
    if (room.ports == 0) return;
    --room.ports;
    SnapPort& to = *places.ports++;
    to = {};
    to.port = to.servicePort = static_cast<uint16_t>(number);
    to.nets = places.nets;
    const bool whole = copyNets(port, places);
    to.netCount = static_cast<uint32_t>(places.nets - to.nets);
    to.rlHosts = places.rlHosts;
    to.rlHostCount =
        moveLive<RlHostEntry>(port.liveRlHosts, places.rlHosts, room.rlHosts, copyTwoSidedHost);
    to.ptpHosts = places.ptpHosts;
    to.ptpHostCount =
        moveLive<PtpHostEntry>(port.livePtpHosts, places.ptpHosts, room.ptpHosts, copyTwoSidedHost);
    port.live = !whole || port.liveRlHosts.count != 0 || port.livePtpHosts.count != 0;
}

uint64_t faultyPackets(Fault fault) {
    return statistics.faults[static_cast<size_t>(fault)].packets;
}

// Those that didn't reach classification.
uint64_t cutFrames() {
    return faultyPackets(Fault::kEthernetHeaderCut) + faultyPackets(Fault::kIpHeaderCut);
}

void fillHead(SnapHeader& head, TimeSpec time, const Places& places) PELMO_REQUIRES(statsLock) {
    head = {
        .prevTime = prevTime,
        .thisTime = time,
        .span = {},
        .frames = statistics.totalPackets + cutFrames(),
        .packets = statistics.totalPackets,
        .oskaPackets = statistics.oskaPackets,
        .source = {},
        .faults = {},
        .beyond = {},
        .portCount = static_cast<uint32_t>(places.room.ports),
        .ports = places.ports,
    };
    prevTime = time;
    std::ranges::copy(statistics.faults, head.faults);
    std::ranges::fill(statistics.faults, FaultCount{});
    statistics.totalPackets = statistics.oskaPackets = 0;
}

// The block with its places for all there is to copy, or for the largest part of it that there is
// memory for. Null when there is none for the least.
uint8_t* makeRoom(const Sizes& sizes, Places& places) {
    for (unsigned times = 0; times <= kMostHalvings; ++times) {
        const Sizes room = halved(sizes, times);
        uint8_t* const block = snapshotStorage(layOutAreas(sizeof(SnapHeader), room, places));
        if (block != nullptr) {
            layOutAreas(reinterpret_cast<uintptr_t>(block) + sizeof(SnapHeader), room, places);
            return block;
        }
        if (times == 0) logPaced("Out of memory allocating snapshot storage");
    }
    return nullptr;
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
    uint8_t* const block = makeRoom(sizes, places);
    if (block == nullptr) return nullptr;

    auto* head = reinterpret_cast<SnapHeader*>(block);
    fillHead(*head, time, places);
    eachRecord<PortEntry>(statistics.ports, [&](uint32_t number, PortEntry& port) {
        if (port.live != 0) copyPort(number, port, places);
    });
    return head;
}
