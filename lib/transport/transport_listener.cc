// Listeners: which subjects a transport delivers, and to which events.

#include <cstdlib>
#include <cstring>

#include "lib/containers/dpa.h"
#include "lib/containers/entry_ring.h"
#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/transport_ops.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr int32_t kListenerSubjectBytes = 200;
constexpr uint32_t kListenerInbox = 4;  // capacity at first, in messages

bool isOwnInbox(const Transport* transport, const char* text) {
    return std::strncmp(text, transport->inboxPrefix, std::strlen(transport->inboxPrefix)) == 0;
}

bool mayListenToInboxLocked(const Transport* transport, const uint8_t* subject, const char* text)
    PELMO_REQUIRES(transport->header.lock) {
    if (!transport->inboxWildcards && subjectHasWildcard(subject)) return false;
    switch (transport->kind) {
        case TransportKind::kIntraProcess:
            return subjectElementCount(subject) == 2;
        case TransportKind::kNetwork:
            return subjectElementCount(subject) >= 3 &&
                   (subjectIsDaemonInbox(subject) || isOwnInbox(transport, text));
        case TransportKind::kCircuit:
            break;
    }
    return isOwnInbox(transport, text);
}

// The lock isn't held while the stop is sent. Another listener may join meanwhile, and its start
// may reach the daemon before the stop, so the daemon would send it nothing. One start too many
// only costs messages without a listener.
void announceStop(Held<Transport>& held, const uint8_t* subject) {
    (void)daemonLinkOps.interest(held.get(), subject, kInterestStop);
    held.enter();
    const bool wanted = sublistFind(held->subjects, subject) != nullptr;
    held.leave();
    if (wanted) (void)daemonLinkOps.interest(held.get(), subject, kInterestStart);
}

// A second connection announces what the first one did; an inbox of the transport's own needs none,
// since the daemon knows whose it is.
bool daemonHasToKnow(const uint8_t* subject) {
    return !subjectIsInbox(subject) || subjectIsDaemonInbox(subject) ||
           subjectElementEquals(subject, 3, "BROUTED");
}

// Without bytes it only counts.
struct InterestBlock {
    uint8_t* bytes;
    size_t count;
};

void* addInterest(const uint8_t* subject, Dpa* /*values*/, void* argument) {
    auto* block = static_cast<InterestBlock*>(argument);
    if (!daemonHasToKnow(subject)) return nullptr;
    const size_t length = subjectLength(subject);
    if (block->bytes != nullptr) std::memcpy(block->bytes + block->count, subject, length);
    block->count += length;
    return nullptr;
}

}  // namespace

bool transportListInterest(Transport* transport, uint8_t** outSubjects, size_t* outBytes) {
    InterestBlock block = {.bytes = nullptr, .count = 0};
    sublistVisit(transport->subjects, addInterest, &block);
    if (block.count != 0) {
        block.bytes = static_cast<uint8_t*>(std::malloc(block.count));
        if (block.bytes == nullptr) return false;
        block.count = 0;
        sublistVisit(transport->subjects, addInterest, &block);
    }
    *outSubjects = block.bytes;
    *outBytes = block.count;
    return true;
}

pelmoStatus transportBindListener(
    Transport* transport, Event* listener, const uint8_t* subject, uint32_t* out, bool* isFirst) {
    SubjectList* list = transport->subjects;
    // A match never has more values than the list, so a delivery never skips a listener because
    // memory ran out.
    if (!dpaReserve(list->matches, list->valueCount + 1)) return kStatusNoMemory;
    SubjectNode* node = nullptr;
    if (!sublistAdd(list, subject, listener, &node)) return kStatusNoMemory;
    if (isFirst != nullptr) *isFirst = sublistNodeValueCount(node) == 1;
    if (Id_SetGlobal(&listener->header, out) == kStatusSuccess) return kStatusSuccess;
    (void)transportForgetListener(transport, listener, subject, nullptr);
    return kStatusNoMemory;
}

bool transportForgetListener(Transport* transport,
                             Event* event,
                             const uint8_t* subject,
                             uint32_t* remaining) {
    return sublistRemove(transport->subjects, subject, event, remaining) != 0;
}

