#include "trace/packets/multicast.h"

#include <bit>

#include "trace/counts/statistics.h"
#include "trace/packets/inspection.h"
#include "trace/packets/scan.h"

namespace {

constexpr size_t kNullHeaderBytes = 24;
constexpr size_t kReliableNullHeaderBytes = 32;

constexpr uint16_t kFragmentWhole = 0;
constexpr uint16_t kFragmentRunsOn = 1;

// The record that the packet counts under, marked live before every check: even a packet that
// proves too short brings its sender into the report. Null if memory ran out.
HostEntry* findSender(const OskaPacket& packet) {
    HostEntry* host = packet.sender != nullptr ? packet.sender : hostEntry(senderPath(packet));
    if (host != nullptr) markLive(*host);
    return host;
}

// False where the scan found a fault.
bool scanData(const HostEntry& sender, const OskaPacket& packet) {
    const uint16_t fragment = loadBe16(packet.header, kOskaFragmentOffset);
    if (fragment > kFragmentRunsOn) return true;
    const bool strict = packet.complete && fragment == kFragmentWhole;
    const auto payload = packet.header.left.subspan(kOskaDataHeaderBytes);
    return scanMessages({*sender.net, packet.srcIp, packet.srcPort, strict}, payload) == 0;
}

// Counts new or repeated data. False where the scan of new data found a fault.
bool countData(HostEntry& host, const OskaPacket& packet, uint32_t dataBytes) {
    const uint32_t epoch = loadBe32(packet.header, kOskaEpochOffset);
    const uint32_t seq = loadBe32(packet.header, kOskaSeqOffset);
    if (epoch != host.epoch) {
        host.epoch = epoch;
        host.lastSeq = seq - 1;
    }

    // A sender that numbers from 0 leaves `lastSeq` at its top: all of its packets count as
    // repeated until its next epoch.
    if (seq <= host.lastSeq) {
        ++host.rdata;
        host.rbytes += dataBytes;
        return true;
    }
    host.gaps += seq - host.lastSeq - 1;
    ++host.data;
    host.bytes += dataBytes;
    host.lastSeq = seq;
    return scanData(host, packet);
}

void followNull(HostEntry& host, uint32_t epoch, uint32_t seq) {
    if (epoch != host.epoch) {
        host.epoch = epoch;
        host.lastSeq = seq;
    } else if (seq > host.lastSeq) {
        host.gaps += seq - host.lastSeq;
        host.lastSeq = seq;
    }
}

}  // namespace

void dataHandle(const OskaPacket& packet) {
    HostEntry* sender = findSender(packet);
    if (sender == nullptr) return;

    Inspection inspection{packet, "data", packet.bad};
    if (!headerInHand(inspection, "data", kOskaDataHeaderBytes)) {
        if (packet.complete) ++sender->bad;
        return;
    }
    checkSrc(inspection);
    checkDstGroup(inspection);
    const uint32_t dataBytes = checkDataLength(inspection);

    const bool sound = countData(*sender, packet, dataBytes);
    if (inspection.bad || !sound) ++sender->bad;
}

void nullHandle(const OskaPacket& packet) {
    HostEntry* sender = findSender(packet);
    if (sender == nullptr) return;

    Inspection inspection{packet, "null", packet.bad};
    const bool reliable = packet.header.left.size() != kNullHeaderBytes;
    if (reliable && !headerInHand(inspection, "null", kReliableNullHeaderBytes)) {
        if (packet.complete) ++sender->bad;
        return;
    }
    checkSrc(inspection);
    checkDstGroup(inspection);

    HostEntry& host = *sender;
    if (reliable) {
        host.reliability = std::bit_cast<double>(loadBe64(packet.header, kOskaReliabilityOffset));
    }
    followNull(host, loadBe32(packet.header, kOskaEpochOffset),
               loadBe32(packet.header, kOskaSeqOffset));
    ++host.nulls;
    if (inspection.bad) ++host.bad;
}

void unknownTypeHandle(const OskaPacket& packet) {
    HostEntry* sender = findSender(packet);
    if (sender == nullptr) return;
    complain(Fault::kTypeInvalid, packet.srcIp, int{packet.type});
    ++sender->bad;
}
