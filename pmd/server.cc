#include "pmd/server.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/base/huge_heap.h"
#include "lib/base/log.h"
#include "lib/base/log_pace.h"
#include "lib/base/text.h"
#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/transport/ipq/ipq.h"
#include "lib/transport/socket/socket.h"
#include "pmd/absence.h"
#include "pmd/client.h"
#include "pmd/oska_wire.h"
#include "pmd/port.h"
#include "pmd/slow_readers.h"
#include "pmd/sparse_run.h"

namespace {

constexpr double kTickSeconds = 0.25;
constexpr double kPaceTickSeconds = 0.002;
constexpr double kTrimSeconds = 1.0;          // after a client's end, without another one
constexpr double kGraceSeconds = 1.0;         // after the last client
constexpr double kFirstClientSeconds = 60.0;  // for the first one
constexpr double kDrainSeconds = 2.0;
constexpr double kCloseSeconds = 2.0;
constexpr double kLookSeconds = 0.01;
constexpr uint32_t kOwnDescriptors = 64;  // that aren't clients'

constexpr const char* kLargest = "memory is short, and it takes the most";
constexpr double kShortAgainSeconds = 0.25;  // what a client had is given back by then

struct Server {
    // Constant while it runs.
    PmdOptions options{};
    void (*ended)() = nullptr;
    OskaWire wire{};

    Exchange exchange PELMO_GUARDED_BY(daemonLock){};
    Client* clients PELMO_GUARDED_BY(daemonLock) = nullptr;
    uint32_t clientCount PELMO_GUARDED_BY(daemonLock) = 0;
    uint32_t unstarted PELMO_GUARDED_BY(daemonLock) = 0;  // clients with a deadline
    Absences absences PELMO_GUARDED_BY(daemonLock){};

    uint64_t batch PELMO_GUARDED_BY(daemonLock) = 0;  // number of the last one

    // Lists of one batch, empty between two.
    Client* touched PELMO_GUARDED_BY(daemonLock) = nullptr;
    Client* doomed PELMO_GUARDED_BY(daemonLock) = nullptr;

    SlowReaders slow PELMO_GUARDED_BY(daemonLock){};
    double shortAt PELMO_GUARDED_BY(daemonLock) = 0;  // when memory was last found short

    // The copy of the run that is being delivered, empty while no receiver needs one.
    const void* copiedRun PELMO_GUARDED_BY(daemonLock) = nullptr;
    Dpa* copies PELMO_GUARDED_BY(daemonLock) = nullptr;

