// Requests: a message that expects a reply, and the wait for it.
//
// Each request has a queue of its own, one of the transport's spare queues if there is any, and a
// one-shot inbox. A late reply finds no listener; one that was posted just too late stays on the
// queue, where the next request skips it as an entry of a destroyed event.

#include <utility>

#include "lib/containers/dpa.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/dispatch.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/transport_ops.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr uint32_t kOneReply = 1;

struct Request {
    Held<Transport> transport;
    uint32_t queueId = kNoId;
    Event* listener = nullptr;  // one reference
    char inbox[kSubjectTextBytes];
    uint8_t packedInbox[kSubjectMaxBytes];
};

void onReply(uint32_t /*event*/, pelmoMsg* message, void* closure) {
    auto* slot = static_cast<pelmoMsg**>(closure);
    if (pelmoMsg_Detach(message) == kStatusSuccess) *slot = message;
}

// The steps of a start; the caller holds the object lock. endLocked undoes the steps that were
// done.

pelmoStatus takeQueueLocked(Request& request) PELMO_REQUIRES(request.transport->header.lock) {
    Dpa* spare = request.transport->spareQueues;
    if (spare->count != 0) {
        request.queueId = idFromItem(spare->items[--spare->count]);
        return kStatusSuccess;
    }
    return pelmoQueue_Create(&request.queueId);
}

pelmoStatus listenLocked(Request& request, pelmoMsg** slot)
    PELMO_REQUIRES(request.transport->header.lock) {
    (void)transportNextInbox(request.transport.get(), request.inbox, sizeof request.inbox);
    if (subjectFromText(request.packedInbox, sizeof request.packedInbox, request.inbox) < 0) {
        return kStatusInvalidSubject;
    }
    const ListenerRequest wanted = {.queueId = request.queueId,
                                    .transportId = request.transport->header.id,
                                    .subject = request.inbox,
                                    .kind = ListenerKind::kPlain,
                                    .callback = onReply,
                                    .vectorCallback = nullptr,
                                    .vectorGroup = nullptr,
                                    .closure = slot};
    Event* listener = nullptr;
    pelmoStatus status = Event_NewListener(&listener, wanted, true, kOneReply);
    if (status == kStatusInvalidQueue) return kStatusInvalidTransport;  // as a wait on it would
    if (status != kStatusSuccess) return status;
    Id_AddRef(&listener->header);
    request.listener = listener;
    status = transportBindListener(request.transport.get(), listener, request.packedInbox, nullptr,
                                   nullptr);
    // Without an id, nothing else would release the base reference.
    if (status != kStatusSuccess) Id_Release(&listener->header, false);
    return status;
}

pelmoStatus startLocked(Request& request, pelmoMsg** slot)
    PELMO_REQUIRES(request.transport->header.lock) {
    if (request.transport->destroying) return kStatusInvalidTransport;
    if (request.transport->kind == TransportKind::kNetwork && request.transport->link == nullptr) {
        return kStatusInvalidTransport;
    }
    pelmoStatus status = takeQueueLocked(request);
    if (status != kStatusSuccess) return status;
    status = listenLocked(request, slot);
    if (status != kStatusSuccess) return status;
    return dict32Insert(request.transport->requestQueues, request.queueId, request.transport.get());
}

void endListenerLocked(Request& request) PELMO_REQUIRES(request.transport->header.lock) {
    Event* listener = std::exchange(request.listener, nullptr);
    if (listener == nullptr) return;
    if (Id_Invalidate(&listener->header) == kStatusSuccess) Id_Release(&listener->header, false);
    (void)transportForgetListener(request.transport.get(), listener, request.packedInbox, nullptr);
    Id_Release(&listener->header, false);
}

// A queue whose wait failed isn't kept as a spare.
void endLocked(Request& request, bool queueServes) PELMO_REQUIRES(request.transport->header.lock) {
    dict32Remove(request.transport->requestQueues, request.queueId, nullptr);
    Dpa* spare = request.transport->spareQueues;
    const bool keeps = request.queueId != kNoId && queueServes && !request.transport->destroying &&
                       spare->count < kMostSpareQueues &&
                       dpaAppend(spare, idToItem(request.queueId));
    endListenerLocked(request);
    if (!keeps) pelmoQueue_DestroyEx(request.queueId, nullptr, nullptr);
}

pelmoStatus awaitReply(uint32_t queueId, double seconds, pelmoMsg* const* slot) {
    while (*slot == nullptr) {
        const pelmoStatus status = pelmoQueue_TimedDispatch(queueId, seconds);
        if (status == kStatusTimeout) return status;
        if (status != kStatusSuccess) return kStatusInvalidTransport;
    }
    return kStatusSuccess;
}

}  // namespace

pelmoStatus pelmoTransport_SendRequest(uint32_t transport,
                                       pelmoMsg* message,
                                       pelmoMsg** outReply,
                                       double seconds) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_SendRequest(%u, %p, %p, %f)", transport,
              tracePointer(message), tracePointer(outReply), seconds);
    if (outReply == nullptr) return kStatusInvalidArgument;
    Request request;
    if (request.transport.findLocked(transport) != kStatusSuccess) {
        return kStatusInvalidTransport;
    }
    pelmoMsg* reply = nullptr;
    bool queueServes = true;
    pelmoStatus status = startLocked(request, &reply);
    if (status == kStatusSuccess) {
        request.transport.leave();
        status = pelmoMsg_SetReplySubject(message, request.inbox);
        if (status == kStatusSuccess) status = pelmoTransport_Send(transport, message);
        if (status == kStatusSuccess) {
            status = awaitReply(request.queueId, seconds, &reply);
            queueServes = status != kStatusInvalidTransport;
        }
        request.transport.enter();
    }
    endLocked(request, queueServes);
    request.transport.release();
    if (status == kStatusSuccess) *outReply = reply;
    return status;
}

pelmoStatus pelmoTransport_SendReply(uint32_t transport, pelmoMsg* reply, pelmoMsg* request) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_SendReply(%u, %p, %p)", transport,
              tracePointer(reply), tracePointer(request));
    if (!msgIsValid(reply) || !msgIsValid(request)) return kStatusInvalidMessage;
    if (Id_Check(transport, IdType::kTransport) != kStatusSuccess) return kStatusInvalidTransport;
    const ReferenceMark before = msgMark(request);
    const char* subject = nullptr;
    pelmoStatus status = pelmoMsg_GetReplySubject(request, &subject);
    if (status == kStatusSuccess) status = pelmoMsg_SetSendSubject(reply, subject);
    msgCutBack(request, before);
    return status == kStatusSuccess ? pelmoTransport_Send(transport, reply) : status;
}
