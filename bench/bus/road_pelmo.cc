// The library and pmd. Listeners get their messages by callbacks on a queue that one thread
// dispatches, as applications do.

#include <cstdio>
#include <cstdlib>

#include "bench/bus/road.h"
#include "lib/pelmo.h"

struct RoadClient {
    uint32_t transport;
    uint32_t queue;
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
    check("batch mode", pelmoTransport_SetBatchMode(client->transport, 1));
    return client;
}

void onMessage(uint32_t, pelmoMsg* msg, void* closure) {
    auto* client = static_cast<RoadClient*>(closure);
    const char* reply = nullptr;
    (void)pelmoMsg_GetReplySubject(msg, &reply);
    client->callback(client, reply, client->closure);
}

void listen(RoadClient* client, const char* subject, RoadCallback callback, void* closure) {
    client->callback = callback;
    client->closure = closure;
    static uint32_t queue = 0;  // all clients of the process share a dispatching thread
    if (queue == 0) {
        uint32_t dispatcher = 0;
        check("queue", pelmoQueue_Create(&queue));
        check("dispatcher", pelmoDispatcher_CreateEx(&dispatcher, queue, -1.0));
    }
    uint32_t event = 0;
    check("listener",
          pelmoEvent_CreateListener(&event, queue, onMessage, client->transport, subject, client));
}

pelmoMsg* makeMessage(const char* subject, std::span<const uint8_t> bytes) {
    pelmoMsg* msg = nullptr;
    const auto size = static_cast<uint32_t>(bytes.size());
    check("message", pelmoMsg_CreateEx(&msg, size + kRoomBytes));
    check("subject", pelmoMsg_SetSendSubject(msg, subject));
    check("payload", pelmoMsg_AddOpaque(msg, "pad", bytes.data(), size, 0));
    return msg;
}

void send(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    pelmoMsg* msg = makeMessage(subject, bytes);
    check("send", pelmoTransport_Send(client->transport, msg));
    pelmoMsg_Destroy(msg);
}

void request(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    pelmoMsg* msg = makeMessage(subject, bytes);
    pelmoMsg* reply = nullptr;
    check("request", pelmoTransport_SendRequest(client->transport, msg, &reply, 5.0));
    pelmoMsg_Destroy(msg);
    pelmoMsg_Destroy(reply);
}

// The answer to a request of our own comes behind all that was sent ahead of it.
void flush(RoadClient* client) {
    char inbox[128];
    uint32_t queue = 0, event = 0;
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
