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

// Records come from calloc, so that running out of memory is a null pointer and not an exception.
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

void freePort(PortEntry* port) {
    dict32Destroy(port->nets);
    liveFree(port->listedNets);
    liveFree(port->liveRlHosts);
    liveFree(port->livePtpHosts);
    std::free(port);
}

void freeNet(NetEntry* net) {
    liveFree(net->liveHosts);
    subjectsClear(net->subjects);
    std::free(net->statusBuf);
    std::free(net);
}

PortEntry* createPort(uint16_t dstPort) {
    Owned<PortEntry> made = makeRecord<PortEntry>("port");
    if (made == nullptr) return nullptr;

    PortEntry* port = made.release();
    port->nets = dict32Create(kNetBuckets);
    if (port->nets == nullptr) logPaced("Out of memory creating net dictionary");
    if (port->nets != nullptr && stored(dict32Insert(statistics.ports, dstPort, port), "port"))
        return port;
    freePort(port);
    return nullptr;
}

NetEntry* createNet(PortEntry& port, uint32_t dstIp) {
    Owned<NetEntry> made = makeRecord<NetEntry>("net");
    if (made == nullptr) return nullptr;

    NetEntry* net = made.release();
    net->address = dstIp;
    net->port = &port;
    net->subjects.pool = &statistics.subjectLines;
    net->subjects.headBytes = sizeof(SubjectEntry);
    const bool listable = liveReserve(port.listedNets);
    if (!stored(listable ? dict32Insert(port.nets, dstIp, net) : kStatusNoMemory, "net")) {
        freeNet(net);
        return nullptr;
    }
    ++port.listedNets.members;
    return net;
}

// Creates a record that may join its parent's list of live records.
template <typename Record>
Record* createHost(ProbeIndex& index,
                   LiveList<Record>& list,
                   const HostPath& path,
                   const char* what) {
    Owned<Record> made = makeRecord<Record>(what);
    if (made == nullptr) return nullptr;
    made->path = path;
    const bool entered = liveReserve(list) && enterHost(index, made.get());
    if (!stored(entered ? kStatusSuccess : kStatusNoMemory, what)) return nullptr;
    ++list.members;
    return made.release();
}

HostEntry* createSender(const HostPath& path) {
    PortEntry* port = portEntry(path.dstPort);
    if (port == nullptr) return nullptr;
    NetEntry* net = netEntry(*port, path.netAddress);
    if (net == nullptr) return nullptr;
    HostEntry* host = createHost(statistics.hosts, net->liveHosts, path, "host");
    if (host != nullptr) host->net = net;
    return host;
}

template <typename Record>
Record* createTwoSided(ProbeIndex& index, LiveList<Record> PortEntry::*list, const HostPath& path) {
    PortEntry* port = portEntry(path.dstPort);
    if (port == nullptr) return nullptr;
    Record* host = createHost(index, port->*list, path, "ptp host");
    if (host != nullptr) host->port = port;
    return host;
}

template <typename Record>
void freeHosts(ProbeIndex& index) {
    eachHost<Record>(index, [](Record& host) { std::free(&host); });
    probeClear(index);
}

void freeWholePort(PortEntry* port) {
    eachRecord<NetEntry>(port->nets, [](uint32_t, NetEntry& net) { freeNet(&net); });
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
    freeHosts<HostEntry>(statistics.hosts);
    freeHosts<RlHostEntry>(statistics.rlHosts);
    freeHosts<PtpHostEntry>(statistics.ptpHosts);
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

HostEntry* hostEntry(const HostPath& path) {
    HostEntry* found = knownHost(path);
    return found != nullptr ? found : createSender(path);
}

RlHostEntry* rlHostEntry(const HostPath& path) {
    auto* found = findHost<RlHostEntry>(statistics.rlHosts, path);
    return found != nullptr ? found
                            : createTwoSided(statistics.rlHosts, &PortEntry::liveRlHosts, path);
}

PtpHostEntry* ptpHostEntry(const HostPath& path) {
    auto* found = findHost<PtpHostEntry>(statistics.ptpHosts, path);
    return found != nullptr ? found
                            : createTwoSided(statistics.ptpHosts, &PortEntry::livePtpHosts, path);
}

void markLive(HostEntry& host) {
    if (host.live != 0) return;
    NetEntry& net = *host.net;
    liveJoin(net.liveHosts, host);
    net.live = net.port->live = 1;
    if (net.listed) return;
    net.listed = true;
    LiveList<NetEntry>& list = net.port->listedNets;
    list.records[list.count++] = &net;
}

void markLive(RlHostEntry& host) {
    liveJoin(host.port->liveRlHosts, host);
    host.port->live = 1;
}

void markLive(PtpHostEntry& host) {
    liveJoin(host.port->livePtpHosts, host);
    host.port->live = 1;
}
