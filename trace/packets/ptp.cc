#include "trace/packets/ptp.h"

#include "trace/counts/statistics.h"
#include "trace/packets/inspection.h"
#include "trace/packets/two_sided.h"

namespace {

constexpr size_t kControlHeaderBytes = 24;

using Ptp = PtpCounters;

constexpr TwoSidedType<Ptp> control(int16_t type,
                                    const char* word,
                                    const char* headerWord,
                                    uint64_t Ptp::*sent,
                                    uint64_t Ptp::*recv) {
    return {type,    word,    headerWord, kControlHeaderBytes, checkDstSameIp, sent, recv,
            nullptr, nullptr, nullptr};
}

constexpr TwoSidedType<Ptp> kData = {
    kOskaPtpData,   "ptp data",     "data",          kOskaDataHeaderBytes, checkDstSameIp,
    &Ptp::dataSent, &Ptp::dataRecv, checkDataLength, &Ptp::bytesSent,      &Ptp::bytesRecv,
};

// In the order of their numbers.
constexpr TwoSidedType<Ptp> kTypes[] = {
    kData,
    control(kOskaPtpAckme, "ptp ackme", "ackme", &Ptp::ackmeSent, &Ptp::ackmeRecv),
    control(kOskaPtpAck, "ptp ack", "ack", &Ptp::ackSent, &Ptp::ackRecv),
    control(kOskaPtpNak, "ptp nak", "nak", &Ptp::nakSent, &Ptp::nakRecv),
};

}  // namespace

void ptpHandle(const OskaPacket& packet) {
    twoSidedHandle(kTypes[packet.type - kOskaPtpData], packet, ptpHostEntry);
}
