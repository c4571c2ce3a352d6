// Where a packet finds the record of a host in one step: by host, net and port at once, in place of
// a walk from port to net to host. One index serves all records of a kind; the kinds are listed in
// trace/counts/statistics.h.
//
// A record has a member `path`. It is entered once, by enterHost, and stays until the index is
// cleared: nothing that a packet was told of it goes stale.
//
// Ownership: an index owns neither the records nor what they belong to.
//
// Threads: under `statsLock`.
//
// Byte order: words in network order.

#pragma once

#include <cstdint>

#include "lib/containers/probe_index.h"

// Names a record: the host, and what it is counted under.
struct HostPath {
    uint32_t address;
    uint32_t netAddress;  // 0 where it plays no part
    uint16_t port;        // the host's: its SCid, or a UDP port
    uint16_t dstPort;

    bool operator==(const HostPath&) const = default;
};

// The factor stays odd, so that it loses no bit of the addresses.
[[nodiscard]] inline uint32_t hashOfPath(const HostPath& path) {
    const uint64_t addresses = uint64_t{path.address} << 32 | path.netAddress;
    const uint64_t ports = uint64_t{path.port} << 16 | path.dstPort;
    return static_cast<uint32_t>(
        probeMix(addresses ^ probeSeed.first, ports << 1 ^ probeSeed.second));
}

template <typename Record>
uint32_t hashOfHost(const void* record) {
    return hashOfPath(static_cast<const Record*>(record)->path);
}

// Null where there is none.
template <typename Record>
[[nodiscard, gnu::always_inline]] inline Record* findHost(const ProbeIndex& index,
                                                          const HostPath& path) {
    const auto matches = [&path](void* entry) { return static_cast<Record*>(entry)->path == path; };
    return static_cast<Record*>(probeFind(index, hashOfPath(path), matches));
}

// Every packet comes here and can't tell one probe from the next: at least half of the slots stay
// free, so that nearly all are found at the first.
template <typename Record>
[[nodiscard]] bool enterHost(ProbeIndex& index, Record* record) {
    return probeReserve(index, 2 * (index.count + 1), hashOfHost<Record>) &&
           probeInsert(index, record, hashOfHost<Record>);
}

template <typename Record, typename Visit>
void eachHost(const ProbeIndex& index, Visit visit) {
    if (index.slots == nullptr) return;
    for (uint64_t at = 0; at <= index.mask; ++at) {
        void* record = probeEntry(index.slots[at]);
        if (record != nullptr) visit(*static_cast<Record*>(record));
    }
}
