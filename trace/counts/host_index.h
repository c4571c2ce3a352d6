// An index in which a packet finds the record of a host in one step, by host, net and port
// together, in place of a walk from port to net to host. There is one index for each kind of
// record; trace/counts/statistics.h lists the kinds.
//
// A record has a member `path`. It is entered once, by enterHost, and stays until the index is
// cleared, so a pointer to it stays valid.
//
// Ownership: an index owns neither the records nor their nets and ports.
//
// Threads: under `statsLock`.
//
// Byte order: words in network order.

#pragma once

#include <cstdint>

#include "lib/base/sanitizer.h"
#include "lib/containers/probe_index.h"

// The key of a record: the host, and the net and port under which it is counted.
struct HostPath {
    uint32_t address;
    uint32_t netAddress;  // 0 for records of a port
    uint16_t port;        // the host's: its SCid, or a UDP port
    uint16_t dstPort;

    bool operator==(const HostPath&) const = default;
};

// The shift keeps the factor odd, so that the multiplication loses no bit of the addresses.
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

// Null when there is none.
template <typename Record>
[[nodiscard, gnu::always_inline]] inline Record* findHost(const ProbeIndex& index,
                                                          const HostPath& path) {
    const auto matches = [&path](void* entry) { return static_cast<Record*>(entry)->path == path; };
    return static_cast<Record*>(probeFind(index, hashOfPath(path), matches));
}

// Every packet makes this look-up and waits for memory at each probe, so at least half of the slots
// stay free and nearly every record is found at the first probe.
template <typename Record>
[[nodiscard]] bool enterHost(ProbeIndex& index, Record* record) {
    const bool entered = probeReserve(index, 2 * (index.count + 1), hashOfHost<Record>) &&
                         probeInsert(index, record, hashOfHost<Record>);
    if (entered) leakCheckSkip(record);  // silent ones are known to their slot alone
    return entered;
}

template <typename Record, typename Visit>
void eachHost(const ProbeIndex& index, Visit visit) {
    if (index.slots == nullptr) return;
    for (uint64_t at = 0; at <= index.mask; ++at) {
        void* record = probeEntry(index.slots[at]);
        if (record != nullptr) visit(*static_cast<Record*>(record));
    }
}
