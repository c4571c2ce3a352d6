// The last close. Callbacks may be running on threads of the application. What they use is
// destroyed only after they have returned, so events are destroyed when the last queue is gone.

#include <algorithm>
#include <utility>

#include "lib/base/log_pace.h"
#include "lib/containers/dpa.h"
#include "lib/msg/pool.h"
#include "lib/msg/trace_ops.h"
#include "lib/pelmo.h"
#include "lib/pelmo/library_state.h"
#include "lib/runtime/event_manager.h"
#include "lib/runtime/id.h"
#include "lib/runtime/library.h"
#include "lib/runtime/tracing.h"
#include "lib/transport/daemon/daemon_link.h"
#include "lib/transport/transport.h"

namespace {

constexpr uint32_t kListedIds = 32;

// Destroys in reverse order, since later objects may depend on earlier ones. The list is empty
// afterwards.
template <typename Destroy>
void destroyListed(Dpa& ids, Destroy destroy) {
    while (ids.count > 0)
        destroy(idFromItem(ids.items[--ids.count]));
}

// Destroys all objects of a type, a circuit before the transport beneath it. An object for which
// the list has no room is left alone.
template <typename Destroy>
void destroyAll(IdType type, Dpa& ids, Destroy destroy) {
    (void)idTableList(type, &ids);
    std::sort(ids.items, ids.items + ids.count);
    destroyListed(ids, destroy);
}

void countQueueLocked() PELMO_REQUIRES(library.lock) {
    if (--library.closingQueues != 0) return;
    Dpa* const events = std::exchange(library.closingEvents, nullptr);
    if (events == nullptr) return;
    destroyListed(*events, [](uint32_t event) { pelmoEvent_DestroyEx(event, nullptr); });
    dpaDestroy(events);
}

// The queue's completion. It runs on the thread that finishes the last callback of the queue.
void onQueueGone(uint32_t, void*) {
    const LockGuard guard(library.lock);
    countQueueLocked();
}

void endQueuesLocked(Dpa& ids) PELMO_REQUIRES(library.lock) {
    (void)idTableList(IdType::kQueue, &ids);
    library.closingQueues += ids.count + 1;
    destroyListed(ids, [](uint32_t queue) {
        // A queue that its owner has just destroyed doesn't call the completion.
        const pelmoStatus status = pelmoQueue_DestroyEx(queue, onQueueGone, nullptr);
        if (status != kStatusSuccess) onQueueGone(queue, nullptr);
    });
    countQueueLocked();
}

// Fills the list with the dispatchers that are left to be destroyed. False where a transport lost
// what it had sent.
bool endObjectsLocked(Dpa& ids) PELMO_REQUIRES(library.lock) {
    (void)idTableList(IdType::kEvent, library.closingEvents);
    destroyAll(IdType::kQueueGroup, ids, pelmoQueueGroup_Destroy);
    endQueuesLocked(ids);
    bool allLeft = true;
    destroyAll(IdType::kTransport, ids, [&allLeft](uint32_t transport) {
        if (pelmoTransport_Destroy(transport) == kStatusDeliveryFailed) allLeft = false;
    });
    (void)idTableList(IdType::kDispatcher, &ids);
    return allLeft;
}

// Null when memory ran out: the application's objects are then left as they are, and only the
// library's own are destroyed, so that the next open can make them again.
Dpa* endAllLocked(bool* allLeft) PELMO_REQUIRES(library.lock) {
    if (library.closingEvents == nullptr) library.closingEvents = dpaCreate(kListedIds);
    Dpa* const ids = library.closingEvents != nullptr ? dpaCreate(kListedIds) : nullptr;
    if (ids != nullptr) {
        *allLeft = endObjectsLocked(*ids);
    } else {
        pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr);
        pelmoQueue_DestroyEx(kWorkQueueId, nullptr, nullptr);
        pelmoTransport_Destroy(kIntraProcessTransportId);
    }
    return ids;
}

// What the close does after it has released the lock.
struct Leftover {
    Dpa* dispatchers;
    uint32_t workDispatcher;
    bool allLeft;  // of what transports had sent
};

Leftover closeLocked() PELMO_REQUIRES(library.lock) {
    poolStopReclaim();
    libraryOpen.store(false, std::memory_order_release);
    daemonLinksInterrupt();
    ++library.closeCount;
    EventManager_Stop();
    bool allLeft = true;
    Dpa* const dispatchers = endAllLocked(&allLeft);
    const Leftover leftover = {dispatchers, std::exchange(library.workDispatcher, 0), allLeft};
    poolThreadLeave();
    Tracing_Stop();
    return leftover;
}

// Joins the dispatchers' threads. The lock must be free: a callback on such a thread may be waiting
// for it.
void endDispatchers(const Leftover& leftover) {
    pelmoDispatcher_Destroy(leftover.workDispatcher);
    if (leftover.dispatchers == nullptr) return;
    destroyListed(*leftover.dispatchers, pelmoDispatcher_Destroy);
    dpaDestroy(leftover.dispatchers);
}

}  // namespace

void fixedObjectsEndLocked() {
    pelmoDispatcher_Destroy(std::exchange(library.workDispatcher, 0));
    pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr);
    pelmoTransport_Destroy(kIntraProcessTransportId);
    pelmoQueue_DestroyEx(kWorkQueueId, nullptr, nullptr);
    EventManager_Stop();
}

pelmoStatus pelmo_Close() {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    Leftover leftover;
    {
        const LockGuard guard(library.lock);
        if (!libraryIsOpen()) return kStatusNotInitialized;
        traceLine(kTraceLibrary, "pelmo_Close()");
        if (--library.openCount != 0) return kStatusSuccess;
        leftover = closeLocked();
    }
    endDispatchers(leftover);
    logPaceSettle();
    Cond_Broadcast(&library.closedCond);
    return leftover.allLeft ? kStatusSuccess : kStatusDeliveryFailed;
}