    bool isStopping PELMO_GUARDED_BY(daemonLock) = false;
    double endAt PELMO_GUARDED_BY(daemonLock) = 0;   // 0: no end is in sight
    double trimAt PELMO_GUARDED_BY(daemonLock) = 0;  // 0: no client has gone since the last time
    uint32_t tickTimer PELMO_GUARDED_BY(daemonLock) = kNoId;
    uint32_t paceTimer PELMO_GUARDED_BY(daemonLock) = kNoId;
};

constinit Server server;

void onTick(uint32_t, pelmoMsg*, void*);
void onPaceTick(uint32_t, pelmoMsg*, void*);

// Timers, which are there only while something waits for them

void startTimer(uint32_t* timer, pelmoEventCallback callback, double seconds)
    PELMO_REQUIRES(daemonLock) {
    if (*timer != kNoId) return;
    const pelmoStatus status =
        pelmoEvent_CreateTimer(timer, kTimerQueueId, callback, seconds, nullptr);
    if (status != kStatusSuccess) logPaced("no timer: %s", pelmoStatus_GetText(status));
}

void endTimer(uint32_t* timer) PELMO_REQUIRES(daemonLock) {
    const uint32_t ended = std::exchange(*timer, kNoId);
    if (ended != kNoId) pelmoEvent_DestroyEx(ended, nullptr);
}

bool needsTick() PELMO_REQUIRES(daemonLock) {
    return server.unstarted != 0 || server.endAt != 0 || server.trimAt != 0 || portNeedsTick() ||
           server.slow.over != nullptr || server.absences.count != 0 ||
           oskaWireIsOpen(&server.wire) || server.exchange.router.leaving != nullptr;
}

void adjustTick() PELMO_REQUIRES(daemonLock) {
    if (needsTick() && !server.isStopping) {
        startTimer(&server.tickTimer, onTick, kTickSeconds);
    } else {
        endTimer(&server.tickTimer);
    }
}

void adjustPaceTick() PELMO_REQUIRES(daemonLock) {
    if (server.slow.paced != nullptr) {
        startTimer(&server.paceTimer, onPaceTick, kPaceTickSeconds);
    } else {
        endTimer(&server.paceTimer);
    }
}

// Ends of clients

void doom(Client* client, const char* why) PELMO_REQUIRES(daemonLock) {
    if (client->fault != nullptr) return;
    client->fault = why;
    client->nextDoomed = server.doomed;
    server.doomed = client;
}

void endDeadline(Client* client) PELMO_REQUIRES(daemonLock) {
    if (client->deadline == 0) return;
    client->deadline = 0;
    --server.unstarted;
}

void unlink(Client* client) PELMO_REQUIRES(daemonLock) {
    (client->previous != nullptr ? client->previous->next : server.clients) = client->next;
    if (client->next != nullptr) client->next->previous = client->previous;
    --server.clientCount;
}

// Reports the end to the others, but not to clients that have a fault. A session that may come back
// is reported later.
void leave(Client* client) PELMO_REQUIRES(daemonLock) {
    const char* const text = clientText(client);
    if (client->endName != nullptr && client->peer.member.realm != nullptr) {
        char description[160];
        boundedFormat(description, sizeof description, "client %s was cut off: %s", text,
                      client->fault);
        exchangeAdvise(&server.exchange, &client->peer, {"WARN", client->endName, description});
    }
    const bool mayComeBack = !server.isStopping && !clientSaidGoodbye(client);
    if (mayComeBack && absenceKeep(&server.absences, &client->peer, text, clockSteadySeconds())) {
        return;
    }
    absenceTell(&server.exchange, &client->peer, text);
    exchangeLeave(&server.exchange, &client->peer);
}

// A client that has gone gives its descriptor back, and may have been the last one.
void onFewer() PELMO_REQUIRES(daemonLock) {
    const double now = clockSteadySeconds();
    portDescriptorsAreBack(now);
    server.trimAt = now + kTrimSeconds;
    const bool isLast = server.clientCount == 0 && !server.options.permanent;
    if (isLast) server.endAt = std::max(server.endAt, now + kGraceSeconds);
    adjustTick();
}

void bury(Client* client) PELMO_REQUIRES(daemonLock) {
    if (client->fault[0] != '\0') {
        logPacedAs(client->fault, "client %s: %s", clientText(client), client->fault);
    }
    endDeadline(client);
    unlink(client);
    slowForget(&server.slow, client);
    adjustPaceTick();
    leave(client);
    clientClose(client);
    onFewer();
}

// Batches

// Writes what the batch has queued; the receiver of which least waits.
Client* flushTouched() PELMO_REQUIRES(daemonLock) {
    Client* fastest = nullptr;
    uint64_t bytes = 0;
    while (Client* client = server.touched) {
        server.touched = client->nextTouched;
        client->isTouched = false;
        if (ipqEndBatch(client->ipq) != kStatusSuccess) doom(client, kClientGone);
        if (client->fault != nullptr) continue;
        const Backlog backlog = clientBacklog(client);
        slowLook(&server.slow, client, backlog, server.batch);
        if (fastest != nullptr && backlog.waitingBytes >= bytes) continue;
        fastest = client;
        bytes = backlog.waitingBytes;
    }
    if (server.slow.over != nullptr) adjustTick();
    return fastest;
}

void dropCopies() PELMO_REQUIRES(daemonLock) {
    server.copiedRun = nullptr;
    for (uint32_t i = 0; i < server.copies->count; ++i) {
        msgRelease(static_cast<pelmoMsg*>(server.copies->items[i]));
    }
    server.copies->count = 0;
}

// An end may bring an advisory to others, and that the end of some of them.
void settle() PELMO_REQUIRES(daemonLock) {
    dropCopies();
    for (;;) {
        (void)flushTouched();
        Client* client = server.doomed;
        if (client == nullptr) return;
        server.doomed = client->nextDoomed;
        bury(client);
    }
}

void touch(Client* client) PELMO_REQUIRES(daemonLock) {
    if (client->isTouched) return;
    client->isTouched = true;
    client->nextTouched = server.touched;
    server.touched = client;
    ipqBeginBatch(client->ipq);
}

void onPaceTick(uint32_t, pelmoMsg*, void*) {
    const LockGuard guard(daemonLock);
    slowPaceTick(&server.slow, clockSteadySeconds());
    adjustPaceTick();
    settle();
}

// Memory: if all take too much, the client that takes most is cut off. The next one isn't chosen
// until the memory of the last one has been freed.
void relieve() PELMO_REQUIRES(daemonLock) {
    if (bufferBytesCounted() <= server.options.memoryBytes) return;
    const double now = clockSteadySeconds();
    const bool isBack = clientsAlive() == server.clientCount && server.doomed == nullptr;
    if (!isBack && now - server.shortAt < kShortAgainSeconds) return;
    Client* largest = nullptr;
    uint64_t most = 0;
    for (Client* client = server.clients; client != nullptr; client = client->next) {
        const uint64_t bytes = client->fault == nullptr ? clientMemory(client) : 0;
        if (bytes <= most) continue;
        largest = client;
        most = bytes;
    }
    if (largest == nullptr) return;
    server.shortAt = now;
    largest->endName = "CLIENT.MEMORY";
    doom(largest, kLargest);
}

// What the exchange does

// What is queued for a receiver that is behind keeps no more memory than it needs. Without memory
// for a copy it's the run itself.
MessageRun runForLong(MessageRun run) PELMO_REQUIRES(daemonLock) {
    if (server.copiedRun != run.data()) {
        dropCopies();
        server.copiedRun = run.data();
        if (runIsSparse(run)) (void)runCopy(run, server.copies);
    }
    if (server.copies->count == 0) return run;
    return {reinterpret_cast<pelmoMsg**>(server.copies->items), server.copies->count};
}

void queue(Client* client, MessageRun run) PELMO_REQUIRES(daemonLock) {
    touch(client);
    const pelmoStatus status = ipqSendVector(client->ipq, run, false);
    if (status == kStatusNoMemory) {
        logPaced("no memory for messages to clients: some are lost");
    } else if (status != kStatusSuccess) {
        doom(client, kClientGone);
    }
}

void onDeliver(void*, Member* to, MessageRun run) PELMO_REQUIRES(daemonLock) {
    auto* client = static_cast<Client*>(to->owner);
    if (client->fault == nullptr) queue(client, client->isBehind ? runForLong(run) : run);
}

void onTell(void*, Member* to, pelmoMsg* message) PELMO_REQUIRES(daemonLock) {
    auto* client = static_cast<Client*>(to->owner);
    if (client->fault == nullptr) queue(client, {&message, 1});
}

void onPublish(void*, MessageRun run) PELMO_REQUIRES(daemonLock) {
    const double now = clockSteadySeconds();
    for (const pelmoMsg* message : run) {
        oskaWireAdd(&server.wire, {msgImage(message), message->length}, now);
    }
}

void onCutOff(void*, Member* member, const char* why) PELMO_REQUIRES(daemonLock) {
    if (member->owner == nullptr) return absenceEnd(&server.absences, member);
    doom(static_cast<Client*>(member->owner), why);
}

// What connections report

void onOpened(Client* client) PELMO_REQUIRES(daemonLock) {
    exchangeEnter(&server.exchange, &client->peer, client, client->address);
}

void onReceived(Client* client, MessageRun messages) PELMO_REQUIRES(daemonLock) {
    if (client->fault != nullptr) return;
    ++server.batch;
    const char* fault = exchangeTake(&server.exchange, &client->peer, messages);
    if (peerHasStarted(&client->peer)) {
        endDeadline(client);
        server.endAt = 0;
    }
    Client* fastest = flushTouched();
    if (oskaWireIsOpen(&server.wire)) oskaWireFlush(&server.wire, clockSteadySeconds());
    if (fault != nullptr) {
        doom(client, fault);
    } else if (client->fault == nullptr) {
        slowPace(&server.slow, client, fastest);
        adjustPaceTick();
    }
    slowNoteFed(&server.slow, client, server.batch);
    relieve();
    settle();
}

void onGrown(Client*) PELMO_REQUIRES(daemonLock) {
    relieve();
    settle();
}

void onFailed(Client* client, const char* why) PELMO_REQUIRES(daemonLock) {
    doom(client, why);
    settle();
}

// Accepting

void addClient(Socket* socket) PELMO_REQUIRES(daemonLock) {
    Client* client = clientMake(socket);
    if (client == nullptr) return;
    client->deadline = clockSteadySeconds() + kStartSeconds;
    client->next = server.clients;
    if (client->next != nullptr) client->next->previous = client;
    server.clients = client;
    ++server.clientCount;
    ++server.unstarted;
    adjustTick();
}

void refuse(Socket* socket) {
    const uint32_t address = hostOrder32(socketPeerAddress(socket));
    logPaced("refused a client of %u.%u.%u.%u: there are %u already", address >> 24,
             address >> 16 & 0xff, address >> 8 & 0xff, address & 0xff, server.options.mostClients);
    socketDestroy(socket);
}

void onAccepted(Socket* socket) PELMO_REQUIRES(daemonLock) {
    if (server.clientCount < server.options.mostClients) {
        addClient(socket);
    } else {
        refuse(socket);
    }
}

void onPortWaits() PELMO_REQUIRES(daemonLock) {
    adjustTick();
}

// Housekeeping

void endLateStarts(double now) PELMO_REQUIRES(daemonLock) {
    if (server.unstarted == 0) return;
    for (Client* client = server.clients; client != nullptr; client = client->next) {
        if (client->deadline != 0 && client->deadline <= now) {
            doom(client, "it didn't start a session in time");
        }
    }
    settle();
}

// True once, when the daemon has come to its end by itself.
bool endsByItself(double now) PELMO_REQUIRES(daemonLock) {
    if (portWasHandedOver()) return portHandOverEnds(now);
    if (server.endAt == 0 || now < server.endAt || server.clientCount != 0) return false;
    server.endAt = 0;
    return true;
}

// True once, some time after the last of a burst of clients has gone.
bool trimIsDue(double now) PELMO_REQUIRES(daemonLock) {
    if (server.trimAt == 0 || now < server.trimAt) return false;
    server.trimAt = 0;
    return true;
}

void onTick(uint32_t, pelmoMsg*, void*) {
    bool ends = false, trims = false;
    {
        const LockGuard guard(daemonLock);
        if (server.isStopping) return;
        const double now = clockSteadySeconds();
        endLateStarts(now);
        slowJudge(&server.slow, now);
        absenceSettle(&server.absences, now);
        settle();
        (void)routerSweep(&server.exchange.router);
        portTick(now);
        if (oskaWireIsOpen(&server.wire)) oskaWireTick(&server.wire, now);
        ends = endsByItself(now);
        trims = trimIsDue(now);
        adjustTick();
        logPaceSettle();
    }
    if (trims) hugeHeapTrim();
    if (ends) server.ended();
}

// Start and stop

// As many descriptors as the clients need, if the system allows it.
void raiseDescriptorLimit(uint32_t clients) {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    const rlim_t wanted = std::min<rlim_t>(limit.rlim_max, rlim_t{clients} + kOwnDescriptors);
    if (limit.rlim_cur >= wanted) return;
    limit.rlim_cur = wanted;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

// Clients on other machines learn the address that they reach the daemon by only if it is bound to
// that one; a session's name needs it only to be unique.
SessionGround groundOf(const PmdOptions& options) {
    TimeSpec now;
    clockNow(&now);
    const auto milliseconds =
        uint64_t{static_cast<uint32_t>(now.seconds)} * 1000 + now.nanoseconds / 1'000'000;
    const uint32_t address = options.address != 0 ? options.address : hostOrder32(0x7f000001);
    return {milliseconds, static_cast<uint32_t>(getpid()), address, options.port};
}

bool startExchange(const PmdOptions& options, std::string& error) {
    const ExchangeOps ops = {onDeliver, onTell, options.oska ? onPublish : nullptr, onCutOff};
    const LockGuard guard(daemonLock);
    server.copies = dpaCreate(1);
    if (server.copies == nullptr ||
        !exchangeInit(&server.exchange, groundOf(options), ops, nullptr)) {
        server.copies = dpaDestroy(server.copies);
        error = "no memory";
        return false;
    }
    server.slow = {options.backlogBytes, doom, nullptr, nullptr};
    server.absences = {&server.exchange, nullptr, nullptr, 0};
    if (!options.permanent) server.endAt = clockSteadySeconds() + kFirstClientSeconds;
    return true;
}

void endExchange() PELMO_REQUIRES(daemonLock) {
    absenceFree(&server.absences);
    exchangeFree(&server.exchange);
    server.copies = dpaDestroy(server.copies);
}

void closeAll() PELMO_REQUIRES(daemonLock) {
    for (Client* client = server.clients; client != nullptr; client = client->next) {
        doom(client, kClientGone);
    }
    settle();
}

bool allHasLeft() PELMO_REQUIRES(daemonLock) {
    for (const Client* client = server.clients; client != nullptr; client = client->next) {
        if (client->ipq != nullptr && ipqBacklog(client->ipq).messages != 0) return false;
    }
    return true;
}

// Waits, without the lock, until the test holds or the time is over.
template <typename Test>
void waitUntil(double seconds, Test test) PELMO_REQUIRES(daemonLock) {
    Cond never;
    if (Cond_Init(&never) != kStatusSuccess) return;
    const double end = clockSteadySeconds() + seconds;
    while (!test() && clockSteadySeconds() < end) {
        (void)Cond_TimedWait(&never, &daemonLock, kLookSeconds);
    }
    Cond_Destroy(&never);
}

}  // namespace

bool serverStart(const PmdOptions& options, void (*ended)(), std::string& error) {
    server.options = options;
    server.ended = ended;
    raiseDescriptorLimit(options.mostClients);
    bufferCountBytes();
    const pelmoStatus status = pelmo_Open();
    if (status != kStatusSuccess) {
        error = pelmoStatus_GetText(status);
        return false;
    }
    clientSetOps({onOpened, onReceived, onGrown, onFailed});
    if (startExchange(options, error)) {
        const bool wired = !options.oska || oskaWireOpen(&server.wire, options, error);
        if (wired && portOpen(options, {onAccepted, onPortWaits}, error)) {
            const LockGuard guard(daemonLock);
            adjustTick();
            logPaceBegin();
            portOffer(options);
            return true;
        }
        oskaWireClose(&server.wire);
        const LockGuard guard(daemonLock);
        endExchange();
    }
    pelmo_Close();
    return false;
}

void serverStop() {
    {
        const LockGuard guard(daemonLock);
        server.isStopping = true;
        adjustTick();
    }
    portClose();
    {
        const LockGuard guard(daemonLock);
        waitUntil(kDrainSeconds, allHasLeft);
        closeAll();
        endTimer(&server.paceTimer);
        waitUntil(kCloseSeconds, [] { return clientsAlive() == 0; });
        endExchange();
    }
    oskaWireClose(&server.wire);
    pelmo_Close();
}
