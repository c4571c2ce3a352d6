#include "trace/packets/inspection.h"

#include <cstdarg>
#include <cstdio>

#include "lib/base/log.h"
#include "trace/packets/address.h"
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

[[gnu::cold]] void addressFault(Inspection& inspection, const char* which, uint32_t address) {
    inspection.bad = true;
    complain(inspection.packet.srcIp, "OSKA %s packet with invalid oska %s (%08x)", inspection.word,
             which, address);
}

}  // namespace

void complain(uint32_t srcIp, const char* format, ...) {
    if (!traceSettings.complain) return;
    char fault[128];  // the longest takes under 80
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(fault, sizeof fault, format, arguments);
    va_end(arguments);
    logPrint("%s from %s", fault, ipToText(srcIp));
}

bool headerInHand(Inspection& inspection, const char* headerWord, size_t headerBytes) {
    if (cursorHolds(inspection.packet.header, 0, headerBytes)) return true;
    if (!inspection.packet.complete) return false;
    inspection.bad = true;
    complain(inspection.packet.srcIp, "OSKA %s packet too small for %s header", inspection.word,
             headerWord);
    return false;
}

void checkSrc(Inspection& inspection) {
    const uint32_t src = srcOf(inspection);
    if (src == kAddressNone || src == kAddressAll) addressFault(inspection, "src", src);
}

void checkDstGroup(Inspection& inspection) {
    const uint32_t dst = dstOf(inspection);
    if (dst != kAddressNone && !isMulticast(dst)) addressFault(inspection, "dst", dst);
}

void checkDstHost(Inspection& inspection) {
    const uint32_t dst = dstOf(inspection);
    if (dst == kAddressNone || dst == kAddressAll) addressFault(inspection, "dst", dst);
}

void checkDstSameIp(Inspection& inspection) {
    const uint32_t dst = dstOf(inspection);
    if (dst == inspection.packet.dstIp) return;
    inspection.bad = true;
    complain(inspection.packet.srcIp, "OSKA %s packet with invalid oska dst (%08x/%08x)",
             inspection.word, dst, inspection.packet.dstIp);
}

uint32_t checkDataLength(Inspection& inspection) {
    const OskaPacket& packet = inspection.packet;
    const auto length = static_cast<int16_t>(loadBe16(packet.header, kOskaDataLengthOffset));
    if (length <= 0) {
        inspection.bad = true;
        complain(packet.srcIp, "OSKA %s packet with invalid length (%d)", inspection.word, length);
        return 0;
    }

    const auto dataBytes = static_cast<uint32_t>(length);
    if (packet.complete && !cursorHolds(packet.header, kOskaDataHeaderBytes, dataBytes)) {
        inspection.bad = true;
        complain(packet.srcIp, "OSKA %s packet larger than UDP payload", inspection.word);
    }
    return dataBytes;
}
