#include "trace/counts/statistics.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "lib/base/log_pace.h"
#include "trace/counts/snapshot_storage.h"

Lock statsLock = PELMO_LOCK_READY(LockRank::kStats);
Statistics statistics;

namespace {

// Bucket counts at creation.
constexpr uint32_t kPortBuckets = 32;
constexpr uint32_t kNetBuckets = 4;
constexpr uint32_t kTwoSidedBuckets = 4;
constexpr uint32_t kHostBuckets = 256;

// Records are zeroed C storage, so that running out of it is an answer and not an exception.
struct RecordFree {
    void operator()(void* record) const { std::free(record); }
};

template <typename Record>
using Owned = std::unique_ptr<Record, RecordFree>;

template <typename Record>
Owned<Record> makeRecord(const char* what) {
    auto* record = static_cast<Record*>(std::calloc(1, sizeof(Record)));
    if (record == nullptr) logPaced("Out of memory allocating %s entry", what);
    return Owned<Record>(record);
}

// A dictionary of a record that is being made. `made` tells whether all before it were made.
void makeDict(Dict32*& dict, uint32_t buckets, const char* what, bool& made) {
    if (!made) return;
    dict = dict32Create(buckets);
    made = dict != nullptr;
    if (!made) logPaced("Out of memory creating %s dictionary", what);
}

void makeDict(Dict64*& dict, uint32_t buckets, const char* what, bool& made) {
    if (!made) return;
    dict = dict64Create(buckets);
    made = dict != nullptr;
    if (!made) logPaced("Out of memory creating %s dictionary", what);
}

bool stored(pelmoStatus status, const char* what) {
    if (status == kStatusSuccess) return true;
    logPaced("Out of memory storing %s entry", what);
    return false;
}

template <typename Record>
Record* findIn(Dict32* dict, uint32_t key) {
    void* value = nullptr;
    return dict32Find(dict, key, &value) == kStatusSuccess ? static_cast<Record*>(value) : nullptr;
}

template <typename Record>
Record* findIn(Dict64* dict, uint64_t key) {
    void* value = nullptr;
    return dict64Find(dict, key, &value) == kStatusSuccess ? static_cast<Record*>(value) : nullptr;
}

// Finds or creates a record that holds no dictionaries of its own.
template <typename Record>
Record* plainEntry(Dict64* dict, uint64_t key, const char* allocating, const char* storing) {
    if (Record* found = findIn<Record>(dict, key)) return found;
    Owned<Record> made = makeRecord<Record>(allocating);
    if (made == nullptr || !stored(dict64Insert(dict, key, made.get()), storing)) return nullptr;
    return made.release();
}

void freePort(PortEntry* port) {
    dict32Destroy(port->nets);
    dict64Destroy(port->rlHosts);
    dict64Destroy(port->ptpHosts);
    std::free(port);
}

void freeNet(NetEntry* net) {
    dict64Destroy(net->hosts);
    probeClear(net->hostIndex);
    subjectsClear(net->subjects);
    std::free(net->statusBuf);
    std::free(net);
}

void freeRecords(Dict64* dict) {
    eachRecord<void*>(dict, [](uint64_t, void*& record) { std::free(&record); });
}

PortEntry* createPort(uint16_t dstPort) {
    Owned<PortEntry> made = makeRecord<PortEntry>("port");
    if (made == nullptr) return nullptr;

    PortEntry* port = made.release();
    bool whole = true;
    makeDict(port->nets, kNetBuckets, "net", whole);
    makeDict(port->rlHosts, kTwoSidedBuckets, "host RL", whole);
    makeDict(port->ptpHosts, kTwoSidedBuckets, "host PTP", whole);
    if (whole && stored(dict32Insert(statistics.ports, dstPort, port), "port")) return port;
    freePort(port);
    return nullptr;
}

NetEntry* createNet(PortEntry& port, uint32_t dstIp) {
    Owned<NetEntry> made = makeRecord<NetEntry>("net");
    if (made == nullptr) return nullptr;

    NetEntry* net = made.release();
    net->subjects.pool = &statistics.subjectLines;
    net->subjects.headBytes = sizeof(SubjectEntry);
    bool whole = true;
    makeDict(net->hosts, kHostBuckets, "host", whole);
    if (whole && stored(dict32Insert(port.nets, dstIp, net), "net")) return net;
    freeNet(net);
    return nullptr;
}

uint32_t hashOfHost(const void* host) {
    return probeHashKey(static_cast<const HostEntry*>(host)->key);
}

// Room in the index is made first: then only the dictionary can refuse the record.
HostEntry* createHost(NetEntry& net, uint64_t key) {
    Owned<HostEntry> made = makeRecord<HostEntry>("host");
    if (made == nullptr) return nullptr;
    made->key = key;
    const bool room = probeReserve(net.hostIndex, net.hostIndex.count + 1, hashOfHost);
    const pelmoStatus status = room ? dict64Insert(net.hosts, key, made.get()) : kStatusNoMemory;
    if (!stored(status, "host")) return nullptr;
    (void)probeInsert(net.hostIndex, made.get(), hashOfHost);
    return made.release();
}

void freeWholeNet(NetEntry* net) {
    freeRecords(net->hosts);
    freeNet(net);
}

void freeWholePort(PortEntry* port) {
    eachRecord<NetEntry>(port->nets, [](uint32_t, NetEntry& net) { freeWholeNet(&net); });
    freeRecords(port->rlHosts);
    freeRecords(port->ptpHosts);
    freePort(port);
}

}  // namespace

