// libmosquitto and mosquitto with quality 0, each client with its own thread. MQTT 3.1.1 has no
// replies: a request carries the subject of its answer as its first bytes.

#include <mosquitto.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/bus/road.h"

struct RoadClient {
    mosquitto* client;
    RoadCallback callback;
    void* closure;
    sem_t done;  // posted for each thing that was waited for
    char answers[64];
    bool listensToAnswers;
};

namespace {

void check(const char* what, int code) {
    if (code != MOSQ_ERR_SUCCESS) roadFail(what, mosquitto_strerror(code));
}

void post(mosquitto*, void* closure, int) {
    sem_post(&static_cast<RoadClient*>(closure)->done);
}

void onSubscribed(mosquitto*, void* closure, int, int, const int*) {
    sem_post(&static_cast<RoadClient*>(closure)->done);
}

void onMessage(mosquitto*, void* closure, const mosquitto_message* msg) {
    auto* client = static_cast<RoadClient*>(closure);
    if (std::strcmp(msg->topic, client->answers) == 0) {
        sem_post(&client->done);
        return;
    }
    const auto* text = static_cast<const char*>(msg->payload);
    const bool isRequest = msg->payloadlen > 0 && text[0] == '@' && text[msg->payloadlen - 1] == 0;
    client->callback(client, isRequest ? text + 1 : nullptr, client->closure);
}

RoadClient* connect(uint16_t port) {
    static const int started = mosquitto_lib_init();
    check("start", started);
    static int number = 0;
    auto* client = static_cast<RoadClient*>(std::calloc(1, sizeof(RoadClient)));
    sem_init(&client->done, 0, 0);
    std::snprintf(client->answers, sizeof client->answers, "answers/%d/%d", getpid(), ++number);
    client->client = mosquitto_new(nullptr, true, client);
    mosquitto_int_option(client->client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(client->client, post);
    mosquitto_subscribe_callback_set(client->client, onSubscribed);
    mosquitto_message_callback_set(client->client, onMessage);
    check("connect", mosquitto_connect(client->client, "127.0.0.1", port, 60));
    check("thread", mosquitto_loop_start(client->client));
    sem_wait(&client->done);
    return client;
}

void subscribe(RoadClient* client, const char* subject) {
    check("subscribe", mosquitto_subscribe(client->client, nullptr, subject, 0));
    sem_wait(&client->done);
}

void listen(RoadClient* client, const char* subject, RoadCallback callback, void* closure) {
    client->callback = callback;
    client->closure = closure;
    subscribe(client, subject);
}

void send(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    check("publish", mosquitto_publish(client->client, nullptr, subject,
                                       static_cast<int>(bytes.size()), bytes.data(), 0, false));
}

void request(RoadClient* client, const char* subject, std::span<const uint8_t> bytes) {
    if (!client->listensToAnswers) subscribe(client, client->answers);
    client->listensToAnswers = true;
    std::string payload = std::string("@") + client->answers;
    payload.resize(std::max(payload.size() + 1, bytes.size()), '\0');
    send(client, subject, {reinterpret_cast<const uint8_t*>(payload.data()), payload.size()});
    sem_wait(&client->done);
}

// A subscription is answered behind all that was sent ahead of it.
void flush(RoadClient* client) {
    subscribe(client, "flush");
}

}  // namespace

constinit const Road kMosquittoRoad = {"mosquitto", connect, listen, send, request, flush};