void listenerCutOff(Event* event) {
    Id_Enter(&event->header);
    EntryRing* inbox = event->listener.inbox;
    event->listener.inbox = nullptr;
    event->listener.transportId.store(kNoId, std::memory_order_relaxed);
    Id_Leave(&event->header);
    msgReleaseRing(inbox);
    // Nothing comes for a request any more: its time is up now.
    if (event->listener.isRequest) {
        (void)pelmoEvent_ResetTimerInterval(event->listener.requestTimer.load(), 0);
    }
}

pelmoStatus Transport_AddListener(uint32_t* out, const ListenerRequest& request) {
    if (request.subject == nullptr) return kStatusInvalidSubject;
    if (Id_Check(request.queueId, IdType::kQueue) != kStatusSuccess) return kStatusInvalidQueue;
    Held<Transport> held;
    if (held.findLocked(request.transportId) != kStatusSuccess || held->destroying ||
        (held->kind == TransportKind::kNetwork && held->link == nullptr)) {
        return kStatusInvalidTransport;
    }
    uint8_t subject[kListenerSubjectBytes];
    if (subjectFromText(subject, sizeof subject, request.subject) < 0) return kStatusInvalidSubject;
    const bool isInbox = subjectIsInbox(subject);
    if (isInbox && !mayListenToInboxLocked(held.get(), subject, request.subject)) {
        return kStatusInvalidSubject;
    }
    Event* listener = nullptr;
    pelmoStatus status = Event_NewListener(&listener, request, isInbox, kListenerInbox);
    if (status != kStatusSuccess) return status;
    bool isFirst = false;
    status = transportBindListener(held.get(), listener, subject, out, &isFirst);
    if (status != kStatusSuccess) {
        Id_Release(&listener->header, false);
        return status;
    }
    held.leave();
    if (held->kind == TransportKind::kNetwork && isFirst &&
        (!isInbox || subjectIsDaemonInbox(subject))) {
        // When this fails, the next connection announces the subject.
        (void)daemonLinkOps.interest(held.get(), subject, kInterestStart);
    }
    return kStatusSuccess;
}

pelmoStatus Transport_RemoveListener(uint32_t transport, Event* event) {
    listenerCutOff(event);
    uint8_t subject[kListenerSubjectBytes];
    if (subjectFromText(subject, sizeof subject, event->listener.subject) < 0) {
        return kStatusInvalidSubject;
    }
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return kStatusInvalidTransport;
    uint32_t remaining = 0;
    const bool removed = transportForgetListener(held.get(), event, subject, &remaining);
    const bool linked = held->kind == TransportKind::kNetwork && held->link != nullptr;
    if (removed && remaining == 0 && linked && !subjectIsInbox(subject)) {
        held.leave();
        announceStop(held, subject);
    }
    return kStatusSuccess;
}

uint32_t pelmoTransport_HasInterest(uint32_t transport, const char* subject) {
    if (!libraryIsOpen()) return 0;
    traceLine(kTraceTransport, "pelmoTransport_HasInterest(%u, \"%s\")", transport,
              traceText(subject));
    uint8_t packed[kSubjectMaxBytes];
    if (subject == nullptr || subjectFromText(packed, sizeof packed, subject) < 0) return 0;
    const bool isInbox = subjectIsInbox(packed);
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return 0;
    const Dpa* matches = sublistMatch(held->subjects, packed);
    for (uint32_t i = 0; matches != nullptr && i < matches->count; ++i) {
        if (static_cast<const Event*>(matches->items[i])->listener.isInbox == isInbox) return 1;
    }
    return 0;
}

uint32_t pelmoTransport_FindInterest(uint32_t transport,
                                     const uint8_t* subject,
                                     uint32_t* outEvent) {
    if (!libraryIsOpen()) return 0;
    traceLine(kTraceTransport, "pelmoTransport_FindInterest(%u)", transport);
    if (subject == nullptr || outEvent == nullptr || subjectElementCount(subject) == 0) return 0;
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return 0;
    const Dpa* values = sublistFind(held->subjects, subject);
    if (values == nullptr) return 0;
    *outEvent = static_cast<const Event*>(values->items[0])->header.id;
    return 1;
}
