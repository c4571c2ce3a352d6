#include "trace/packets/inspection.h"

#include <cstdio>

#include "lib/base/log.h"
#include "trace/counts/statistics.h"
#include "trace/settings.h"

namespace {

constexpr uint32_t kAddressNone = 0;
constexpr uint32_t kAddressAll = 0xffffffff;

bool isMulticast(uint32_t address) {
    return hostOrder32(address) >> 28 == 0xe;
}

uint32_t srcOf(const Inspection& inspection) {
    return loadNet32(inspection.packet.header, kOskaSrcOffset);
}

uint32_t dstOf(const Inspection& inspection) {
    return loadNet32(inspection.packet.header, kOskaDstOffset);
}

void addressFault(Inspection& inspection, Fault fault, uint32_t address) {
    inspection.bad = true;
    complain(fault, inspection.packet.srcIp, inspection.word, address);
}

// The arguments are those of the fault's format.
template <typename... Arguments>
void countAndTell(Fault fault, uint32_t srcIp, Arguments... arguments) {
    faultCount(statistics.faults, fault, statistics.packetTime, srcIp);
    if (!traceSettings.complain) return;
    const FaultRow& row = faultRow(fault);
    char text[128];  // the longest takes under 80
    if constexpr (sizeof...(arguments) == 0) {
        std::snprintf(text, sizeof text, "%s", row.format);
    } else {
        std::snprintf(text, sizeof text, row.format, arguments...);
    }
    if (row.line == FaultLine::kMessage) {
        logPrint("Invalid message from %s - %s", ipToText(srcIp), text);
    } else {
        logPrint("%s from %s", text, ipToText(srcIp));
    }
}

}  // namespace

void complain(Fault fault, uint32_t srcIp) {
    countAndTell(fault, srcIp);
}

void complain(Fault fault, uint32_t srcIp, int type) {
    countAndTell(fault, srcIp, type);
}

void complain(Fault fault, uint32_t srcIp, const char* word) {
    countAndTell(fault, srcIp, word);
}

void complain(Fault fault, uint32_t srcIp, const char* word, const char* header) {
    countAndTell(fault, srcIp, word, header);
}

void complain(Fault fault, uint32_t srcIp, const char* word, int length) {
    countAndTell(fault, srcIp, word, length);
}

void complain(Fault fault, uint32_t srcIp, const char* word, uint32_t address) {
    countAndTell(fault, srcIp, word, address);
}

void complain(Fault fault, uint32_t srcIp, const char* word, uint32_t address, uint32_t ipAddress) {
    countAndTell(fault, srcIp, word, address, ipAddress);
}

bool headerInHand(Inspection& inspection, const char* headerWord, size_t headerBytes) {
    if (cursorHolds(inspection.packet.header, 0, headerBytes)) return true;
    if (!inspection.packet.complete) return false;
    inspection.bad = true;
    complain(Fault::kHeaderCut, inspection.packet.srcIp, inspection.word, headerWord);
    return false;
}

void checkSrc(Inspection& inspection) {
    const uint32_t src = srcOf(inspection);
    if (src == kAddressNone || src == kAddressAll)
        addressFault(inspection, Fault::kSourceInvalid, src);
}

void checkDstGroup(Inspection& inspection) {
    const uint32_t dst = dstOf(inspection);
    if (dst != kAddressNone && !isMulticast(dst))
        addressFault(inspection, Fault::kDestinationInvalid, dst);
}

void checkDstHost(Inspection& inspection) {
    const uint32_t dst = dstOf(inspection);
    if (dst == kAddressNone || dst == kAddressAll)
        addressFault(inspection, Fault::kDestinationInvalid, dst);
}

void checkDstSameIp(Inspection& inspection) {
    const uint32_t dst = dstOf(inspection);
    if (dst == inspection.packet.dstIp) return;
    inspection.bad = true;
    complain(Fault::kDestinationMismatch, inspection.packet.srcIp, inspection.word, dst,
             inspection.packet.dstIp);
}

uint32_t checkDataLength(Inspection& inspection) {
    const OskaPacket& packet = inspection.packet;
    const auto length = static_cast<int16_t>(loadBe16(packet.header, kOskaDataLengthOffset));
    if (length <= 0) {
        inspection.bad = true;
        complain(Fault::kLengthInvalid, packet.srcIp, inspection.word, int{length});
        return 0;
    }

    const auto dataBytes = static_cast<uint32_t>(length);
    if (packet.complete && !cursorHolds(packet.header, kOskaDataHeaderBytes, dataBytes)) {
        inspection.bad = true;
        complain(Fault::kLengthTooLarge, packet.srcIp, inspection.word);
    }
    return dataBytes;
}

const char* ipToText(uint32_t address) {
    static char text[16];
    const uint32_t host = hostOrder32(address);
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", static_cast<int>(host >> 24),
                  static_cast<int>(host >> 16 & 0xff), static_cast<int>(host >> 8 & 0xff),
                  static_cast<int>(host & 0xff));
    return text;
}
