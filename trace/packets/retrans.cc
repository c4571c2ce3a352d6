#include "trace/packets/retrans.h"

#include "trace/counts/statistics.h"
#include "trace/packets/inspection.h"
#include "trace/packets/two_sided.h"

namespace {

constexpr size_t kHeaderBytes = 24;
constexpr uint32_t kItemBytes = 4;

// The items of the list. One that is cut off counts for nothing.
uint32_t checkList(Inspection& inspection) {
    const OskaPacket& packet = inspection.packet;
    const auto listBytes = static_cast<int32_t>(loadBe32(packet.header, kOskaSeqOffset));
    const uint32_t bytes = listBytes > 0 ? static_cast<uint32_t>(listBytes) : 0;
    if (bytes == 0 || bytes % kItemBytes != 0) {
        inspection.bad = true;
        complain(Fault::kLengthInvalid, packet.srcIp, inspection.word, listBytes);
    } else if (packet.complete && !cursorHolds(packet.header, kHeaderBytes, bytes)) {
        inspection.bad = true;
        complain(Fault::kLengthTooLarge, packet.srcIp, inspection.word);
    }
    return bytes / kItemBytes;
}

using Rl = RlCounters;

constexpr TwoSidedType<Rl> kRreq = {
    kOskaRreq,     "rreq",        "rreq",    kHeaderBytes,  checkDstHost,
    &Rl::rreqSent, &Rl::rreqRecv, checkList, &Rl::rseqSent, &Rl::rseqRecv,
};

constexpr TwoSidedType<Rl> kRrej = {
    kOskaRrej,     "rrej",        "rrej",  kHeaderBytes, checkDstGroup,
    &Rl::rrejSent, &Rl::rrejRecv, nullptr, nullptr,      nullptr,
};

}  // namespace

void retransHandle(const OskaPacket& packet) {
    twoSidedHandle(packet.type == kOskaRreq ? kRreq : kRrej, packet, rlHostEntry);
}
