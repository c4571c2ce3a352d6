#include "trace/capture/frame.h"

#include <span>

#include "lib/base/bytes.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "trace/capture/capture_file.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/statistics.h"
#include "trace/settings.h"

namespace {

constexpr size_t kSourceMacOffset = 6;
constexpr size_t kIpHeaderBytes = 20;

using Bytes = std::span<const uint8_t>;

void saveFrame(const pcap_pkthdr* header, const u_char* bytes) {
    const LockGuard guard(statsLock);
    captureFileSave(*header, bytes);
}

void countFault(Fault fault, TimeSpec time) {
    const LockGuard guard(statsLock);
    faultCount(statistics.faults, fault, time, 0);
}

void reportNoIpHeader(Bytes frame, size_t leftBytes) {
    const uint8_t* const destination = frame.data();
    const uint8_t* const source = frame.data() + kSourceMacOffset;
    logPrint(
        "%s\n"
        "    Length: %d\n"
        "    Source: %02x:%02x:%02x:%02x:%02x:%02x\n"
        "    Dest:   %02x:%02x:%02x:%02x:%02x:%02x",
        faultRow(Fault::kIpHeaderCut).format, static_cast<int>(leftBytes), source[0], source[1],
        source[2], source[3], source[4], source[5], destination[0], destination[1], destination[2],
        destination[3], destination[4], destination[5]);
}

// The result is empty where the frame is too small to have one.
Bytes findIpPacket(Bytes frame, TimeSpec time) {
    if (frame.size() < kEthernetHeaderBytes) {
        countFault(Fault::kEthernetHeaderCut, time);
        if (!traceSettings.logCutFrames) return {};
        logPrint("%s", faultRow(Fault::kEthernetHeaderCut).format);
        return {};
    }

    const bool isEthernet = loadBe16At(frame.data() + kEthertypeOffset) == kEthertypeIp;
    const Bytes ip = isEthernet ? frame.subspan(kEthernetHeaderBytes) : frame;
    if (ip.size() < kIpHeaderBytes) {
        countFault(Fault::kIpHeaderCut, time);
        if (traceSettings.logCutFrames) reportNoIpHeader(frame, ip.size());
        return {};
    }
    return ip;
}

// A capture file may claim any time: one before 1970 or beyond 2038, or a million microseconds and
// more. It is cut to the width of the fields.
TimeSpec packetTime(const timeval& stamp) {
    const auto microseconds = static_cast<uint32_t>(stamp.tv_usec);
    return {static_cast<int32_t>(stamp.tv_sec), microseconds * 1000};
}

}  // namespace

FrameTaker frameTaker = frameAnalyze;

void frameAnalyze(const pcap_pkthdr& header, const u_char* bytes, PacketHandler packetHandler) {
    const TimeSpec time = packetTime(header.ts);
    const Bytes ip = findIpPacket({bytes, header.caplen}, time);
    if (!ip.empty()) packetHandler(time, ip.data(), ip.size());
}

void frameHandler(u_char* user, const pcap_pkthdr* header, const u_char* bytes) {
    if (captureShuttingDown()) return;
    if (captureState.savingFrames) saveFrame(header, bytes);
    const auto* context = reinterpret_cast<const CaptureContext*>(user);
    frameTaker(*header, bytes, context->packetHandler);
}
