// Packets between two hosts: six types of two families that differ in a word, a header, a check and
// the counters that they move. Each packet is counted twice, in the record of its source and in
// that of its destination; these may be the same record.
//
// Threads: under `statsLock`.

#pragma once

#include <cstddef>
#include <cstdint>

#include "trace/counts/statistics.h"
#include "trace/packets/inspection.h"
#include "trace/packets/oska.h"

template <typename Counters>
struct TwoSidedType {
    int16_t type;
    const char* word;        // what messages call the packet
    const char* headerWord;  // and its header
    size_t headerBytes;
    void (*checkDst)(Inspection& inspection);
    uint64_t Counters::*sent;
    uint64_t Counters::*recv;

    // Reads and checks what the packet carries besides, requests or bytes; null for most types.
    uint32_t (*checkAmount)(Inspection& inspection);
    uint64_t Counters::*amountSent;
    uint64_t Counters::*amountRecv;
};

// `find` finds or creates a record of the family.
template <typename Counters, typename Entry>
void twoSidedHandle(const TwoSidedType<Counters>& type,
                    const OskaPacket& packet,
                    Entry* (*find)(const HostPath& path)) {
    Entry* source = find({packet.srcIp, 0, packet.srcPort, packet.dstPort});
    if (source == nullptr) return;
    Entry* destination = find({packet.dstIp, 0, packet.dstPort, packet.dstPort});
    if (destination == nullptr) return;

    // Ahead of every check: even a packet that proves too short brings its hosts into the report.
    markLive(*source);
    markLive(*destination);

    Inspection inspection{packet, type.word, packet.bad};
    if (!headerInHand(inspection, type.headerWord, type.headerBytes)) {
        if (packet.complete) ++source->counters.badSent;
        return;
    }
    checkSrc(inspection);
    type.checkDst(inspection);

    ++(source->counters.*type.sent);
    ++(destination->counters.*type.recv);
    if (type.checkAmount != nullptr) {
        const uint32_t amount = type.checkAmount(inspection);
        source->counters.*type.amountSent += amount;
        destination->counters.*type.amountRecv += amount;
    }
    if (inspection.bad) {
        ++source->counters.badSent;
        ++destination->counters.badRecv;
    }
}
