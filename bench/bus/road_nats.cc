// libnats and nats-server, with the library's own defaults but for limits that would lose messages.

#include <nats/nats.h>

#include <cstdio>
#include <cstdlib>

#include "bench/bus/road.h"

struct RoadClient {
    natsConnection* connection;
    RoadCallback callback;
    void* closure;
};

namespace {

void check(const char* what, natsStatus status) {
    if (status != NATS_OK) roadFail(what, natsStatus_GetText(status));
}

RoadClient* connect(uint16_t port) {
    auto* client = static_cast<RoadClient*>(std::calloc(1, sizeof(RoadClient)));
    natsOptions* options = nullptr;
    char url[64];
    std::snprintf(url, sizeof url, "nats://127.0.0.1:%u", port);
    check("options", natsOptions_Create(&options));
    check("url", natsOptions_SetURL(options, url));
    check("delivery", natsOptions_UseGlobalMessageDelivery(options, true));
    check("connect", natsConnection_Connect(&client->connection, options));
    natsOptions_Destroy(options);
    return client;
}

void onMessage(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    auto* client = static_cast<RoadClient*>(closure);
    client->callback(client, natsMsg_GetReply(msg), client->closure);
    natsMsg_Destroy(msg);
}

void listen(RoadClient* client, const char* subject, RoadCallback callback, void* closure) {
    client->callback = callback;
    client->closure = closure;
    natsSubscription* subscription = nullptr;
    check("subscribe",
          natsConnection_Subscribe(&subscription, client->connection, subject, onMessage, client));
    check("limits", natsSubscription_SetPendingLimits(subscription, -1, -1));
}

void send(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    check("publish", natsConnection_Publish(client->connection, subject, bytes.data(),
                                            static_cast<int>(bytes.size())));
}

void request(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    natsMsg* reply = nullptr;
    check("request", natsConnection_Request(&reply, client->connection, subject, bytes.data(),
                                            static_cast<int>(bytes.size()), 5000));
    natsMsg_Destroy(reply);
}

void flush(RoadClient* client) {
    check("flush", natsConnection_FlushTimeout(client->connection, 60'000));
}

}  // namespace

constinit const Road kNatsRoad = {"nats", connect, listen, send, request, flush};
