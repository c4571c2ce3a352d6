// From NATS to the bus: plain subscriptions, durable consumers, and answers to requests both ways.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "bridge/bridge.h"
#include "bridge/say.h"
#include "programs/steady_time.h"

namespace {

constexpr int kFetchMessages = 128;
constexpr int64_t kFetchMilliseconds = 500;
constexpr int64_t kRetryTime = kSecond / 4;
constexpr int64_t kOpenRetryTime = 2 * kSecond;
constexpr int64_t kKeepAliveTime = 5 * kSecond;
constexpr int64_t kAnswerWait = 30 * kSecond;  // what a stream allows until it sends again
constexpr int kMostWaitingMessages = 1 << 20;

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
std::optional<pelmo::Message> fromNats(BridgeSide& side, natsMsg* message, bool isAgain) {
    Bridge& bridge = *side.bridge;
    BridgeMark mark = markOf(message, isAgain);
    if (pathEndsAt(mark.path, bridge.options.group)) {
        bridgeCount(bridge, &BridgeCounts::loops);
        return std::nullopt;
    }
    const std::string_view body(natsMsg_GetData(message),
                                static_cast<size_t>(natsMsg_GetDataLength(message)));
    const char* fault = nullptr;
    std::optional<pelmo::Message> made = bodyRead(side.codec, body, fault);
    if (made) {
        pathAdd(mark.path, bridge.options.group);
        markAdd(*made, mark);
        if (made->rawStatus() == kStatusSuccess) return made;
        fault = pelmoStatus_GetText(made->rawStatus());
    }
    bridgeCount(bridge, &BridgeCounts::badBodies, fault, natsMsg_GetSubject(message));
    return std::nullopt;
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

void onNatsMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    auto& side = *static_cast<BridgeSide*>(closure);
    Bridge& bridge = *side.bridge;
    std::optional<pelmo::Message> made = fromNats(side, message, false);
    const char* const subject = natsMsg_GetSubject(message);
    const char* const reply = natsMsg_GetReply(message);
    if (made && address(bridge, subject, *made)) {
        if (reply != nullptr) {
            sendRequest(bridge, *made, reply);
        } else {
            countSent(bridge, bridge.bus->send(*made), subject);
        }
    }
    natsMsg_Destroy(message);
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
        std::optional<pelmo::Message> made = fromNats(side, message, false);
        if (made) countSent(bridge, bridge.bus->send(made->to(reply)), reply);
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

// Sends, and again while there is no daemon. False at the end; what the bus will never take is
// counted and done with.
bool sendKept(Bridge& bridge, natsMsg* message, const pelmo::Message& made) {
    int64_t keepAliveAt = steadyNow() + kKeepAliveTime;
    for (;;) {
        const pelmo::Result<void> sent = bridge.bus->send(made);
        const pelmoStatus status = sent ? kStatusSuccess : sent.error().status();
        const bool mayPass = status == kStatusDaemonNotConnected ||
                             status == kStatusInvalidIoSource || status == kStatusNoMemory;
        if (!mayPass) return countSent(bridge, sent, natsMsg_GetSubject(message)), true;
        if (!pause(bridge, kRetryTime)) return false;
        if (steadyNow() < keepAliveAt) continue;
        (void)natsMsg_InProgress(message, nullptr);
        keepAliveAt = steadyNow() + kKeepAliveTime;
    }
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

// One that can't cross is acknowledged as well, so that the stream doesn't bring it again. False at
// the end.
bool deliverKept(BridgeSide& side, natsMsg* message) {
    Bridge& bridge = *side.bridge;
    std::optional<pelmo::Message> made = fromNats(side, message, bringsAgain(side, message));
    const bool crosses = made && address(bridge, natsMsg_GetSubject(message), *made);
    if (crosses && !sendKept(bridge, message, *made)) return false;
    (void)natsMsg_Ack(message, nullptr);
    return true;
}

void consume(BridgeSide& side) {
    Bridge& bridge = *side.bridge;
    std::string onBus, onNats;
    (void)subjectPattern(bridge.options.map, side.route->pattern, onBus, onNats);
    natsSubscription* consumer = nullptr;
    while (!isEnding(bridge)) {
        if (consumer == nullptr) consumer = openConsumer(side, onNats);
        if (consumer == nullptr) {
            (void)pause(bridge, kOpenRetryTime);
            continue;
        }
        natsMsgList list = {};
        const natsStatus status =
            natsSubscription_Fetch(&list, consumer, kFetchMessages, kFetchMilliseconds, nullptr);
        bool goesOn = true;
        for (int at = 0; at < list.Count && goesOn; ++at) {
            goesOn = deliverKept(side, list.Msgs[at]);
        }
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
    natsStatus status = natsConnection_QueueSubscribe(&side.subscription, bridge.nats.connection,
                                                      onNats.c_str(), queue, onNatsMessage, &side);
    if (status == NATS_OK) {
        const int mostBytes =
            static_cast<int>(std::min<uint32_t>(bridge.options.bufferMegabytes, 1024)) << 20;
        status =
            natsSubscription_SetPendingLimits(side.subscription, kMostWaitingMessages, mostBytes);
    }
    if (status != NATS_OK) fault = onNats + ": " + natsStatus_GetText(status);
    return status == NATS_OK;
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
    for (const auto& side : bridge.sides) {
        if (side->thread.joinable()) side->thread.join();
        natsSubscription_Destroy(side->subscription);
        side->subscription = nullptr;
    }
}
