// A link's connect: from the dial to a connection that has all start and interest messages.

#include <cstdlib>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/clock.h"
#include "lib/containers/dpa.h"
#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/runtime/library.h"
#include "lib/transport/daemon/daemon_link_internal.h"
#include "lib/transport/daemon/direct_endpoint.h"
#include "lib/transport/daemon/interest.h"
#include "lib/transport/daemon/link_environment.h"
#include "lib/transport/ipq/ipq.h"

namespace {

constexpr double kOldSeconds = 5.0;
constexpr uint32_t kNoByteLimit = 0;

// Callbacks of a queue; the closure is the link, which the queue's reference to the transport
// keeps.

void onMessages(Ipq*, std::span<pelmoMsg* const> messages, void* closure) {
    Transport_DeliverBatch(static_cast<DaemonLink*>(closure)->transport, messages);
}

void onError(Ipq* ipq, void* closure) {
    linkBreak(static_cast<DaemonLink*>(closure), ipq, true);
}

void onFastProducer(Ipq*,
                    uint32_t /*level*/,
                    uint32_t waitingMessages,
                    uint32_t /*droppedMessages*/,
                    uint64_t /*droppedBytes*/,
                    void* closure) {
    pelmoMsg* advisory = nullptr;
    if (advisoryCreate(&advisory, "WARN", "SYSTEM", "CLIENT.FASTPRODUCER", nullptr) !=
        kStatusSuccess) {
        return;
    }
    if (pelmoMsg_AddU32(advisory, "waiting", waitingMessages, 0) != kStatusSuccess) {
        msgRelease(advisory);
        return;
    }
    (void)transportDistribute(static_cast<DaemonLink*>(closure)->transport->header.id, advisory);
}

// Messages that wait for the connection

void freeWaiting(Dpa* waiting) {
    for (uint32_t i = 0; waiting != nullptr && i < waiting->count; ++i) {
        auto* kept = static_cast<WaitingMessage*>(waiting->items[i]);
        msgRelease(kept->message);
        std::free(kept);
    }
    dpaDestroy(waiting);
}

void beginFresh(DaemonLink* link, Ipq* ipq) {
    const LockGuard guard(link->lock);
    link->fresh = {.ipq = ipq, .waiting = nullptr, .isLost = false, .sendsAdvisory = false};
}

void endFresh(DaemonLink* link) {
    Dpa* waiting = nullptr;
    {
        const LockGuard guard(link->lock);
        waiting = link->fresh.waiting;
        link->fresh = {};
    }
    freeWaiting(waiting);
}

void sendWaiting(DaemonLink* link, Ipq* ipq, Dpa* waiting) {
    DaemonVersion version = {};
    {
        const LockGuard guard(link->lock);
        version = link->version;
    }
    for (uint32_t i = 0; i < waiting->count; ++i) {
        const auto* kept = static_cast<const WaitingMessage*>(waiting->items[i]);
        if (kept->since <= version) (void)linkSend(link, ipq, kept->message);
    }
    freeWaiting(waiting);
}

// The session

pelmoStatus makeStart(DaemonLink* link, bool resume, pelmoMsg** out) {
    Transport* const transport = link->transport;
    Id_Enter(&transport->header);
    const NetworkSettings settings = transport->settings;
    const pelmoStatus status =
        sessionStartMessage(out, {.userName = link->userName,
                                  .session = link->session,
                                  .service = link->service,
                                  .network = settings.network,
                                  .pid = link->pid,
                                  .resume = resume,
                                  .localAddress = link->localAddress,
                                  .description = settings.description,
                                  .httpAddress = settings.httpAddress,
                                  .echo = settings.echo,
                                  .hide = settings.hide,
                                  .reliabilitySeconds = settings.reliabilitySeconds});
    Id_Leave(&transport->header);
    return status;
}

pelmoStatus sendStart(DaemonLink* link, Ipq* ipq, bool resume) {
    pelmoMsg* message = nullptr;
    pelmoStatus status = makeStart(link, resume, &message);
    if (status != kStatusSuccess) return status;
    status = ipqSend(ipq, message, false);
    msgRelease(message);
    const bool isLost = status == kStatusInvalidIoSource || status == kStatusTimeout;
    return isLost ? kStatusDaemonNotConnected : status;
}

// The first message that comes, keep-alives aside.
pelmoStatus awaitReply(const Dialed& dialed, Connect* connect, HeldMessage& reply) {
    while (reply == nullptr) {
        pelmoMsg* message = nullptr;
        const pelmoStatus status = ipqReadOne(dialed.ipq, &message);
        if (status == kStatusNoMemory) return status;
        if (status != kStatusSuccess) return kStatusDaemonNotConnected;
        reply.reset(message);
        if (reply == nullptr &&
            (clockSteadySeconds() >= dialed.deadline || connectIsInterrupted(connect))) {
            return kStatusDaemonNotConnected;
        }
    }
    return kStatusSuccess;
}

// A service may name a port where others reach the transport's inboxes without the daemon: that
// needs a daemon that has no network between it and us, or that says it routes.
pelmoStatus openDirectPort(DaemonLink* link, const SessionReply& reply, DirectPeer* self) {
    const uint32_t address = link->target.address.address;
    const bool isNear = address == 0 || address == hostOrder32(kLoopbackAddress) || reply.isRouting;
    if (!isNear) return kStatusSuccess;
    DirectPort wanted = {};
    Id_Enter(&link->transport->header);
    const pelmoStatus status =
        specificationDirectPort(&wanted, link->transport->settings.service, linkEnvironment.names);
    Id_Leave(&link->transport->header);
    if (status != kStatusSuccess || !wanted.isWanted) return status;
    const bool isOwn = reply.isRouting && link->localAddress != 0;
    self->host = isOwn ? hostOrder32(link->localAddress) : reply.address;
    self->port = hostOrder16(wanted.port);
    return directEndpointOpen(link->transport, self);
}

pelmoStatus nameSession(DaemonLink* link, SessionReply& reply) {
    DirectPeer self = {.host = reply.address, .port = 0};
    const pelmoStatus status = openDirectPort(link, reply, &self);
    if (status != kStatusSuccess) return status;
    if (reply.gob[0] == 0) {
        sessionMakeGob(reply.gob, {link, link->createSeconds, link->pid});
    }
    return sessionName(link->session, {.address = self.host,
                                       .directPort = self.port,
                                       .clientId = reply.clientId,
                                       .gob = reply.gob});
}

pelmoStatus takeReply(DaemonLink* link, pelmoMsg* message) {
    SessionReply reply;
    const pelmoStatus status = sessionReadReply(&reply, message);
    if (status != kStatusSuccess) return status;
    {
        const LockGuard guard(link->lock);
        link->version = reply.version;
    }
    return link->session[0] == 0 ? nameSession(link, reply) : kStatusSuccess;
}

// Blocks on the caller's thread until the daemon has answered, at most until the deadline.
pelmoStatus exchangeStarts(DaemonLink* link, const Dialed& dialed, Connect* connect, bool resume) {
    ipqSetDeadline(dialed.ipq, dialed.deadline);
    const bool former = ipqSetBlocking(dialed.ipq, true);
    pelmoStatus status = sendStart(link, dialed.ipq, resume);
    HeldMessage reply;
    if (status == kStatusSuccess) status = awaitReply(dialed, connect, reply);
    (void)ipqSetBlocking(dialed.ipq, former);
    ipqSetDeadline(dialed.ipq, 0);
    if (status == kStatusSuccess) status = takeReply(link, reply.get());
    return status == kStatusSuccess ? sendStart(link, dialed.ipq, resume) : status;
}

// From here on the queue holds a reference to the transport.
pelmoStatus setCallbacks(DaemonLink* link, Ipq* ipq) {
    Id_AddRef(&link->transport->header);
    pelmoStatus status = ipqSetErrorCallback(ipq, onError, link);
    if (status == kStatusSuccess) status = ipqSetReadCallback(ipq, onMessages, link);
    return status == kStatusSuccess ? status : kStatusNoMemory;
}

// Interest. A message that can't be sent breaks the connection; the next one announces all again.

void announce(DaemonLink* link, Ipq* ipq, const uint8_t* subject) {
    pelmoMsg* made = nullptr;
    pelmoStatus status = interestMessage(&made, subject, kInterestStart);
    if (status != kStatusSuccess) return linkNoteSend(link, ipq, status);
    status = linkRunInterestHooks(link, &made);
    const HeldMessage message(made);
    if (status == kStatusSuccess) (void)linkSend(link, ipq, message.get());
}

void announceAll(DaemonLink* link, Ipq* ipq) {
    uint8_t own[kSubjectMaxBytes];
    if (interestOwnInboxes(own, link->session) == kStatusSuccess) announce(link, ipq, own);
    uint8_t* subjects = nullptr;
    size_t bytes = 0;
    Id_Enter(&link->transport->header);
    const bool isListed = transportListInterest(link->transport, &subjects, &bytes);
    Id_Leave(&link->transport->header);
    if (!isListed) return linkNoteSend(link, ipq, kStatusNoMemory);
    for (size_t at = 0; at < bytes; at += subjectLength(subjects + at)) {
        announce(link, ipq, subjects + at);
    }
    std::free(subjects);
}

// A connection that the daemon knows all of, but for what waits; null without one.
pelmoStatus makeConnection(DaemonLink* link, bool resume, Ipq** out) {
    Connect connect;
    pelmoStatus status = connectEnter(&connect, link);
    if (status != kStatusSuccess) return status;
    Dialed dialed = {};
    status = linkIsStopped(link) ? kStatusDaemonNotConnected
                                 : dialDaemon(&dialed, link->target, link->startsDaemon, &connect);
    if (status == kStatusSuccess) {
        *out = dialed.ipq;
        beginFresh(link, dialed.ipq);
        status = exchangeStarts(link, dialed, &connect, resume);
        if (connectIsInterrupted(&connect)) status = kStatusDaemonNotConnected;
        (void)connectWatch(&connect, nullptr, nullptr);
    }
    connectLeave(&connect);
    return status;
}

void applyLocked(DaemonLink* link, Ipq* ipq) PELMO_REQUIRES(link->lock) {
    const QueueSettings settings = link->queueSettings;
    constexpr bool kDiscards = false;
    (void)ipqSetAgeCheck(ipq, kDiscards, kOldSeconds, kNoByteLimit, onFastProducer, link);
    ipqSetWaitLimit(ipq, settings.waitLimitBytes);
    ipqSetBlockWhenFull(ipq, settings.blocksWhenFull);
    if (settings.batchMode != 0) (void)ipqSetBatchMode(ipq, settings.batchMode);
}

// The queue becomes the link's once nothing waits any more. Null if it has; else what waits, or why
// it can't.
Dpa* takeOverLocked(DaemonLink* link, Ipq* ipq, bool isFirst, pelmoStatus* status)
    PELMO_REQUIRES(link->lock) {
    *status = kStatusDaemonNotConnected;
    if (link->isStopped || !libraryIsOpen() || (isFirst && link->fresh.isLost)) return nullptr;
    *status = kStatusSuccess;
    if (link->fresh.waiting != nullptr) return std::exchange(link->fresh.waiting, nullptr);
    applyLocked(link, ipq);
    link->ipq = ipq;
    link->fresh.ipq = nullptr;
    link->isReturning = !isFirst;
    return nullptr;
}

pelmoStatus takeOver(DaemonLink* link, Ipq* ipq, bool isFirst)
    PELMO_REQUIRES(link->transport->header.lock) {
    for (;;) {
        pelmoStatus status = kStatusSuccess;
        Dpa* waiting = nullptr;
        {
            const LockGuard guard(link->lock);
            waiting = takeOverLocked(link, ipq, isFirst, &status);
        }
        if (waiting == nullptr) return status;
        Id_Leave(&link->transport->header);
        sendWaiting(link, ipq, waiting);
        Id_Enter(&link->transport->header);
    }
}

}  // namespace

