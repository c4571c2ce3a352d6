// Creating and destroying transports, their inboxes, and their delivery settings.

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/log.h"
#include "lib/containers/dpa.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/transport_ops.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr uint32_t kRequestQueueBuckets = 4;
constexpr const char* kIntraProcessPrefix = "_INBOX.";

// No other thread can reach the transport any more, so no lock is needed.
void freeTransport(IdHeader* header) PELMO_UNCHECKED_LOCKING {
    auto* transport = reinterpret_cast<Transport*>(header);
    sublistDestroy(transport->subjects);
    for (uint32_t i = 0; transport->spareQueues != nullptr && i < transport->spareQueues->count;
         ++i) {
        pelmoQueue_DestroyEx(idFromItem(transport->spareQueues->items[i]), nullptr, nullptr);
    }
    dpaDestroy(transport->spareQueues);
    dict32Destroy(transport->requestQueues);
    if (transport->link != nullptr) daemonLinkOps.destroy(transport->link);
    if (transport->circuit != nullptr) circuitOps.destroy(transport->circuit);
    hookListsFree(transport->hooks);
    const NetworkSettings& settings = transport->settings;
    for (char* text :
         {settings.service, settings.network, settings.description, settings.httpAddress}) {
        std::free(text);
    }
    std::free(transport);
}

// Requests that are waiting wake with a failure; new ones are refused.
void endRequestsLocked(Transport* transport) PELMO_REQUIRES(transport->header.lock) {
    Dict32Iterator each;
    dict32IterInit(transport->requestQueues, &each);
    uint32_t queueId = kNoId;
    while (dict32IterNext(&each, &queueId, nullptr)) {
        pelmoQueue_DestroyEx(queueId, nullptr, nullptr);
    }
}

// Removes a few listeners at a time, which takes no heap memory, and with the lock released, since
// a removal may send to the daemon. No listener joins a transport that is being destroyed, so a
// round that took none off the list is the last: one more would find the same listeners.
void cutOffListeners(Held<Transport>& held) PELMO_REQUIRES(held->header.lock) {
    constexpr uint32_t kAtATime = 64;
    Event* some[kAtATime];
    uint32_t before = UINT32_MAX;
    for (;;) {
        const Dpa* const all = sublistAll(held->subjects);
        if (all == nullptr || all->count >= before) return;
        before = all->count;
        const uint32_t count = all->count < kAtATime ? all->count : kAtATime;
        for (uint32_t i = 0; i < count; ++i) {
            some[i] = static_cast<Event*>(all->items[i]);
            Id_AddRef(&some[i]->header);
        }
        held.leave();
        for (uint32_t i = 0; i < count; ++i) {
            (void)Transport_RemoveListener(held->header.id, some[i]);
            Id_Release(&some[i]->header, false);
        }
        held.enter();
    }
}

// The endpoint stays the transport's until the daemon's link has stopped: what is sent meanwhile is
// refused by it, and takes no other road. The caller gets one of its two references.
SendLosses stopDirect(Held<Transport>& held, double deadline) PELMO_REQUIRES(held->header.lock) {
    ReliableEndpoint* const endpoint = held->directEndpoint;
    if (endpoint == nullptr) return {};
    endpointOps.retain(endpoint);
    held.leave();
    const SendLosses losses = endpointOps.close(endpoint, deadline);
    held.enter();
    return losses;
}

SendLosses stopLink(Held<Transport>& held, double deadline) PELMO_REQUIRES(held->header.lock) {
    if (held->kind != TransportKind::kNetwork || held->link == nullptr) return {};
    held.leave();
    const SendLosses losses = daemonLinkOps.stop(held.get(), deadline);
    held.enter();
    return losses;
}

struct RoadLosses {
    SendLosses byDaemon;
    SendLosses byPeers;
};

// Detaches what leads out of the process. Once the link has stopped, the daemon reports to others
// that this transport is gone; so what went straight to them has to be there by then.
RoadLosses stopPaths(Held<Transport>& held, double deadline) PELMO_REQUIRES(held->header.lock) {
    RoadLosses losses = {};
    if (held->kind == TransportKind::kCircuit) circuitOps.disconnect(held.get(), nullptr);
    losses.byPeers = stopDirect(held, deadline);
    losses.byDaemon = stopLink(held, deadline);
    ReliableEndpoint* const endpoint = std::exchange(held->directEndpoint, nullptr);
    if (endpoint != nullptr) endpointOps.release(endpoint);
    return losses;
}

// False if nothing was lost.
bool logLosses(uint32_t transport, const char* road, const SendLosses& losses) {
    if (!losses.any()) return false;
    const char* const more =
        losses.unconfirmed ? "; the other side didn't confirm what it had been sent" : "";
    logPrint("transport %u: the end of the %s left %" PRIu64 " messages (%" PRIu64
             " bytes) unsent%s",
             transport, road, losses.messages, losses.bytes, more);
    return true;
}