pelmoStatus statsInit() {
    if (!snapshotStorageInit()) return kStatusNoMemory;
    statistics.ports = dict32Create(kPortBuckets);
    return statistics.ports != nullptr ? kStatusSuccess : kStatusNoMemory;
}

void statsDestroy() {
    if (statistics.ports != nullptr) {
        eachRecord<PortEntry>(statistics.ports,
                              [](uint32_t, PortEntry& port) { freeWholePort(&port); });
        dict32Destroy(statistics.ports);
    }
    linePoolClear(statistics.subjectLines);
    statistics = {};
    snapshotStorageFree();
}

PortEntry* portEntry(uint16_t dstPort) {
    PortEntry* found = findIn<PortEntry>(statistics.ports, dstPort);
    return found != nullptr ? found : createPort(dstPort);
}

NetEntry* netEntry(PortEntry& port, uint32_t dstIp) {
    NetEntry* found = findIn<NetEntry>(port.nets, dstIp);
    return found != nullptr ? found : createNet(port, dstIp);
}

HostEntry* hostEntry(NetEntry& net, uint32_t srcIp, uint16_t srcPort) {
    const uint64_t key = hostKey(srcIp, srcPort);
    const auto matches = [key](void* host) { return static_cast<HostEntry*>(host)->key == key; };
    void* found = probeFind(net.hostIndex, probeHashKey(key), matches);
    return found != nullptr ? static_cast<HostEntry*>(found) : createHost(net, key);
}

RlHostEntry* rlHostEntry(PortEntry& port, uint32_t address, uint16_t udpPort) {
    const uint64_t key = hostKey(address, udpPort);
    return plainEntry<RlHostEntry>(port.rlHosts, key, "ptp host", "ptp host");
}

PtpHostEntry* ptpHostEntry(PortEntry& port, uint32_t address, uint16_t udpPort) {
    const uint64_t key = hostKey(address, udpPort);
    return plainEntry<PtpHostEntry>(port.ptpHosts, key, "ptp host", "ptp host");
}

SenderAhead prefetchSenderSlot(uint16_t dstPort, uint32_t dstIp, uint64_t senderKey) {
    const auto* port = findIn<PortEntry>(statistics.ports, dstPort);
    if (port == nullptr) return {};
    const auto* net = findIn<NetEntry>(port->nets, dstIp);
    if (net == nullptr) return {};
    const uint32_t hash = probeHashKey(senderKey);
    probePrefetchSlot(net->hostIndex, hash);
    return {net, hash};
}

void prefetchSender(const SenderAhead& ahead) {
    if (ahead.net == nullptr) return;
    probePrefetchEntry(ahead.net->hostIndex, ahead.hostHash, offsetof(HostEntry, bad));
}
