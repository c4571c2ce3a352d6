#include "trace/packets/classify.h"

#include <cstring>

#include "lib/base/lock.h"
#include "trace/counts/statistics.h"
#include "trace/packets/checksum.h"
#include "trace/packets/inspection.h"
#include "trace/packets/multicast.h"
#include "trace/packets/oska.h"
#include "trace/packets/ptp.h"
#include "trace/packets/retrans.h"

namespace {

constexpr uint8_t kProtocolUdp = 17;

constexpr size_t kIpTotalLengthOffset = 2;
constexpr size_t kIpProtocolOffset = 9;
constexpr size_t kIpSrcOffset = 12;
constexpr size_t kIpDstOffset = 16;
constexpr size_t kUdpOffset = 20;
constexpr size_t kUdpDstPortOffset = kUdpOffset + 2;
constexpr size_t kUdpLengthOffset = kUdpOffset + 4;
constexpr size_t kUdpChecksumOffset = kUdpOffset + 6;
constexpr size_t kOskaOffset = kUdpOffset + 8;

constexpr size_t kUdpHeaderBytes = 8;
constexpr size_t kLeastOskaBytes = 20;  // below this not even the type is in hand

// Where the packet ends within the bytes in hand.
struct Extent {
    size_t endOffset;  // from the IP header
    bool complete;     // the whole datagram is in hand
    bool bad;
};

Extent settleExtent(const uint8_t* ip, size_t length, uint32_t srcIp) {
    const size_t datagramEnd = kUdpOffset + loadBe16At(ip + kUdpLengthOffset);
    if (datagramEnd > loadBe16At(ip + kIpTotalLengthOffset)) {
        complain(Fault::kUdpLengthTooLarge, srcIp);
        return {length, true, true};
    }
    if (length < datagramEnd) return {length, false, false};
    return {datagramEnd, true, false};
}

// One pass over addresses and datagram, its checksum field included. The addresses of the
// pseudo-header are right before the UDP header; its other two words are the protocol and once
// more the length.
bool checksumHolds(const uint8_t* ip, size_t udpLength) {
    uint32_t sum = uint32_t{hostOrder16(kProtocolUdp)} + loadNet16At(ip + kUdpLengthOffset);
    return udpChecksum(ip + kIpSrcOffset, kUdpOffset - kIpSrcOffset + udpLength, &sum) == 0xffff;
}

// A datagram that isn't wholly in hand, or whose length is less than its own header's, has nothing
// sound to sum: the first is no fault, and the others are bad in any case.
bool checksumFails(const uint8_t* ip, size_t length, const Extent& extent, uint32_t srcIp) {
    const uint16_t stored = loadNet16At(ip + kUdpChecksumOffset);
    if (stored == 0) {
        complain(Fault::kUdpChecksumMissing, srcIp);
        return true;
    }

    const size_t udpLength = loadBe16At(ip + kUdpLengthOffset);
    const bool sound = udpLength >= kUdpHeaderBytes && kUdpOffset + udpLength <= length;
    if (!extent.complete || !sound || checksumHolds(ip, udpLength)) return false;
    complain(Fault::kUdpChecksumInvalid, srcIp);
    return true;
}

// Ahead of the checksum, which is the work that the trips for the sender's record go on beside.
HostEntry* knownSender(const OskaPacket& packet) {
    const bool isMulticast = packet.type == kOskaData || packet.type == kOskaNull;
    return isMulticast ? knownHost(senderPath(packet)) : nullptr;
}

// The SCid, or 0 for a sender that has none.
uint16_t srcPortOf(const uint8_t* ip) {
    const uint32_t epoch = loadBe32At(ip + kOskaOffset + kOskaEpochOffset);
    return (epoch & kOskaEpochHasScid) != 0 ? loadNet16At(ip + kUdpOffset) : uint16_t{0};
}

OskaPacket openPacket(const uint8_t* ip, size_t length) {
    const uint32_t srcIp = loadNet32At(ip + kIpSrcOffset);
    const Extent extent = settleExtent(ip, length, srcIp);

    const uint8_t* oska = ip + kOskaOffset;
    const size_t packetBytes = extent.endOffset > kOskaOffset ? extent.endOffset - kOskaOffset : 0;
    OskaPacket packet = {
        .srcIp = srcIp,
        .srcPort = srcPortOf(ip),
        .dstIp = loadNet32At(ip + kIpDstOffset),
        .dstPort = loadNet16At(ip + kUdpDstPortOffset),
        .type = static_cast<int16_t>(loadBe16At(oska + kOskaTypeOffset)),
        .header = {{oska, packetBytes}},
        .complete = extent.complete,
        .bad = extent.bad,
        .sender = nullptr,
    };
    packet.sender = knownSender(packet);
    if (checksumFails(ip, length, extent, srcIp)) packet.bad = true;
    return packet;
}

void dispatch(const OskaPacket& packet) {
    switch (packet.type) {
        case kOskaData:
            return dataHandle(packet);
        case kOskaNull:
            return nullHandle(packet);
        case kOskaRreq:
        case kOskaRrej:
            return retransHandle(packet);
        case kOskaPtpData:
        case kOskaPtpAckme:
        case kOskaPtpAck:
        case kOskaPtpNak:
            return ptpHandle(packet);
        default:
            return unknownTypeHandle(packet);
    }
}

}  // namespace

void classifyPacket(TimeSpec time, const uint8_t* ip, size_t length) {
    ++statistics.totalPackets;
    statistics.packetTime = time;
    if (length <= kIpProtocolOffset || ip[kIpProtocolOffset] != kProtocolUdp) return;
    if (length < kOskaOffset) {
        complain(Fault::kUdpHeaderCut, loadNet32({{ip, length}}, kIpSrcOffset));
        return;
    }
    if (length < kOskaOffset + kLeastOskaBytes) return;
    if (loadBe32At(ip + kOskaOffset) != kOskaMagic) return;

    const OskaPacket packet = openPacket(ip, length);
    ++statistics.oskaPackets;
    dispatch(packet);
}

HostPath senderAhead(const uint8_t* ip, size_t length) {
    if (length < kOskaOffset + kLeastOskaBytes) return {};
    return {loadNet32At(ip + kIpSrcOffset), loadNet32At(ip + kIpDstOffset), srcPortOf(ip),
            loadNet16At(ip + kUdpDstPortOffset)};
}

void analyzePacket(TimeSpec time, const uint8_t* ip, size_t length) {
    const LockGuard guard(statsLock);
    classifyPacket(time, ip, length);
}
