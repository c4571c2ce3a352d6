#include "trace/counts/charge.h"

#include <cstring>

#include "trace/settings.h"

namespace {

// A charge takes its next step when so many others have entered after it. The work on one
// message takes about a third of a memory access, and less when several messages share a packet.
constexpr uint32_t kNewerAtRecord = 5;
constexpr uint32_t kNewerAtCount = 11;
static_assert(kNewerAtCount < kPipelineDepth);

constexpr size_t kUsualSubjectBytes = 40;  // most are no longer
constexpr size_t kLeastSubjectBytes = 5;   // one element without characters

[[gnu::always_inline]] inline SubjectEntry* findSubject(const NetEntry& net,
                                                        const uint8_t* subject,
                                                        size_t length,
                                                        uint32_t hash) {
    return reinterpret_cast<SubjectEntry*>(subjectMapFind(net.subjects, subject, length, hash));
}

bool countSender(SubjectEntry& subject, uint64_t key, uint32_t messageBytes) {
    HostSubjEntry* sender = subjectSender(subject, key);
    if (sender == nullptr) return false;
    if (sender->msgs++ == 0) ++statistics.live.senders;
    sender->bytes += messageBytes;
    return true;
}

// Inlined, as is the search, since each message comes here.
[[gnu::always_inline]] inline bool count(NetEntry& net,
                                         SubjectEntry& subject,
                                         uint64_t sender,
                                         uint32_t messageBytes) {
    if (traceSettings.countSenders && !countSender(subject, sender, messageBytes)) return false;
    if (subject.msgs++ == 0) {
        ++net.liveSubjects;
        ++statistics.live.subjects;
        statistics.live.subjectBytes += snapSubjectBytes(packedSubject(subject));
    }
    subject.bytes += messageBytes;
    return true;
}

// The waiting charge after which so many others have entered.
WaitingCharge& waitingCharge(ChargePipeline& pipeline, uint32_t newer) {
    return pipeline.places[(pipeline.entered - 1 - newer) % kPipelineDepth];
}

// A charge for which memory runs out is dropped: subjectCreate has logged it, and its packet is
// long gone.
void countOldest(ChargePipeline& pipeline) {
    const WaitingCharge& oldest = waitingCharge(pipeline, --pipeline.waiting);
    NetEntry& net = *oldest.net;
    SubjectEntry* subject =
        findSubject(net, oldest.subject, subjectLength(oldest.subject), oldest.subjectHash);
    if (subject == nullptr) {
        subject = subjectCreate(net.subjects, oldest.subject, oldest.subjectHash);
    }
    if (subject != nullptr) (void)count(net, *subject, oldest.sender, oldest.messageBytes);
}

WaitingCharge& enter(ChargePipeline& pipeline) {
    ++pipeline.entered;
    ++pipeline.waiting;
    return waitingCharge(pipeline, 0);
}

void moveOn(ChargePipeline& pipeline) {
    if (pipeline.waiting > kNewerAtRecord) {
        const WaitingCharge& charge = waitingCharge(pipeline, kNewerAtRecord);
        subjectMapPrefetchRecord(charge.net->subjects, charge.subjectHash, kUsualSubjectBytes);
    }
    if (pipeline.waiting > kNewerAtCount) countOldest(pipeline);
}

// The form is tested before the charge waits, since a fault ends the scan of its packet.
ChargeResult wait(NetEntry& net,
                  uint64_t sender,
                  std::span<const uint8_t> subject,
                  uint32_t messageBytes) {
    if (!subjectIsValid(subject.data())) return ChargeResult::kInvalid;
    WaitingCharge& charge = enter(statistics.charges);
    charge.net = &net;
    charge.sender = sender;
    charge.messageBytes = messageBytes;
    charge.subjectHash = subjectHash(subject.data());
    std::memcpy(charge.subject, subject.data(), subject.size());
    subjectMapPrefetchSlot(net.subjects, charge.subjectHash);
    moveOn(statistics.charges);
    return ChargeResult::kDone;
}

}  // namespace

ChargeResult chargeMessage(NetEntry& net,
                           uint64_t sender,
                           std::span<const uint8_t> subject,
                           uint32_t messageBytes) {
    const size_t length = subject.size();
    if (length < kLeastSubjectBytes || length > kSubjectMaxBytes) {
        const bool empty = length == kSubjectHeadBytes && subjectElementCount(subject.data()) == 0;
        return empty ? ChargeResult::kDone : ChargeResult::kInvalid;
    }
    if (statistics.subjectLines.slabCount > kCachedSlabs) {
        return wait(net, sender, subject, messageBytes);
    }

    const uint32_t hash = probeHashBytes(subject.data(), length);
    SubjectEntry* entry = findSubject(net, subject.data(), length, hash);
    if (entry == nullptr) {
        if (!subjectIsValid(subject.data())) return ChargeResult::kInvalid;
        entry = subjectCreate(net.subjects, subject.data(), hash);
        if (entry == nullptr) return ChargeResult::kNoMemory;
    }
    return count(net, *entry, sender, messageBytes) ? ChargeResult::kDone : ChargeResult::kNoMemory;
}

void chargesSettle() {
    while (statistics.charges.waiting != 0) {
        countOldest(statistics.charges);
    }
}
