#include "trace/counts/charge.h"

#include <cstring>

#include "lib/containers/subject_map.h"
#include "trace/counts/statistics.h"

namespace {

// Behind how many a charge comes to its next step: one message's work is about a third of a trip to
// memory.
constexpr uint32_t kBehindForRecord = 2;
constexpr uint32_t kBehindToCount = 5;
static_assert(kBehindToCount < kChargesInLine);

constexpr size_t kUsualRecordBytes = sizeof(SubjectEntry) + 40;  // most subjects are no longer

bool count(
    NetEntry& net, uint32_t srcIp, uint16_t srcPort, const uint8_t* packed, uint32_t messageBytes) {
    SubjectEntry* subject = subjectEntry(net, packed, srcIp, srcPort);
    if (subject == nullptr) return false;
    HostSubjEntry* host = hostSubjEntry(*subject, srcIp, srcPort);
    if (host == nullptr) return false;
    subject->live = host->live = 1;
    ++host->msgs;
    host->bytes += messageBytes;
    return true;
}

// The one with so many behind it.
Charge& chargeAhead(ChargeLine& line, uint32_t behind) {
    return line.places[(line.entered - 1 - behind) % kChargesInLine];
}

// One that memory fails has been told of, and its packet is long gone.
void countOldest(ChargeLine& line) {
    const Charge& oldest = chargeAhead(line, --line.waiting);
    (void)count(*oldest.net, oldest.srcIp, oldest.srcPort, oldest.subject, oldest.messageBytes);
}

Charge& enter(ChargeLine& line) {
    ++line.entered;
    ++line.waiting;
    return chargeAhead(line, 0);
}

void moveOn(ChargeLine& line) {
    if (line.waiting > kBehindForRecord) {
        const Charge& charge = chargeAhead(line, kBehindForRecord);
        subjectMapPrefetchRecord(charge.net->subjects, charge.subjectHash, kUsualRecordBytes);
    }
    if (line.waiting > kBehindToCount) countOldest(line);
}

}  // namespace

bool chargeMessage(NetEntry& net,
                   uint32_t srcIp,
                   uint16_t srcPort,
                   const uint8_t* subject,
                   uint32_t messageBytes) {
    if (subjectMapCount(net.subjects) <= kCachedSubjects) {
        return count(net, srcIp, srcPort, subject, messageBytes);
    }
    Charge& charge = enter(statistics.charges);
    charge.net = &net;
    charge.srcIp = srcIp;
    charge.srcPort = srcPort;
    charge.messageBytes = messageBytes;
    charge.subjectHash = subjectHash(subject);
    std::memcpy(charge.subject, subject, subjectLength(subject));
    subjectMapPrefetchSlot(net.subjects, charge.subjectHash);
    moveOn(statistics.charges);
    return true;
}

void chargesSettle() {
    while (statistics.charges.waiting != 0) {
        countOldest(statistics.charges);
    }
}
