// The statistics of the tool: one tree of records, built as traffic is seen. The first packet that
// names a port, a destination address, a host or a subject makes its record; packet handlers count
// in place; the snapshot copies what had traffic and zeroes its counters.
//
//     ports:  dstPort -> PortEntry
//               nets:     dstIp -> NetEntry
//                           (srcIp, srcPort) -> HostEntry
//                           subjects: packed subject -> SubjectEntry (trace/counts/subjects.h)
//               (address, UDP port) -> RlHostEntry
//               (address, UDP port) -> PtpHostEntry
//
// A packet starts at the other end: it finds the record of its host in an index, one for each kind,
// which leads to the host's net and port (trace/counts/host_index.h).
//
// Ownership: the tree owns its records and lives until the process ends. Only subjects are ever
// removed: by the first snapshot that finds them without traffic while their port is live.
//
// Failure: each find-or-create returns null when memory runs out, after logging which record or
// dictionary it was for; nothing half-made stays. The caller drops the packet, and the next packet
// tries again.
//
// Liveness: a handler marks the host, its net and its port live before it checks the packet's own
// header, and the snapshot clears these marks together. So the net and port of a live host are live
// too and needn't be read. Only live records are reported.
//
// Threads: all of it under `statsLock`.
//
// Byte order: addresses and ports are words in network order, in records and in keys alike.
// Counters are packets unless their name says bytes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "lib/base/lock.h"
#include "lib/base/status.h"
#include "lib/containers/dict.h"
#include "trace/counts/charge_pipeline.h"
#include "trace/counts/faults.h"
#include "trace/counts/host_index.h"
#include "trace/counts/subjects.h"
#include "trace/counts/two_sided_counters.h"

struct NetEntry;
struct HostEntry;
struct RlHostEntry;
struct PtpHostEntry;

// The records of one kind under one parent that had traffic since the last snapshot, so that the
// next one visits only those. A record joins when its `live` goes from 0 to 1. Room is made when a
// record is created, so joining can't fail. A list owns its array, not the records; zeroed, it is
// empty and usable.
template <typename Record>
struct LiveList {
    Record** records;
    uint32_t count;
    uint32_t members;   // records that may join
    uint32_t capacity;  // at least `members`
};

// Makes room for one more member. False when memory runs out; the list is then unchanged.
template <typename Record>
[[nodiscard]] bool liveReserve(LiveList<Record>& list) {
    constexpr uint32_t kFirstCapacity = 4;
    if (list.members < list.capacity) return true;
    const uint32_t capacity = list.capacity == 0 ? kFirstCapacity : list.capacity * 2;
    void* records = std::realloc(list.records, capacity * sizeof(Record*));
    if (records == nullptr) return false;
    list.records = static_cast<Record**>(records);
    list.capacity = capacity;
    return true;
}

template <typename Record>
void liveJoin(LiveList<Record>& list, Record& record) {
    if (record.live != 0) return;
    record.live = 1;
    list.records[list.count++] = &record;
}

template <typename Record>
void liveFree(LiveList<Record>& list) {
    std::free(list.records);
    list = {};
}

struct PortEntry {
    uint32_t live;
    Dict32* nets;
    LiveList<NetEntry> listedNets;  // those that are live or have subjects
    LiveList<RlHostEntry> liveRlHosts;
    LiveList<PtpHostEntry> livePtpHosts;
};

struct NetEntry {
    uint32_t live;
    uint32_t address;  // dstIp
    PortEntry* port;
    bool listed;  // in its port's listedNets
    LiveList<HostEntry> liveHosts;
    SubjectMap subjects;
    uint32_t liveSubjects;

    // Host status messages kept for the next snapshot, one after the other, each on a 4-byte
    // boundary and in its wire form, whose first word is its length.
    uint8_t* statusBuf;
    uint32_t statusCapacity;  // bytes
    uint32_t statusUsed;      // bytes
    uint32_t statusCount;     // messages
};

// One sender of multicast packets under a net. The fields that sound data and null packets use come
// first, in one cache line.
struct HostEntry {
    HostPath path;
    uint32_t live;
    NetEntry* net;

    // State of the sender, which outlives snapshots.
    uint32_t epoch;      // last epoch word, host order
    uint32_t lastSeq;    // highest sequence number of this epoch
    double reliability;  // from the last null packet that carried it

