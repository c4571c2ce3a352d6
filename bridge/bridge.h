// The bridge: joins the bus and NATS, and is the one place where threads, sockets and the deciders
// (outbox, group, subjects, body) meet.
//
//     from the bus   a dispatcher's callback -> outbox -> the publishing thread -> NATS
//     to the bus     a thread for each durable consumer, a callback of libnats for plain subjects
//     -> bus
//
// A callback of the bus never waits for NATS: what isn't published waits in the outbox, within its
// bound. A thread that sends to the bus waits as any sender does, while the daemon takes nothing or
// is away, so a stream waits and plain messages are dropped and counted once libnats's own bound is
// reached.
//
// Every message that comes in either crosses, or is counted under the reason why it didn't.
//
// Locks: `lock` guards the outboxes, the group, the requests and the counts. It is held neither
// during a call of libnats's that can wait nor during a send to the bus.

#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bridge/body.h"
#include "bridge/group.h"
#include "bridge/nats_link.h"
#include "bridge/options.h"
#include "bridge/outbox.h"

// Since the start, of both directions.
struct BridgeCounts {
    uint64_t toNats = 0;  // published, repeats included
    uint64_t toBus = 0;
    uint64_t loops = 0;         // came by this group already
    uint64_t badSubjects = 0;   // have no counterpart on the other side
    uint64_t badBodies = 0;     // aren't messages
    uint64_t tooLarge = 0;      // for NATS
    uint64_t requests = 0;      // that crossed
    uint64_t requestsLate = 0;  // nobody answered in time
    uint64_t busRefused = 0;    // sends to the bus that failed for good
    uint64_t natsDropped = 0;   // plain messages that libnats had no room for
    uint64_t natsBreaks = 0;
    uint64_t busBreaks = 0;
};

// One that waits for its answer.
struct BridgeRequest {
    std::string reply;  // where the answer goes
    int64_t until = 0;
};

inline constexpr size_t kMostBridgeRequests = 10'000;

struct Bridge;

// What a listener on the bus, or a subscription, was made for.
struct BridgeSide {
    Bridge* bridge = nullptr;
    const BridgeRoute* route = nullptr;
    BodyCodec codec = {};  // used by the one thread that its messages come on
    natsSubscription* subscription = nullptr;
    std::thread thread;         // of a durable consumer
    uint64_t lastOfStream = 0;  // the highest number that it has brought
};

struct Bridge {
    BridgeOptions options;
    NatsLink nats;
    uint32_t bus = 0;
    uint32_t queue = 0;
    uint32_t dispatcher = 0;
    std::string idPrefix;   // of the message ids in streams
    BodyCodec answerCodec;  // of the dispatching thread
    std::string natsInbox;  // where answers to requests from the bus come
    natsSubscription* natsAnswers = nullptr;
    natsSubscription* beats = nullptr;
    std::vector<std::unique_ptr<BridgeSide>> sides;
    std::thread publisher;

    std::mutex lock;
    std::condition_variable wake;  // of the publisher
    std::condition_variable ends;  // of those that wait for nothing else
    bool isEnding = false;
    bool natsIsUp = false;
    std::string natsEnd;  // why libnats gave the connection up; empty while it hasn't
    bool busIsUp = true;
    Group group;
    Outbox kept;  // for streams
    Outbox plain;
    BridgeCounts counts;
    BridgeCounts reported;
    uint64_t lastRequest = 0;
    std::map<uint64_t, BridgeRequest>
        fromBusRequests;  // by the number in their reply subject on NATS
    std::map<uint32_t, BridgeRequest> toBusRequests;  // by the listener for their answer on the bus
};

// Runs until a signal. The exit status.
[[nodiscard]] int bridgeRun(const BridgeOptions& options);

// A line in the log, with its time.
void bridgeSay(const std::string& text);

// The same fault at most once a second, and ever more rarely up to once a minute while it lasts;
// `counter` is its count, which the line has.
void bridgeSayFault(uint64_t counter, const char* what, const std::string& about);

// From the bus (from_bus.cc)

[[nodiscard]] pelmoStatus fromBusOpen(Bridge& bridge);

// The publishing thread, until the end and all that waits has left, or five seconds after it.
void fromBusPublish(Bridge& bridge);
void fromBusAnswered(Bridge& bridge, uint64_t number, natsMsg* answer);

// To the bus (to_bus.cc)

[[nodiscard]] bool toBusOpen(Bridge& bridge, std::string& fault);
void toBusClose(Bridge& bridge);

// Requests whose time is over. The lock is held; listeners that aren't needed any more are handed
// out.
void toBusExpire(Bridge& bridge, int64_t now, std::vector<uint32_t>& outListeners);
