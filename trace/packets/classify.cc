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

OskaExtent settleExtent(const uint8_t* ip, size_t length, uint32_t srcIp) {
    const OskaExtent extent = oskaExtent(ip, length);
    if (extent.bad) complain(Fault::kUdpLengthTooLarge, srcIp);
    return extent;
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
bool checksumFails(const uint8_t* ip, size_t length, const OskaExtent& extent, uint32_t srcIp) {
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

OskaPacket openPacket(const uint8_t* ip, size_t length) {
    const uint32_t srcIp = loadNet32At(ip + kIpSrcOffset);
    const OskaExtent extent = settleExtent(ip, length, srcIp);

    const uint8_t* oska = ip + kOskaOffset;
    OskaPacket packet = {
        .srcIp = srcIp,
        .srcPort = oskaSrcPort(ip),
        .dstIp = loadNet32At(ip + kIpDstOffset),
        .dstPort = loadNet16At(ip + kUdpDstPortOffset),
        .type = static_cast<int16_t>(loadBe16At(oska + kOskaTypeOffset)),
        .header = {{oska, oskaBytes(extent)}},
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
    if (!oskaIsAt(ip, length)) return;

    const OskaPacket packet = openPacket(ip, length);
    ++statistics.oskaPackets;
    dispatch(packet);
}

HostPath senderAhead(const uint8_t* ip, size_t length) {
    if (length < kLeastOskaIpBytes) return {};
    return {loadNet32At(ip + kIpSrcOffset), loadNet32At(ip + kIpDstOffset), oskaSrcPort(ip),
            loadNet16At(ip + kUdpDstPortOffset)};
}

void analyzePacket(TimeSpec time, const uint8_t* ip, size_t length) {
    const LockGuard guard(statsLock);
    classifyPacket(time, ip, length);
}