    // Counters of the interval.
    uint64_t data, bytes;
    uint64_t nulls;
    uint64_t gaps;  // sequence numbers missed
    uint64_t bad;
    uint64_t rdata, rbytes;  // repeated data: at or below lastSeq
};

static_assert(offsetof(HostEntry, gaps) == kCacheLineBytes);

// One host's part in retransmission control under a port.
struct RlHostEntry {
    HostPath path;
    uint32_t live;
    PortEntry* port;
    RlCounters counters;
};

// The same for point-to-point traffic.
struct PtpHostEntry {
    HostPath path;
    uint32_t live;
    PortEntry* port;
    PtpCounters counters;
};

// Guards the statistics and, while capture runs, the capture file.
extern Lock statsLock;

// Counts of what is live and will be copied by the next snapshot.
struct LiveCounts {
    size_t subjects;
    size_t subjectBytes;  // of their packed forms in a Snapshot
    size_t senders;       // of subjects
};

struct Statistics {
    Dict32* ports;
    ProbeIndex hosts, rlHosts, ptpHosts;  // of all ports
    uint32_t totalPackets;                // reached classification since the last snapshot
    uint32_t oskaPackets;                 // of these, those with the magic number
    TimeSpec packetTime;                  // of the packet that is being classified
    LiveCounts live;
    LinePool subjectLines;  // of all nets' subjects
    ChargePipeline charges;
    FaultCounts faults;  // since the last snapshot
};

extern Statistics statistics;

// Key of the 64-bit dictionaries: the address is the high half.
[[nodiscard]] inline uint64_t hostKey(uint32_t address, uint16_t port) {
    return uint64_t{address} << 32 | port;
}

[[nodiscard]] inline uint32_t hostKeyAddress(uint64_t key) {
    return static_cast<uint32_t>(key >> 32);
}

[[nodiscard]] inline uint16_t hostKeyPort(uint64_t key) {
    return static_cast<uint16_t>(key);
}

// Called once, before everything else here. kStatusNoMemory if anything can't be allocated.
[[nodiscard]] pelmoStatus statsInit();

// Frees the tree, even if statsInit failed. For programs that build more than one tree: tests,
// fuzzing.
void statsDestroy();

[[nodiscard]] PortEntry* portEntry(uint16_t dstPort);
[[nodiscard]] NetEntry* netEntry(PortEntry& port, uint32_t dstIp);

// Find or create a record, together with its port and net. For records of a port the net is 0.
[[nodiscard]] HostEntry* hostEntry(const HostPath& path);
[[nodiscard]] RlHostEntry* rlHostEntry(const HostPath& path);
[[nodiscard]] PtpHostEntry* ptpHostEntry(const HostPath& path);

// Finds the record of a host before hostEntry, so that its memory accesses start early; null when
// hostEntry would create it. It marks nothing live.
[[nodiscard]] inline HostEntry* knownHost(const HostPath& path) {
    return findHost<HostEntry>(statistics.hosts, path);
}

// Marks the record live, with its net and port.
void markLive(HostEntry& host);
void markLive(RlHostEntry& host);
void markLive(PtpHostEntry& host);

// Calls visit(key, record) for each record of a dictionary, in the dictionary's order.
template <typename Record, typename Visit>
void eachRecord(Dict64* dict, Visit visit) {
    Dict64Iterator iterator;
    uint64_t key = 0;
    void* record = nullptr;
    dict64IterInit(dict, &iterator);
    while (dict64IterNext(&iterator, &key, &record)) {
        visit(key, *static_cast<Record*>(record));
    }
}

template <typename Record, typename Visit>
void eachRecord(Dict32* dict, Visit visit) {
    Dict32Iterator iterator;
    uint32_t key = 0;
    void* record = nullptr;
    dict32IterInit(dict, &iterator);
    while (dict32IterNext(&iterator, &key, &record)) {
        visit(key, *static_cast<Record*>(record));
    }
}

// The bytes that a packed subject takes in a Snapshot.
[[nodiscard]] inline size_t snapSubjectBytes(const uint8_t* subject) {
    return (subjectLength(subject) + 3) & ~size_t{3};
}
