// A link's life, and the calls that transports make.

#include "lib/transport/daemon/daemon_link.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/clock.h"
#include "lib/base/text.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/daemon/daemon_link_internal.h"
#include "lib/transport/daemon/interest.h"
#include "lib/transport/daemon/link_environment.h"
#include "lib/transport/ipq/ipq.h"

namespace {

constexpr size_t kHostNameBytes = 256;
constexpr size_t kPasswordEntryBytes = 4096;
constexpr const char* kUnknownUser = "Unknown user";

void noteUserName(char (&name)[kUserNameBytes]) {
    passwd entry;
    passwd* found = nullptr;
    char texts[kPasswordEntryBytes];
    const int error = getpwuid_r(geteuid(), &entry, texts, sizeof texts, &found);
    boundedCopy(name, error == 0 && found != nullptr ? found->pw_name : kUnknownUser, sizeof name);
}

uint32_t findLocalAddress() {
    char name[kHostNameBytes];
    uint32_t address = 0;
    if (gethostname(name, sizeof name) != 0) return 0;
    name[sizeof name - 1] = 0;
    return linkEnvironment.names.host(name, &address) ? address : 0;
}

// The text up to its first ":".
char* copyService(const char* service) {
    char* copy = concat2(service, "");
    if (copy != nullptr) copy[std::strcspn(copy, ":")] = 0;
    return copy;
}

void daemonLinkDestroy(DaemonLink* link) {
    std::free(link->specification);
    std::free(link->service);
    Lock_Destroy(&link->lock);
    std::free(link);
}

// No other thread can reach the link yet.
pelmoStatus fillLink(DaemonLink* link,
                     const char* service,
                     const char* daemon) PELMO_UNCHECKED_LOCKING {
    TimeSpec now;
    clockNow(&now);
    link->createSeconds = now.seconds;
    link->pid = static_cast<uint32_t>(getpid());
    link->queueSettings = {
        .blocksWhenFull = true, .batchMode = 0, .waitLimitBytes = kUsualWaitLimitBytes};
    noteUserName(link->userName);
    link->localAddress = findLocalAddress();
    link->service = copyService(service);
    if (link->service == nullptr) return kStatusNoMemory;

    DaemonSpecification specification;
    pelmoStatus status = specificationParse(&specification, daemon);
    if (status != kStatusSuccess) return status;
    link->specification = concat2(specification.text, "");
    if (link->specification == nullptr) return kStatusNoMemory;
    DialTarget& target = link->target;
    status = specificationResolve(&target.address, specification, linkEnvironment.names);
    if (status != kStatusSuccess) return status;
    const uint32_t address = target.address.address;
    target.isSecure = specification.isSecure;
    target.keepsAlive =
        address != 0 && address != hostOrder32(kLoopbackAddress) && address != link->localAddress;
    target.specification = link->specification;
    link->startsDaemon = !specification.namesHost;
    return kStatusSuccess;
}

pelmoStatus makeLink(DaemonLink** out, Transport* transport, const char* daemon)
    PELMO_REQUIRES(transport->header.lock) {
    auto* link = static_cast<DaemonLink*>(std::calloc(1, sizeof(DaemonLink)));
    if (link == nullptr) return kStatusNoMemory;
    link->transport = transport;
    if (Lock_Init(&link->lock, LockRank::kLink) != kStatusSuccess) {
        std::free(link);
        return kStatusNoMemory;
    }
    const pelmoStatus status = fillLink(link, transport->settings.service, daemon);
    if (status != kStatusSuccess) {
        daemonLinkDestroy(link);
        return status;
    }
    *out = link;
    return kStatusSuccess;
}

// The table's functions

// The checker doesn't know that the link's transport is this one.
pelmoStatus daemonLinkCreate(DaemonLink** out,
                             Transport* transport,
                             const char* daemon,
                             bool resume)
    PELMO_REQUIRES(transport->header.lock) PELMO_UNCHECKED_LOCKING {
    const pelmoStatus status = makeLink(out, transport, daemon);
    return status == kStatusSuccess ? linkConnect(*out, resume, true) : status;
}

DaemonLinkTexts textsOfLink(const DaemonLink* link) {
    return {.session = link->session, .daemon = link->specification};
}

SendLosses daemonLinkStop(Transport* transport, double deadline) {
    DaemonLink* const link = transport->link;
    Ipq* ipq = nullptr;
    uint32_t timer = kNoId;
    bool hasSent = false;
    {
        const LockGuard guard(link->lock);
        link->isStopped = true;
        hasSent = link->hasSent;
        ipq = std::exchange(link->ipq, nullptr);
        timer = std::exchange(link->reconnectTimer, kNoId);
    }
    connectsInterrupt(link);
    if (timer != kNoId) linkEnvironment.destroyTimer(timer, nullptr);
    IpqEnd end = {.deadline = deadline};
    if (ipq != nullptr) linkCloseQueue(ipq, true, &end);
    return hasSent ? end.losses : SendLosses{};
}

pelmoStatus daemonLinkSend(Transport* transport, pelmoMsg* message) {
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    Ipq* const ipq = linkTakeQueue(transport->link, true);
    if (ipq == nullptr) return kStatusDaemonNotConnected;
    const pelmoStatus status = linkSend(transport->link, ipq, message);
    ipqRelease(ipq);
    return status;
}

pelmoStatus daemonLinkSendVector(Transport* transport,
                                 std::span<pelmoMsg* const> messages,
                                 uint32_t* taken) {
    *taken = 0;
    if (messages.empty()) return kStatusInvalidMessage;
    Ipq* const ipq = linkTakeQueue(transport->link, true);
    if (ipq == nullptr) return kStatusDaemonNotConnected;
    const pelmoStatus status = ipqSendVector(ipq, messages, false, taken);
    linkNoteSend(transport->link, ipq, status);
    ipqRelease(ipq);
    return status;
}

// The queue to send by now, with a reference; null if the message waits, or can't be sent,
// as `*status` says.
Ipq* queueOrKeep(DaemonLink* link, pelmoMsg* message, DaemonVersion since, pelmoStatus* status) {
    const LockGuard guard(link->lock);
    if (link->ipq == nullptr) {
        *status = linkKeepLocked(link, message, since);
        return nullptr;
    }
    *status = kStatusSuccess;
    if (link->version < since) return nullptr;
    ipqRetain(link->ipq);
    return link->ipq;
}

pelmoStatus sendToDaemon(DaemonLink* link, pelmoMsg* message, DaemonVersion since) {
    pelmoStatus status = kStatusSuccess;
    Ipq* const ipq = queueOrKeep(link, message, since, &status);
    if (ipq == nullptr) return status;
    status = linkSend(link, ipq, message);
    ipqRelease(ipq);
    return status;
}

// A setting that a broken connection lost is among those that the next one begins with.
pelmoStatus control(Transport* transport, pelmoMsg* message, DaemonVersion since) {
    const pelmoStatus status = sendToDaemon(transport->link, message, since);
    const bool isLater = status == kStatusDaemonNotConnected || status == kStatusInvalidIoSource;
    return isLater ? kStatusSuccess : status;
}

pelmoStatus daemonLinkInterest(Transport* transport, const uint8_t* subject, const char* kind) {
    pelmoMsg* made = nullptr;
    pelmoStatus status = interestMessage(&made, subject, kind);
    if (status != kStatusSuccess) return status;
    status = linkRunInterestHooks(transport->link, &made);
    const HeldMessage message(made);
    if (status != kStatusSuccess) return status;
    return sendToDaemon(transport->link, message.get(), DaemonVersion{});
}

pelmoStatus daemonLinkHold(Transport* transport) {
    Ipq* const ipq = linkTakeQueue(transport->link);
    if (ipq == nullptr) return kStatusDaemonNotConnected;
    const pelmoStatus status = ipqHold(ipq);
    ipqRelease(ipq);
    return status;
}

pelmoStatus daemonLinkFlush(Transport* transport) {
    Ipq* const ipq = linkTakeQueue(transport->link);
    if (ipq == nullptr) return kStatusDaemonNotConnected;
    const pelmoStatus status = ipqFlush(ipq);
    linkNoteSend(transport->link, ipq, status);
    ipqRelease(ipq);
    return status;
}

// What a break loses is noted before what waits for a new connection.
DaemonLinkUnsent daemonLinkUnsent(Transport* transport) {
    DaemonLink* const link = transport->link;
    const LockGuard guard(link->lock);
    const bool waits = link->ipq != nullptr && link->hasSent;
    return {.waiting = waits ? ipqUnsent(link->ipq) : SendLosses{}, .lost = link->lost};
}

pelmoStatus daemonLinkSetBatchMode(Transport* transport, uint32_t mode) {
    DaemonLink* const link = transport->link;
    const LockGuard guard(link->lock);
    if (link->ipq == nullptr) return kStatusDaemonNotConnected;
    const pelmoStatus status = ipqSetBatchMode(link->ipq, mode);
    if (status == kStatusSuccess) link->queueSettings.batchMode = mode;
    return status;
}

pelmoStatus setBlocking(Transport* transport, bool blocking) {
    DaemonLink* const link = transport->link;
    const LockGuard guard(link->lock);
    if (link->ipq == nullptr) return kStatusDaemonNotConnected;
    link->queueSettings.blocksWhenFull = blocking;
    return ipqSetBlockWhenFull(link->ipq, blocking);
}

pelmoStatus setWaitLimit(Transport* transport, uint32_t limit) {
    DaemonLink* const link = transport->link;
    const LockGuard guard(link->lock);
    link->queueSettings.waitLimitBytes = limit != 0 ? limit : kUsualWaitLimitBytes;
    if (link->ipq != nullptr) ipqSetWaitLimit(link->ipq, limit);
    return kStatusSuccess;
}

pelmoStatus getWaitLimit(Transport* transport, uint32_t* out) {
    DaemonLink* const link = transport->link;
    const LockGuard guard(link->lock);
    *out = link->queueSettings.waitLimitBytes;
    return kStatusSuccess;
}

}  // namespace

