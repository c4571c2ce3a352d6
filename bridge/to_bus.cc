// From NATS to the bus: plain subscriptions, durable consumers, and answers to requests both ways.
//
// A thread for each route takes what waits and sends it together. What a durable consumer brought
// is acknowledged once the daemon has it. A send alone doesn't show that, since it ends in buffers
// on the way, which a daemon that is killed takes with it. So a probe follows each batch over the
// same connection, to an inbox of a second connection: when it is back, the daemon has passed on
// what came before it. If the connection breaks first, the batch is sent again, marked.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "bridge/bridge.h"
#include "bridge/say.h"
#include "programs/steady_time.h"

namespace {

constexpr int kMostFetchMessages = 512;
constexpr int kFirstFetchMessages = 64;
constexpr int kFetchBytes = 8 << 20;  // wanted at a time, by the last ones' size
constexpr int kMostPlainMessages = 128;
constexpr int64_t kFetchMilliseconds = 500;
constexpr int64_t kRetryTime = kSecond / 4;
constexpr int64_t kOpenRetryTime = 2 * kSecond;
constexpr int64_t kProbeTime = kSecond;        // until a probe, or a batch, is sent again
constexpr int64_t kAnswerWait = 10 * kSecond;  // what a stream allows until it sends again
constexpr int kMostWaitingMessages = 1 << 20;

// A message of NATS's on its way to the bus.
struct Taken {
    natsMsg* message = nullptr;
    BridgeMark mark = {};
    std::optional<pelmo::Message> made = {};  // none where it doesn't cross; it is counted then
};
using Batch = std::vector<Taken>;

bool isEnding(Bridge& bridge) {
    const std::lock_guard guard(bridge.lock);
    return bridge.isEnding;
}

// Waits, but not beyond the end. False at the end.
bool pause(Bridge& bridge, int64_t time) {
    std::unique_lock lock(bridge.lock);
    return !bridge.ends.wait_for(lock, std::chrono::nanoseconds(time),
                                 [&] { return bridge.isEnding; });
}

BridgeMark markOf(natsMsg* message, bool isAgain) {
    BridgeMark mark;
    const char* const path = natsHeaderOf(message, "Pelmo-Origin");
    const char* const sequence = natsHeaderOf(message, "Pelmo-Sequence");
    if (path != nullptr && pathIsGood(path)) mark.path = path;
    if (sequence != nullptr) mark.sequence = std::strtoull(sequence, nullptr, 10);
    mark.mayBeRepeat = isAgain || natsHeaderOf(message, "Pelmo-Repeat") != nullptr;
    return mark;
}

// A message for the bus with its mark and without subjects. None where it doesn't cross; it is
// counted then.
Taken fromNats(BridgeSide& side, natsMsg* message, bool isAgain) {
    Bridge& bridge = *side.bridge;
    Taken taken{message, markOf(message, isAgain)};
    if (pathEndsAt(taken.mark.path, bridge.options.group)) {
        bridgeCount(bridge, &BridgeCounts::loops);
        return taken;
    }
    const std::string_view body(natsMsg_GetData(message),
                                static_cast<size_t>(natsMsg_GetDataLength(message)));
    const char* fault = nullptr;
    taken.made = bodyRead(side.codec, body, fault);
    if (taken.made) {
        pathAdd(taken.mark.path, bridge.options.group);
        markAdd(side.markField, *taken.made, taken.mark);
        if (taken.made->rawStatus() == kStatusSuccess) return taken;
        fault = pelmoStatus_GetText(taken.made->rawStatus());
        taken.made.reset();
    }
    bridgeCount(bridge, &BridgeCounts::badBodies, fault, natsMsg_GetSubject(message));
    return taken;
}

// False where the subject has no counterpart on the bus; it is counted then.
bool address(Bridge& bridge, const char* subject, pelmo::Message& message) {
    std::string onBus;
    if (subjectToBus(bridge.options.map, subject, onBus) &&
        message.to(onBus).rawStatus() == kStatusSuccess) {
        return true;
    }
    bridgeCount(bridge, &BridgeCounts::badSubjects, "can't cross to the bus", subject);
    return false;
}

// What the bus said to a message: it has it, or refuses it for good.
void countSent(Bridge& bridge, const pelmo::Result<void>& sent, const std::string& subject) {
    if (sent) return bridgeCount(bridge, &BridgeCounts::toBus);
    bridgeCount(bridge, &BridgeCounts::busRefused, sent.error().text(), subject);
}

bool mayPass(pelmoStatus status) {
    return status == kStatusDaemonNotConnected || status == kStatusInvalidIoSource ||
           status == kStatusNoMemory;
}

// Sends those that cross, in order, and counts them. False where what came by a stream has to be
// sent again.
bool sendTogether(BridgeSide& side, Batch& batch) {
    Bridge& bridge = *side.bridge;
    std::vector<pelmoMsg*> each;
    for (const Taken& taken : batch) {
        if (taken.made) each.push_back(taken.made->raw());
    }
    if (each.empty()) return true;
    uint32_t left = 0;
    const pelmoStatus together = pelmoTransport_SendvTaken(
        pelmo::number(bridge.bus->id()), each.data(), static_cast<uint32_t>(each.size()), &left);
    {
        const std::lock_guard guard(bridge.lock);
        bridge.counts.toBus += left;
    }
    if (together == kStatusSuccess) return true;
    // One at a time the others show which of them it is.
    for (Taken& taken : batch) {
        if (!taken.made || left-- > 0) continue;
        left = 0;
        const pelmo::Result<void> sent = bridge.bus->send(*taken.made);
        if (!side.route->keptBy.empty() && !sent && mayPass(sent.error().status())) return false;
        countSent(bridge, sent, natsMsg_GetSubject(taken.message));
        if (!sent) taken.made.reset();
    }
    return true;
}

void destroy(Batch& batch) {
    for (const Taken& taken : batch) {
        natsMsg_Destroy(taken.message);
    }
    batch.clear();
}

// Requests that came from NATS

void answerNats(Bridge& bridge, const std::string& reply, pelmo::MessageView answer) {
    BridgeMark mark;
    std::string body;
    const pelmoStatus status = bodyWrite(bridge.answerCodec, answer, body, mark);
    pathAdd(mark.path, bridge.options.group);
    natsMsg* const made =
        status == kStatusSuccess
            ? natsLinkMessage(reply, "", body, {{"Pelmo-Origin", mark.path.c_str()}})
            : nullptr;
    if (made == nullptr || natsConnection_PublishMsg(bridge.nats.connection, made) != NATS_OK) {
        bridgeCount(bridge, &BridgeCounts::requestsLate, "an answer can't cross to NATS", reply);
    }
    natsMsg_Destroy(made);
}

// A handle is never destroyed with the lock held.
std::unique_ptr<pelmo::Request> takeRequest(Bridge& bridge, uint64_t number) {
    const std::lock_guard guard(bridge.lock);
    const auto found = bridge.toBusRequests.find(number);
    if (found == bridge.toBusRequests.end()) return nullptr;
    std::unique_ptr<pelmo::Request> request = std::move(found->second);
    bridge.toBusRequests.erase(found);
    return request;
}

// 0 where too many wait already; it is counted then.
uint64_t noteRequest(Bridge& bridge) {
    const std::lock_guard guard(bridge.lock);
    if (bridge.toBusRequests.size() >= kMostBridgeRequests) return ++bridge.counts.requestsLate, 0;
    ++bridge.counts.requests;
    bridge.toBusRequests.emplace(++bridge.lastRequest, nullptr);
    return bridge.lastRequest;
}

void sendRequest(Bridge& bridge, const pelmo::Message& message, const std::string& reply) {
    const uint64_t number = noteRequest(bridge);
    if (number == 0) return;
    const auto onAnswer = [&bridge, number,
                           reply](const pelmo::Result<pelmo::MessageView>& answer) {
        if (answer) {
            answerNats(bridge, reply, *answer);
        } else {
            bridgeCount(bridge, &BridgeCounts::requestsLate);
        }
        (void)takeRequest(bridge, number);
    };
    auto sent = bridge.bus->request(*bridge.queue, message,
                                    pelmo::Seconds(bridge.options.requestSeconds), onAnswer);
    if (!sent) {
        (void)takeRequest(bridge, number);
        return countSent(bridge, sent.error(), reply);
    }
    bridgeCount(bridge, &BridgeCounts::toBus);
    auto request = std::make_unique<pelmo::Request>(std::move(*sent));
    const std::lock_guard guard(bridge.lock);
    const auto found = bridge.toBusRequests.find(number);
    if (found != bridge.toBusRequests.end()) found->second = std::move(request);
}

// Plain subjects

void sendPlain(BridgeSide& side, Batch& batch) {
    if (!batch.empty()) (void)sendTogether(side, batch);
    destroy(batch);
}

// Requests leave one by one, after what came before them.
void addPlain(BridgeSide& side, Batch& batch, natsMsg* message) {
    Bridge& bridge = *side.bridge;
    batch.push_back(fromNats(side, message, false));
    Taken& taken = batch.back();
    if (taken.made && !address(bridge, natsMsg_GetSubject(message), *taken.made)) {
        taken.made.reset();
    }
    const char* const reply = natsMsg_GetReply(message);
    if (reply == nullptr || !taken.made) return;
    const pelmo::Message request = *std::exchange(taken.made, std::nullopt);
    const std::string replyText = reply;
    sendPlain(side, batch);
    sendRequest(bridge, request, replyText);
}

void takePlain(BridgeSide& side) {
    Batch batch;
    while (!isEnding(*side.bridge)) {
        natsMsg* message = nullptr;
        natsStatus status =
            natsSubscription_NextMsg(&message, side.subscription, kFetchMilliseconds);
        for (int taken = 0; status == NATS_OK; ++taken) {
            addPlain(side, batch, message);
            if (taken == kMostPlainMessages) break;
            status = natsSubscription_NextMsg(&message, side.subscription, 0);
        }
        sendPlain(side, batch);
        const bool isWell =
            status == NATS_OK || status == NATS_TIMEOUT || status == NATS_SLOW_CONSUMER;
        if (!isWell) (void)pause(*side.bridge, kRetryTime);
    }
    int waiting = 0;
    int bytes = 0;
    (void)natsSubscription_GetPending(side.subscription, &waiting, &bytes);
    natsMsg* message = nullptr;
    while (waiting-- > 0 && natsSubscription_NextMsg(&message, side.subscription, 0) == NATS_OK) {
        addPlain(side, batch, message);
    }
    sendPlain(side, batch);
}

// The reply subject on the bus; empty where the request isn't known, or is late.
std::string takeReply(Bridge& bridge, uint64_t number) {
    const std::lock_guard guard(bridge.lock);
    const auto found = bridge.fromBusRequests.find(number);
    if (found == bridge.fromBusRequests.end()) return {};
    std::string reply = std::move(found->second.reply);
    bridge.fromBusRequests.erase(found);
    return reply;
}

// Answers from NATS to requests of the bus. Where no service is there the asker learns it by its
// own limit, as on the bus.
void onNatsAnswer(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    auto& side = *static_cast<BridgeSide*>(closure);
    Bridge& bridge = *side.bridge;
    const std::string_view subject = natsMsg_GetSubject(message);
    const char* const digits = subject.substr(subject.rfind('.') + 1).data();
    const std::string reply = takeReply(bridge, std::strtoull(digits, nullptr, 10));
    if (!reply.empty() && natsMsg_IsNoResponders(message)) {
        bridgeCount(bridge, &BridgeCounts::requestsLate, "no service answers on NATS", reply);
    } else if (!reply.empty()) {
        Taken taken = fromNats(side, message, false);
        if (taken.made) countSent(bridge, bridge.bus->send(taken.made->to(reply)), reply);
    }
    natsMsg_Destroy(message);
}

// Durable consumers

natsSubscription* openConsumer(BridgeSide& side, const std::string& subject) {
    const BridgeOptions& options = side.bridge->options;
    jsSubOptions wanted;
    jsSubOptions_Init(&wanted);
    wanted.ManualAck = true;
    wanted.Config.AckPolicy = js_AckExplicit;
    wanted.Config.AckWait = kAnswerWait;
    wanted.Config.DeliverPolicy = js_DeliverAll;
    wanted.Config.FilterSubject = subject.c_str();
    wanted.Config.ReplayPolicy = options.replayOriginal ? js_ReplayOriginal : js_ReplayInstant;
    natsSubscription* subscription = nullptr;
    jsErrCode code = jsErrCode{};
    const natsStatus status =
        js_PullSubscribe(&subscription, side.bridge->nats.streams, subject.c_str(),
                         side.route->keptBy.c_str(), nullptr, &wanted, &code);
    if (status == NATS_OK) return subscription;
    bridgeSayFault(0, "a durable consumer can't be had",
                   subject + ": " + natsFaultText(status, code));
    return nullptr;
}

// Has it been brought before? A server that takes over from another one may not know of the last
// ones that this one had brought, so its count of deliveries isn't enough.
bool bringsAgain(BridgeSide& side, natsMsg* message) {
    jsMsgMetaData* meta = nullptr;
    if (natsMsg_GetMetaData(&meta, message) != NATS_OK) return false;
    const bool isAgain = meta->NumDelivered > 1 || meta->Sequence.Stream <= side.lastOfStream;
    side.lastOfStream = std::max(side.lastOfStream, meta->Sequence.Stream);
    jsMsgMetaData_Destroy(meta);
    return isAgain;
}

void keepAlive(const Batch& batch) {
    for (const Taken& taken : batch) {
        (void)natsMsg_InProgress(taken.message, nullptr);
    }
}

uint64_t busLife(Bridge& bridge) {
    const std::lock_guard guard(bridge.lock);
    return bridge.counts.busBreaks;
}

// The number of the probe. 0: it couldn't be sent.
uint64_t sendProbe(Bridge& bridge) {
    uint64_t number = 0;
    {
        const std::lock_guard guard(bridge.lock);
        number = ++bridge.probesSent;
    }
    pelmo::Message probe(bridge.probeSubject);
    probe.add("number", number);
    return bridge.bus->send(probe) ? number : 0;
}

// Until the daemon has what was sent in this life of the connection. False where it broke, or at
// the end. The second connection may have broken as well, so the probe is repeated.
bool awaitProbe(Bridge& bridge, const Batch& batch, uint64_t life) {
    const uint64_t first = sendProbe(bridge);
    for (uint64_t last = first; last != 0; last = sendProbe(bridge)) {
        std::unique_lock lock(bridge.lock);
        bridge.ends.wait_for(lock, std::chrono::nanoseconds(kProbeTime), [&] {
            return bridge.probesBack >= first || bridge.counts.busBreaks != life;
        });
        if (bridge.counts.busBreaks != life) return false;
        if (bridge.probesBack >= first) return true;
        if (bridge.isEnding) return false;
        lock.unlock();
        keepAlive(batch);
    }
    return false;
}

// Sends until the daemon has all. False at the end.
bool sendKept(BridgeSide& side, Batch& batch) {
    Bridge& bridge = *side.bridge;
    for (;;) {
        const uint64_t life = busLife(bridge);
        if (sendTogether(side, batch) && awaitProbe(bridge, batch, life)) return true;
        if (!pause(bridge, kProbeTime)) return false;
        keepAlive(batch);
        for (Taken& taken : batch) {
            taken.mark.mayBeRepeat = true;
            if (taken.made) markAdd(side.markField, *taken.made, taken.mark);
        }
    }
}

// One that can't cross is acknowledged as well, so that the stream doesn't bring it again.
void deliverKept(BridgeSide& side, const natsMsgList& list) {
    Batch batch;
    int bytes = 0;
    for (int at = 0; at < list.Count; ++at) {
        natsMsg* const message = list.Msgs[at];
        bytes += natsMsg_GetDataLength(message);
        batch.push_back(fromNats(side, message, bringsAgain(side, message)));
        std::optional<pelmo::Message>& made = batch.back().made;
        if (made && !address(*side.bridge, natsMsg_GetSubject(message), *made)) made.reset();
    }
    const int each = bytes / std::max(list.Count, 1) + 1;
    side.fetchMessages = std::clamp(kFetchBytes / each, 1, kMostFetchMessages);
    if (batch.empty() || !sendKept(side, batch)) return;
    for (const Taken& taken : batch) {
        (void)natsMsg_Ack(taken.message, nullptr);
    }
}

// libnats 3.4 takes messages of an earlier request that came late, asks for a whole batch besides,
// and writes past the end of its list. A list of one can't overflow.
int fetchNow(const BridgeSide& side, natsSubscription* consumer) {
    int late = 0;
    int bytes = 0;
    const natsStatus status = natsSubscription_GetPending(consumer, &late, &bytes);
    return status == NATS_OK && late == 0 ? side.fetchMessages : 1;
}

void consume(BridgeSide& side) {
    Bridge& bridge = *side.bridge;
    std::string onBus, onNats;
    (void)subjectPattern(bridge.options.map, side.route->pattern, onBus, onNats);
    side.fetchMessages = kFirstFetchMessages;
    natsSubscription* consumer = nullptr;
    while (!isEnding(bridge)) {
        if (consumer == nullptr) consumer = openConsumer(side, onNats);
        if (consumer == nullptr) {
            (void)pause(bridge, kOpenRetryTime);
            continue;
        }
        natsMsgList list = {};
        const natsStatus status = natsSubscription_Fetch(&list, consumer, fetchNow(side, consumer),
                                                         kFetchMilliseconds, nullptr);
        deliverKept(side, list);
        natsMsgList_Destroy(&list);
        if (status == NATS_OK || status == NATS_TIMEOUT) continue;
        bridgeSayFault(0, "a durable consumer gives nothing", natsFaultText(status));
        natsSubscription_Destroy(std::exchange(consumer, nullptr));
        (void)pause(bridge, kRetryTime);
    }
    natsSubscription_Destroy(consumer);
}

bool openRoute(Bridge& bridge, const BridgeRoute& route, std::string& fault) {
    std::string onBus, onNats;
    if (!subjectPattern(bridge.options.map, route.pattern, onBus, onNats))
        return fault = route.pattern, false;
    BridgeSide& side = *bridge.sides.emplace_back(std::make_unique<BridgeSide>());
    side.bridge = &bridge;
    side.route = &route;
    if (!route.keptBy.empty()) {
        side.thread = std::thread(consume, std::ref(side));
        return true;
    }
    const char* const queue = bridge.options.group.c_str();
    natsStatus status = natsConnection_QueueSubscribeSync(
        &side.subscription, bridge.nats.connection, onNats.c_str(), queue);
    if (status == NATS_OK) {
        const int mostBytes =
            static_cast<int>(std::min<uint32_t>(bridge.options.bufferMegabytes, 1024)) << 20;
        status =
            natsSubscription_SetPendingLimits(side.subscription, kMostWaitingMessages, mostBytes);
    }
    if (status != NATS_OK) return fault = onNats + ": " + natsStatus_GetText(status), false;
    side.thread = std::thread(takePlain, std::ref(side));
    return true;
}

}  // namespace

bool toBusOpen(Bridge& bridge, std::string& fault) {
    auto& answers = *bridge.sides.emplace_back(std::make_unique<BridgeSide>());
    answers.bridge = &bridge;
    const natsStatus status =
        natsConnection_Subscribe(&answers.subscription, bridge.nats.connection,
                                 (bridge.natsInbox + ".*").c_str(), onNatsAnswer, &answers);
    if (status != NATS_OK) return fault = natsStatus_GetText(status), false;
    return std::ranges::all_of(bridge.options.toBus, [&](const BridgeRoute& route) {
        return openRoute(bridge, route, fault);
    });
}

void toBusClose(Bridge& bridge) {
    // A daemon that takes nothing doesn't hold up the end.
    if (bridge.bus)
        (void)pelmoTransport_SetBlockingOnExcessiveBacklog(pelmo::number(bridge.bus->id()), false);
    for (const auto& side : bridge.sides) {
        if (side->thread.joinable()) side->thread.join();
        natsSubscription_Destroy(side->subscription);
        side->subscription = nullptr;
    }
}
