// Tables of connections by a number: the address of the peer, the local id. The hashes are seeded
// by the process, so that outsiders cannot choose addresses that share a bucket.
//
// Ownership: keys and connections are borrowed, and a key outlives its entry.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <cstdint>

#include "lib/containers/hash.h"
#include "lib/containers/probe_index.h"
#include "lib/transport/reliable/peer.h"

struct ReliableConnection;

[[nodiscard]] inline uint64_t keyOfPeer(const PeerAddress& peer) {
    return uint64_t{peer.address} << 16 | peer.port;
}

[[nodiscard]] inline ReliableConnection* keyTableFind(const Hash* table, uint64_t key) {
    return static_cast<ReliableConnection*>(hashFind(table, &key, sizeof key, probeHashKey(key)));
}

// False when memory ran out.
[[nodiscard]] inline bool keyTablePut(Hash* table,
                                      const uint64_t* key,
                                      ReliableConnection* connection) {
    return hashPut(table, key, sizeof *key, probeHashKey(*key), false, connection);
}

inline void keyTableRemove(Hash* table, uint64_t key) {
    (void)hashPut(table, &key, sizeof key, probeHashKey(key), false, nullptr);
}