void daemonLinkAttach() {
    daemonLinkOps = {.create = daemonLinkCreate,
                     .texts = textsOfLink,
                     .destroy = daemonLinkDestroy,
                     .stop = daemonLinkStop,
                     .send = daemonLinkSend,
                     .sendVector = daemonLinkSendVector,
                     .control = control,
                     .unsent = daemonLinkUnsent,
                     .hold = daemonLinkHold,
                     .flush = daemonLinkFlush,
                     .setBatchMode = daemonLinkSetBatchMode,
                     .setBlocking = setBlocking,
                     .setWaitLimit = setWaitLimit,
                     .getWaitLimit = getWaitLimit,
                     .interest = daemonLinkInterest};
}

void daemonLinksInterrupt() {
    connectsInterrupt(nullptr);
}

Ipq* linkTakeQueue(DaemonLink* link, bool sends) {
    const LockGuard guard(link->lock);
    if (link->ipq != nullptr) ipqRetain(link->ipq);
    link->hasSent = link->hasSent || (sends && link->ipq != nullptr);
    return link->ipq;
}

bool linkIsStopped(DaemonLink* link) {
    const LockGuard guard(link->lock);
    return link->isStopped;
}

pelmoStatus linkRunInterestHooks(DaemonLink* link, pelmoMsg** message) {
    Transport* const transport = link->transport;
    Id_Enter(&transport->header);
    const pelmoStatus status = Transport_RunHooks(transport, kHookInterest, message);
    Id_Leave(&transport->header);
    return status;
}

pelmoStatus linkSend(DaemonLink* link, Ipq* ipq, pelmoMsg* message) {
    const pelmoStatus status = ipqSend(ipq, message, false);
    linkNoteSend(link, ipq, status);
    return status;
}

void linkNoteSend(DaemonLink* link, Ipq* ipq, pelmoStatus status) {
    if (status == kStatusInvalidIoSource) linkBreak(link, ipq, true);
    if (status == kStatusNoMemory) linkBreak(link, ipq, false);
}