// The caller has set `destroying`, so that this runs once. kStatusDeliveryFailed if something
// that was sent is lost.
pelmoStatus endTransport(Held<Transport>& held, double deadline) PELMO_REQUIRES(held->header.lock) {
    const uint32_t id = held->header.id;
    (void)Transport_RunHooks(held.get(), kHookDestroy, nullptr);
    endRequestsLocked(held.get());
    const RoadLosses losses = stopPaths(held, deadline);
    cutOffListeners(held);
    const bool wasPublished = Id_Invalidate(&held->header) == kStatusSuccess;
    (void)Transport_RunHooks(held.get(), kHookDestroyed, nullptr);
    if (wasPublished) Id_Release(&held->header, false);
    held.release();
    const bool daemonLost = logLosses(id, "connection to the daemon", losses.byDaemon);
    const bool peersLost = logLosses(id, "direct road", losses.byPeers);
    return daemonLost || peersLost ? kStatusDeliveryFailed : kStatusSuccess;
}

pelmoStatus destroyBy(uint32_t transport, double deadline) {
    if (transport == kIntraProcessTransportId && libraryIsOpen()) return kStatusNotPermitted;
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess || held->destroying) {
        return kStatusInvalidTransport;
    }
    held->destroying = true;
    return endTransport(held, deadline);
}

pelmoStatus setFlag(uint32_t transport, bool Transport::*flag) {
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return kStatusInvalidTransport;
    held.get()->*flag = true;
    return kStatusSuccess;
}

}  // namespace

void transportAttach() {
    transportOps = {.sendAdvisory = advisorySend,
                    .createAdvisory = advisoryCreate,
                    .distribute = transportDistribute,
                    .addListener = Transport_AddListener,
                    .removeListener = Transport_RemoveListener,
                    .runInboundHooks = Transport_RunInboundHooks};
}

// No other thread can reach the transport yet.
Transport* Transport_New(TransportKind kind) PELMO_UNCHECKED_LOCKING {
    auto* transport = static_cast<Transport*>(std::calloc(1, sizeof(Transport)));
    if (transport == nullptr) return nullptr;
    if (Id_Init(&transport->header, IdType::kTransport, freeTransport) != kStatusSuccess) {
        std::free(transport);
        return nullptr;
    }
    transport->kind = kind;
    if (kind == TransportKind::kCircuit) transport->header.lock.rank = LockRank::kCircuitObject;
    transport->nextInbox = 1;
    transport->subjects = sublistCreate();
    transport->spareQueues = dpaCreate(kMostSpareQueues);
    transport->requestQueues = dict32Create(kRequestQueueBuckets);
    if (transport->subjects == nullptr || transport->spareQueues == nullptr ||
        transport->requestQueues == nullptr) {
        Id_Release(&transport->header, false);
        return nullptr;
    }
    return transport;
}

pelmoStatus Transport_CreateIntraProcess() {
    Transport* transport = Transport_New(TransportKind::kIntraProcess);
    if (transport == nullptr) return kStatusNoMemory;
    std::strcpy(transport->inboxPrefix, kIntraProcessPrefix);
    if (Id_SetFixed(&transport->header, kIntraProcessTransportId) == kStatusSuccess) {
        return kStatusSuccess;
    }
    Id_Release(&transport->header, false);
    return kStatusNoMemory;
}

pelmoStatus pelmoTransport_Destroy(uint32_t transport) {
    traceLine(kTraceTransport, "pelmoTransport_Destroy(%u)", transport);
    return destroyBy(transport, std::numeric_limits<double>::infinity());
}

pelmoStatus pelmoTransport_DestroyWithin(uint32_t transport, double seconds) {
    traceLine(kTraceTransport, "pelmoTransport_DestroyWithin(%u, %f)", transport, seconds);
    if (!(seconds >= 0)) return kStatusInvalidArgument;
    return destroyBy(transport, clockSteadySeconds() + seconds);
}

uint32_t transportNextInbox(Transport* transport, char* buffer, uint32_t size) {
    const int length =
        std::snprintf(buffer, size, "%s%" PRIu64, transport->inboxPrefix, transport->nextInbox++);
    return static_cast<uint32_t>(length);
}

pelmoStatus pelmoTransport_CreateInbox(uint32_t transport, char* buffer, uint32_t size) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (buffer == nullptr) return kStatusInvalidArgument;
    char text[kInboxPrefixBytes + 24] = "";
    pelmoStatus status = kStatusInvalidTransport;
    {
        Held<Transport> held;
        if (held.findLocked(transport) == kStatusSuccess) {
            const uint32_t length = transportNextInbox(held.get(), text, sizeof text);
            status = length < size ? kStatusSuccess : kStatusInsufficientBuffer;
        }
    }
    // The line has the text, which there is only now; calls that fail have one too.
    traceLine(kTraceTransport, "pelmoTransport_CreateInbox(%u, %s, %u)", transport, text, size);
    if (status == kStatusSuccess) std::strcpy(buffer, text);
    return status;
}

pelmoStatus pelmoTransport_SetFirstListenerOnly(uint32_t transport) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_SetFirstListenerOnly(%u)", transport);
    return setFlag(transport, &Transport::firstListenerOnly);
}

pelmoStatus pelmoTransport_SetQuietUnhandled(uint32_t transport) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_SetQuietUnhandled(%u)", transport);
    return setFlag(transport, &Transport::quietUnhandled);
}