pelmoStatus linkKeepLocked(DaemonLink* link, pelmoMsg* message, DaemonVersion since) {
    FreshConnection& fresh = link->fresh;
    if (fresh.ipq == nullptr) return kStatusDaemonNotConnected;
    if (fresh.waiting == nullptr) fresh.waiting = dpaCreate(1);
    auto* kept = static_cast<WaitingMessage*>(std::malloc(sizeof(WaitingMessage)));
    if (fresh.waiting == nullptr || kept == nullptr || !dpaAppend(fresh.waiting, kept)) {
        std::free(kept);
        fresh.isLost = true;
        return kStatusNoMemory;
    }
    msgRetain(message);
    *kept = {.message = message, .since = since};
    return kStatusSuccess;
}

pelmoStatus linkConnect(DaemonLink* link, bool resume, bool isFirst) {
    Ipq* ipq = nullptr;
    bool hasCallbacks = false;
    Id_Leave(&link->transport->header);
    pelmoStatus status = makeConnection(link, resume, &ipq);
    if (status == kStatusSuccess) {
        hasCallbacks = true;
        status = setCallbacks(link, ipq);
    }
    if (status == kStatusSuccess) announceAll(link, ipq);
    Id_Enter(&link->transport->header);
    if (status == kStatusSuccess) status = takeOver(link, ipq, isFirst);
    if (status == kStatusSuccess) return status;
    Id_Leave(&link->transport->header);
    endFresh(link);
    if (hasCallbacks) {
        linkCloseQueue(ipq, false, nullptr);
    } else if (ipq != nullptr) {
        ipqClose(ipq, false, nullptr);
    }
    Id_Enter(&link->transport->header);
    return status;
}
