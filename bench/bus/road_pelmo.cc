// The library and pmd. Listeners get their messages by callbacks on a queue that one thread
// dispatches, as applications do; senders keep a message and rewrite its payload. The second road
// is that of applications with high rates: small messages are gathered ahead of a write, and
// listeners take many in one call.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/bus/road.h"
#include "lib/msg/message_internal.h"
#include "lib/pelmo.h"

struct RoadClient {
    uint32_t transport;
    bool batches;
    pelmoMsg* message;  // what is sent; null ahead of the first
    char subject[128];  // that it is on
    RoadCallback callback;
    void* closure;
};

namespace {

constexpr uint32_t kRoomBytes = 200;  // of a message beyond its payload

void check(const char* what, pelmoStatus status) {
    if (status != kStatusSuccess) roadFail(what, pelmoStatus_GetText(status));
}

RoadClient* connect(uint16_t port) {
    static const bool opened = pelmo_Open() == kStatusSuccess;
    if (!opened) roadFail("open", "the library doesn't");
    auto* client = static_cast<RoadClient*>(std::calloc(1, sizeof(RoadClient)));
    char daemon[32];
    std::snprintf(daemon, sizeof daemon, "127.0.0.1:%u", port);
    check("connect", pelmoTransport_CreateNetwork(&client->transport, nullptr, nullptr, daemon));
    return client;
}

RoadClient* connectBatching(uint16_t port) {
    RoadClient* client = connect(port);
    client->batches = true;
    check("batch mode", pelmoTransport_SetBatchMode(client->transport, 1));
    return client;
}

void onMessage(uint32_t, pelmoMsg* msg, void* closure) {
    auto* client = static_cast<RoadClient*>(closure);
    const char* reply = nullptr;
    (void)pelmoMsg_GetReplySubject(msg, &reply);
    client->callback(client, reply, client->closure);
}

void onMessages(pelmoMsg** messages, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        onMessage(kNoId, messages[i], messages[i]->deliveryClosure);
    }
}

// All clients of the process share a dispatching thread.
uint32_t sharedQueue() {
    static uint32_t queue = kNoId;
    if (queue != kNoId) return queue;
    uint32_t dispatcher = kNoId;
    check("queue", pelmoQueue_Create(&queue));
    check("dispatcher", pelmoDispatcher_CreateEx(&dispatcher, queue, -1.0));
    return queue;
}

void listen(RoadClient* client, const char* subject, RoadCallback callback, void* closure) {
    client->callback = callback;
    client->closure = closure;
    uint32_t event = kNoId;
    const uint32_t queue = sharedQueue(), transport = client->transport;
    check("listener", client->batches ? pelmoEvent_CreateVectorListener(&event, queue, onMessages,
                                                                        transport, subject, client)
                                      : pelmoEvent_CreateListener(&event, queue, onMessage,
                                                                  transport, subject, client));
}

// The client's message on that subject, with that payload.
pelmoMsg* messageOf(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    const auto size = static_cast<uint32_t>(bytes.size());
    if (client->message == nullptr) {
        check("message", pelmoMsg_CreateEx(&client->message, size + kRoomBytes));
    }
    if (std::strcmp(client->subject, subject) != 0) {
        check("subject", pelmoMsg_SetSendSubject(client->message, subject));
        std::snprintf(client->subject, sizeof client->subject, "%s", subject);
    }
    check("payload", pelmoMsg_UpdateOpaque(client->message, "pad", bytes.data(), size, 0));
    return client->message;
}

void send(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    check("send", pelmoTransport_Send(client->transport, messageOf(client, subject, bytes)));
}

void request(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    pelmoMsg* reply = nullptr;
    check("request", pelmoTransport_SendRequest(client->transport,
                                                messageOf(client, subject, bytes), &reply, 5.0));
    pelmoMsg_Destroy(reply);
}

// The answer to a message of our own comes behind all that was sent ahead of it.
void flush(RoadClient* client) {
    char inbox[128];
    uint32_t queue = kNoId, event = kNoId;
    check("inbox", pelmoTransport_CreateInbox(client->transport, inbox, sizeof inbox));
    check("queue", pelmoQueue_Create(&queue));
    const auto ignore = [](uint32_t, pelmoMsg*, void*) {};
    check("listener",
          pelmoEvent_CreateListener(&event, queue, ignore, client->transport, inbox, nullptr));
    const uint8_t bytes[1] = {};
    send(client, inbox, std::span(bytes));
    check("flush", pelmoQueue_TimedDispatch(queue, 60.0));
    pelmoEvent_DestroyEx(event, nullptr);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

}  // namespace

constinit const Road kPelmoRoad = {"pmd", connect, listen, send, request, flush};
constinit const Road kPelmoBatchRoad = {"pmd-batch", connectBatching, listen, send, request, flush};
