#include "pmd/slow_readers.h"

#include "lib/base/clock.h"
#include "lib/transport/ipq/ipq.h"

namespace {

constexpr const char* kSlow = "it reads too slowly";

void resume(const SlowReaders* slow, Client* sender) PELMO_REQUIRES(daemonLock) {
    sender->pacer = nullptr;
    if (sender->fault == nullptr && ipqResume(sender->ipq) != kStatusSuccess) {
        slow->doom(sender, "it can't be read from any more");
    }
}

// Lets the waiting senders go on for which `ends` is true.
template <typename Ends>
void endPaces(SlowReaders* slow, Ends ends) PELMO_REQUIRES(daemonLock) {
    for (Client** place = &slow->paced; *place != nullptr;) {
        Client* const sender = *place;
        if (ends(sender)) {
            *place = sender->nextPaced;
            resume(slow, sender);
        } else {
            place = &sender->nextPaced;
        }
    }
}

// Removes the receivers for which `ends` is true from the list.
template <typename Ends>
void endExcesses(SlowReaders* slow, Ends ends) PELMO_REQUIRES(daemonLock) {
    for (Client** place = &slow->over; *place != nullptr;) {
        Client* const receiver = *place;
        if (ends(receiver)) {
            *place = receiver->nextOver;
            receiver->isOver = false;
        } else {
            place = &receiver->nextOver;
        }
    }
}

void beginExcess(SlowReaders* slow, Client* receiver, const Backlog& backlog)
    PELMO_REQUIRES(daemonLock) {
    receiver->isOver = true;
    receiver->excess = excessBegin(backlog, clockSteadySeconds());
    receiver->nextOver = slow->over;
    slow->over = receiver;
}

}  // namespace

void slowLook(SlowReaders* slow, Client* receiver, const Backlog& backlog, uint64_t batch) {
    if (backlog.waitingBytes > slow->backlogLimit) {
        if (!receiver->isOver) beginExcess(slow, receiver, backlog);
        receiver->fedBatch = batch;
    }
    receiver->isBehind = backlog.waitingBytes > kPaceLowBytes;
    if (!receiver->isBehind) receiver->isStalled = false;
}

void slowPace(SlowReaders* slow, Client* sender, Client* fastest) {
    if (fastest == nullptr || sender->pacer != nullptr) return;
    if (fastest->isStalled && !fastest->isOver) return;
    const Backlog backlog = clientBacklog(fastest);
    if (backlog.waitingBytes <= paceMarks(slow->backlogLimit).highBytes) return;
    if (ipqPauseReading(sender->ipq) != kStatusSuccess) return;
    sender->pacer = fastest;
    sender->pace = paceBegin(backlog, clockSteadySeconds());
    sender->nextPaced = slow->paced;
    slow->paced = sender;
}

void slowNoteFed(SlowReaders* slow, const Client* sender, uint64_t batch) {
    if (sender->pacer != nullptr) return;
    for (Client* receiver = slow->over; receiver != nullptr; receiver = receiver->nextOver) {
        if (receiver->fedBatch == batch) receiver->excess.isOutrun = true;
    }
}

void slowPaceTick(SlowReaders* slow, double now) {
    const uint64_t lowBytes = paceMarks(slow->backlogLimit).lowBytes;
    endPaces(slow, [now, lowBytes](Client* sender) PELMO_REQUIRES(daemonLock) {
        const Backlog backlog = clientBacklog(sender->pacer);
        if (sender->pacer->isOver && backlog.waitingBytes > lowBytes) return false;
        if (!paceEnds(&sender->pace, backlog, lowBytes, now)) return false;
        sender->pacer->isStalled = backlog.waitingBytes > lowBytes;
        return true;
    });
}

void slowJudge(SlowReaders* slow, double now) {
    endExcesses(slow, [slow, now](Client* receiver) PELMO_REQUIRES(daemonLock) {
        const Backlog backlog = clientBacklog(receiver);
        switch (excessJudge(&receiver->excess, backlog, slow->backlogLimit, now)) {
            case ExcessVerdict::kGoOn:
                return false;
            case ExcessVerdict::kWithin:
                return true;
            case ExcessVerdict::kTooSlow:
                break;
        }
        receiver->endName = "CLIENT.SLOWREADER";
        slow->doom(receiver, kSlow);
        return false;
    });
}

void slowForget(SlowReaders* slow, Client* client) {
    endPaces(slow, [client](const Client* sender) PELMO_REQUIRES(daemonLock) {
        return sender == client || sender->pacer == client;
    });
    endExcesses(slow, [client](const Client* receiver) { return receiver == client; });
}
