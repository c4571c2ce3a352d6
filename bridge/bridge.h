// The bridge: joins the bus and NATS, and is the one place where threads, sockets and the deciders
// (outbox, group, subjects, body) meet.
//
//     from the bus   a dispatcher's callback -> outbox -> the publishing thread -> NATS
//     to the bus     a thread for each pattern, which takes what waits -> bus
//
// A callback of the bus never waits for NATS: what isn't published waits in the outbox, within its
// bound. A thread that sends to the bus waits as any sender does, while the daemon takes nothing or
// is away, so a stream waits and plain messages are dropped and counted once libnats's own bound is
// reached.
//
// Every message that comes in either crosses, or is counted under the reason why it didn't.
//
// Locks: `lock` guards what follows it in the record. It is held neither during a call of libnats's
// or of the library's that can wait nor while handles of the bus are destroyed, which wait for
// their callbacks. What precedes it is made before the threads that use it, and ends after them.
//
// The bus is used by pelmo.hpp, so that listeners, requests and the dispatcher end by themselves.

#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bridge/body.h"
#include "bridge/group.h"
#include "bridge/nats_link.h"
#include "bridge/options.h"
#include "bridge/outbox.h"
#include "lib/pelmo.hpp"

// Since the start, of both directions.
struct BridgeCounts {
    uint64_t toNats = 0;  // published, repeats included
    uint64_t toBus = 0;
    uint64_t loops = 0;         // came by this group already
    uint64_t badSubjects = 0;   // have no counterpart on the other side
    uint64_t badBodies = 0;     // aren't messages
    uint64_t tooLarge = 0;      // for NATS
    uint64_t requests = 0;      // that crossed
    uint64_t requestsLate = 0;  // weren't answered in time, or were too many
    uint64_t busRefused = 0;    // sends to the bus that failed for good
    uint64_t natsDropped = 0;   // plain messages that libnats had no room for
    uint64_t natsBreaks = 0;
    uint64_t busBreaks = 0;
};

// A request of the bus that waits for its answer from NATS.
struct BridgeRequest {
    std::string reply;  // on the bus
    int64_t until = 0;
};

inline constexpr size_t kMostBridgeRequests = 10'000;  // each way

struct Bridge;

// What a listener on the bus, or a subscription, was made for.
struct BridgeSide {
    Bridge* bridge = nullptr;
    const BridgeRoute* route = nullptr;        // null: answers to requests
    BodyCodec codec = {};                      // used by the one thread that its messages come on
    pelmo::Message markField = {};             // the same
    natsSubscription* subscription = nullptr;  // null for a stream's, which its thread has alone
    std::thread thread;
    int fetchMessages = 0;
    uint64_t lastOfStream = 0;  // the highest number that it has brought
};

struct Bridge {
    BridgeOptions options;
    std::string idPrefix;   // of the message ids in streams
    std::string natsInbox;  // where answers to requests from the bus come
    pelmo::Library library;
    NatsLink nats;
    natsSubscription* beats = nullptr;
    std::optional<pelmo::Transport> bus;
    std::optional<pelmo::Transport> probeBus;  // where probes come back
    std::string probeSubject;
    std::optional<pelmo::Queue> queue;
    std::vector<pelmo::Listener> listeners;
    std::optional<pelmo::Dispatcher> dispatcher;
    BodyCodec answerCodec;  // of the dispatching thread
    std::vector<std::unique_ptr<BridgeSide>> sides;
    std::thread publisher;

    std::mutex lock;
    std::condition_variable wake;  // of the publisher
    std::condition_variable ends;  // of those that wait for nothing else
    bool isEnding = false;
    bool natsIsUp = false;
    size_t natsMostBytes = 0;
    std::string natsEnd;  // why libnats gave the connection up; empty while it hasn't
    Group group;
    Outbox kept;  // for streams
    Outbox plain;
    BridgeCounts counts;
    uint64_t lastRequest = 0;
    uint64_t probesSent = 0;
    uint64_t probesBack = 0;  // the highest number of them
    std::map<uint64_t, BridgeRequest>
        fromBusRequests;  // by the number in their reply subject on NATS
    // Those of NATS that wait for an answer from the bus; null while one is being sent.
    std::map<uint64_t, std::unique_ptr<pelmo::Request>> toBusRequests;
};

// Runs until a signal. The exit status.
[[nodiscard]] int bridgeRun(const BridgeOptions& options);

// Counts one more, and logs it where there are words for it.
void bridgeCount(Bridge& bridge,
                 uint64_t BridgeCounts::*member,
                 const char* what = nullptr,
                 const std::string& about = {});

// From the bus (from_bus.cc)

[[nodiscard]] pelmoStatus fromBusOpen(Bridge& bridge);

// The publishing thread, until the end and all that waits has left, or five seconds after it.
void fromBusPublish(Bridge& bridge);
void fromBusAnswered(Bridge& bridge, uint64_t number, natsMsg* answer);

// To the bus (to_bus.cc)

[[nodiscard]] bool toBusOpen(Bridge& bridge, std::string& fault);
void toBusClose(Bridge& bridge);
