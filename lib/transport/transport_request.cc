// Requests: a message that expects a reply, and the wait for it, or the callback that gets it.
//
// A request that waits has a queue of its own, one of the transport's spare queues if there is any,
// and a one-shot inbox. A late reply finds no listener; one that was posted just too late stays on
// the queue, where the next request skips it as an entry of a destroyed event.

#include <cmath>
#include <utility>

#include "lib/containers/dpa.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/dispatch.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/post.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/transport_ops.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr uint32_t kOneReply = 1;

// The time limit of a request until it has been sent, and of one without a limit.
constexpr double kYearsSeconds = 1e9;

struct Request {
    Held<Transport> transport;
    uint32_t queueId = kNoId;
    Event* listener = nullptr;  // one reference
    uint32_t listenerId = kNoId;
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

pelmoStatus listenLocked(Request& request,
                         pelmoEventCallback callback,
                         void* closure,
                         bool isAsynchronous) PELMO_REQUIRES(request.transport->header.lock) {
    (void)transportNextInbox(request.transport.get(), request.inbox, sizeof request.inbox);
    if (subjectFromText(request.packedInbox, sizeof request.packedInbox, request.inbox) < 0) {
        return kStatusInvalidSubject;
    }
    const ListenerRequest wanted = {.queueId = request.queueId,
                                    .transportId = request.transport->header.id,
                                    .subject = request.inbox,
                                    .kind = ListenerKind::kPlain,
                                    .callback = callback,
                                    .vectorCallback = nullptr,
                                    .vectorGroup = nullptr,
                                    .closure = closure};
    Event* listener = nullptr;
    pelmoStatus status = Event_NewListener(&listener, wanted, true, kOneReply);
    if (status == kStatusInvalidQueue) return kStatusInvalidTransport;  // as a wait on it would
    if (status != kStatusSuccess) return status;
    listener->listener.isRequest = isAsynchronous;
    Id_AddRef(&listener->header);
    request.listener = listener;
    status = transportBindListener(request.transport.get(), listener, request.packedInbox,
                                   &request.listenerId, nullptr);
    // Without an id, nothing else would release the base reference.
    if (status != kStatusSuccess) Id_Release(&listener->header, false);
    return status;
}

bool takesRequestsLocked(const Transport* transport) PELMO_REQUIRES(transport->header.lock) {
    if (transport->destroying) return false;
    return transport->kind != TransportKind::kNetwork || transport->link != nullptr;
}

pelmoStatus startLocked(Request& request, pelmoMsg** slot)
    PELMO_REQUIRES(request.transport->header.lock) {
    if (!takesRequestsLocked(request.transport.get())) return kStatusInvalidTransport;
    pelmoStatus status = takeQueueLocked(request);
    if (status != kStatusSuccess) return status;
    status = listenLocked(request, onReply, slot, false);
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

// A request's time is up: its queue gets an entry in place of the reply. Without memory for that
// the timer fires again.
void onTimeLimit(uint32_t timer, pelmoMsg* /*message*/, void* closure) {
    pelmoMsg* entry = nullptr;
    if (pelmoMsg_Create(&entry) != kStatusSuccess) return;
    msgSetNoReply(entry);
    pelmoEvent_DestroyEx(timer, nullptr);
    Held<Event> listener;
    if (listener.find(idFromItem(closure)) != kStatusSuccess) return msgRelease(entry);
    const PostEntry post = {.eventId = listener->header.id, .message = entry};
    Queue_PostBatch(listener->queueId, {&post, 1});
}

// The listener gets its time limit, which begins once the request has been sent. A reply may come
// before the listener knows its timer, and then has left the timer alone.
pelmoStatus addTimeLimit(const Request& request, uint32_t* timer) {
    const pelmoStatus status = pelmoEvent_CreateTimer(timer, kTimerQueueId, onTimeLimit,
                                                      kYearsSeconds, idToItem(request.listenerId));
    if (status != kStatusSuccess) return status;
    request.listener->listener.requestTimer.store(*timer);
    const bool over =
        request.listener->listener.answered.load() || Id_IsInvalid(&request.listener->header);
    if (over) pelmoEvent_DestroyEx(*timer, nullptr);
    return kStatusSuccess;
}

pelmoStatus sendAsync(const Request& request, pelmoMsg* message, double seconds) {
    uint32_t timer = kNoId;
    pelmoStatus status = addTimeLimit(request, &timer);
    if (status == kStatusSuccess) status = pelmoMsg_SetReplySubject(message, request.inbox);
    if (status == kStatusSuccess) {
        status = pelmoTransport_Send(request.transport->header.id, message);
    }
    // Of a transport that ends meanwhile no reply comes, whether it took the message or not.
    const bool isCutOff = request.listener->listener.transportId.load() == kNoId;
    if (status == kStatusSuccess && (seconds >= 0 || isCutOff)) {
        (void)pelmoEvent_ResetTimerInterval(timer, isCutOff ? 0 : seconds);
    }
    if (status == kStatusSuccess) return status;
    // No callback starts from here on; one that has started has said it.
    return request.listener->listener.answered.exchange(true) ? kStatusSuccess : status;
}

}  // namespace

pelmoStatus pelmoTransport_SendRequestAsync(uint32_t* outRequest,
                                            uint32_t transport,
                                            uint32_t queue,
                                            pelmoMsg* message,
                                            pelmoEventCallback callback,
                                            double seconds,
                                            void* closure) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_SendRequestAsync(%u, %u, %p, %f)", transport, queue,
              tracePointer(message), seconds);
    if (callback == nullptr) return kStatusInvalidCallback;
    if (outRequest == nullptr) return kStatusInvalidArgument;
    if (std::isnan(seconds)) return kStatusInvalidInterval;
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    Request request;
    request.queueId = queue;
    if (request.transport.findLocked(transport) != kStatusSuccess) return kStatusInvalidTransport;
    if (!takesRequestsLocked(request.transport.get())) return kStatusInvalidTransport;
    if (Id_Check(queue, IdType::kQueue) != kStatusSuccess) return kStatusInvalidQueue;
    pelmoStatus status = listenLocked(request, callback, closure, true);
    request.transport.leave();
    if (status == kStatusSuccess) {
        status = sendAsync(request, message, seconds);
        if (status == kStatusSuccess) *outRequest = request.listenerId;
        if (status != kStatusSuccess) pelmoEvent_DestroyEx(request.listenerId, nullptr);
    }
    if (request.listener != nullptr) Id_Release(&request.listener->header, false);
    return status;
}

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
