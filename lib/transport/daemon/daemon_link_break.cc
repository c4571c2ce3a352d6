// A link's breaks, and the connects that repair them.

#include <utility>

#include "lib/base/log.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/library.h"
#include "lib/transport/daemon/daemon_link_internal.h"
#include "lib/transport/daemon/link_environment.h"
#include "lib/transport/ipq/ipq.h"

namespace {

void onQueueGone(void* closure) {
    Id_Release(&static_cast<DaemonLink*>(closure)->transport->header, false);
}

// The first who comes takes the queue off the link. One that isn't the link's yet, or whose return
// isn't reported yet, is only marked: its connect sees to it.
bool takeOffLocked(DaemonLink* link, Ipq* ipq, bool sendsAdvisory, SendLosses* losses)
    PELMO_REQUIRES(link->lock) {
    if (link->ipq == ipq && !link->isReturning) {
        link->ipq = nullptr;
        if (std::exchange(link->hasSent, false)) *losses = ipqUnsent(ipq);
        link->lost.messages += losses->messages;
        link->lost.bytes += losses->bytes;
        return true;
    }
    if (link->ipq == ipq || link->fresh.ipq == ipq) {
        link->fresh.isLost = true;
        link->fresh.sendsAdvisory = link->fresh.sendsAdvisory || sendsAdvisory;
    }
    return false;
}

// Is there more to do for the transport? A creation under way holds its lock, and is whole after
// that.
bool isAlive(Held<Transport>& held) {
    held.enter();
    const bool isDestroying = held->destroying;
    held.leave();
    return !isDestroying && libraryIsOpen();
}

// Runs the hooks of a kind that has no message; what they answer changes nothing. False for a
// transport that they destroyed.
bool runHooks(Held<Transport>& held, HookKind kind) {
    held.enter();
    (void)Transport_RunHooks(held.get(), kind, nullptr);
    held.leave();
    return isAlive(held);
}

pelmoStatus addLosses(pelmoMsg* advisory, const SendLosses& losses) {
    if (losses.messages == 0) return kStatusSuccess;
    const pelmoStatus status = pelmoMsg_AddU64(advisory, "messages_dropped", losses.messages, 0);
    if (status != kStatusSuccess) return status;
    return pelmoMsg_AddU64(advisory, "bytes_dropped", losses.bytes, 0);
}

void reportDisconnect(const Transport* transport, const SendLosses& losses) {
    pelmoMsg* made = nullptr;
    pelmoStatus status = advisoryCreate(&made, "WARN", "SYSTEM", "PMD.DISCONNECTED", nullptr);
    if (status == kStatusSuccess) {
        HeldMessage advisory(made);
        status = addLosses(made, losses);
        if (status == kStatusSuccess) {
            status = transportDistribute(transport->header.id, advisory.release());
        }
    }
    if (status != kStatusSuccess) {
        logPrint("unable to build disconnected message: %s", pelmoStatus_GetText(status));
    }
}

// How long the transport was without a connection.
void reportReturn(const Transport* transport, double seconds) {
    pelmoMsg* advisory = nullptr;
    pelmoStatus status = advisoryCreate(&advisory, "INFO", "SYSTEM", "PMD.RECONNECTED", nullptr);
    if (status == kStatusSuccess) {
        HeldMessage held(advisory);
        status = pelmoMsg_AddF64(advisory, "seconds", seconds, 0);
        if (status == kStatusSuccess) {
            status = transportDistribute(transport->header.id, held.release());
        }
    }
    if (status != kStatusSuccess) {
        logPrint("unable to build reconnected message: %s", pelmoStatus_GetText(status));
    }
}

void onReconnectTimer(uint32_t timer, pelmoMsg* message, void* closure);

pelmoStatus armLocked(DaemonLink* link, double seconds) PELMO_REQUIRES(link->lock) {
    // By the transport's id: a timer that fires at the destroy of the transport finds none.
    return linkEnvironment.createTimer(&link->reconnectTimer, kWorkQueueId, onReconnectTimer,
                                       seconds, idToItem(link->transport->header.id));
}

pelmoStatus armForBreak(DaemonLink* link) {
    const uint32_t random = linkEnvironment.random(kReconnectSpreadMs);
    const LockGuard guard(link->lock);
    if (link->isStopped || link->reconnectTimer != kNoId || !libraryIsOpen()) {
        return kStatusSuccess;
    }
    return armLocked(link, reconnectDelay(&link->breaks, linkEnvironment.now(), random));
}

// False if there is nothing to wait for, or the timer does the waiting.
bool hasToWaitHere(DaemonLink* link) {
    const LockGuard guard(link->lock);
    if (link->isStopped || !libraryIsOpen()) return false;
    return armLocked(link, kRetrySeconds) != kStatusSuccess;
}

bool waitHere(DaemonLink* link) {
    Connect connect;
    if (connectEnter(&connect, link) != kStatusSuccess) return false;
    const bool goesOn =
        libraryIsOpen() && !linkIsStopped(link) && connectSleep(&connect, kRetrySeconds);
    connectLeave(&connect);
    return goesOn;
}

// A connection that broke before it was the link's, or before its return was reported.
void seeToEarlyBreak(DaemonLink* link) {
    Ipq* ipq = nullptr;
    bool sendsAdvisory = false;
    {
        const LockGuard guard(link->lock);
        link->isReturning = false;
        const bool isThisOne = link->fresh.isLost && link->fresh.ipq == nullptr;
        if (!isThisOne) return;
        ipq = link->ipq;
        sendsAdvisory = link->fresh.sendsAdvisory;
        link->fresh = {};
    }
    if (ipq != nullptr) linkBreak(link, ipq, sendsAdvisory);
}

double secondsSinceBreak(DaemonLink* link) {
    const LockGuard guard(link->lock);
    return linkEnvironment.now() - link->breaks.lastSeconds;
}

// The checker doesn't know that the link's transport is the one that is held.
bool connectAgain(Held<Transport>& held) PELMO_UNCHECKED_LOCKING {
    DaemonLink* const link = held->link;
    held.enter();
    const pelmoStatus status = linkConnect(link, true, false);
    held.leave();
    if (status != kStatusSuccess) return false;
    const double seconds = secondsSinceBreak(link);
    if (runHooks(held, kHookReconnect)) reportReturn(held.get(), seconds);
    seeToEarlyBreak(link);
    return true;
}

void onReconnectTimer(uint32_t timer, pelmoMsg* /*message*/, void* closure) {
    Held<Transport> held;
    if (held.find(idFromItem(closure)) != kStatusSuccess) return;
    DaemonLink* const link = held->link;
    {
        const LockGuard guard(link->lock);
        if (link->reconnectTimer != timer) return;
        link->reconnectTimer = kNoId;
    }
    linkEnvironment.destroyTimer(timer, nullptr);
    while (!connectAgain(held) && hasToWaitHere(link) && waitHere(link)) {
    }
}

}  // namespace

void linkCloseQueue(Ipq* ipq, bool graceful, IpqEnd* end) {
    ipqClose(ipq, graceful, onQueueGone, end);
}

void linkBreak(DaemonLink* link, Ipq* ipq, bool sendsAdvisory) {
    SendLosses losses = {};
    {
        const LockGuard guard(link->lock);
        if (!takeOffLocked(link, ipq, sendsAdvisory, &losses)) return;
    }
    // The caller's reference to the transport may be the queue's own.
    Held<Transport> held;
    held.share(link->transport);
    linkCloseQueue(ipq, false, nullptr);
    if (!isAlive(held) || !runHooks(held, kHookDisconnect)) return;
    if (sendsAdvisory) reportDisconnect(held.get(), losses);
    const pelmoStatus status = armForBreak(link);
    if (status != kStatusSuccess) {
        logPrint("unable to set reconnect timer: %s.", pelmoStatus_GetText(status));
    }
}
