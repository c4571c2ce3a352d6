// nats_peer send PORT SUBJECT COUNT FILE [stream]: publishes the file's bytes so often, to a stream
// asynchronously.
// nats_peer listen PORT SUBJECT COUNT [DURABLE]: takes so many, plainly or by a durable consumer
// that is pulled and acknowledged, and prints the seconds from the first to the last.
//
// What the bridge does is measured beside these: libnats alone, with the same headers.

#include <nats/nats.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "programs/steady_time.h"

namespace {

constexpr int64_t kPatienceMilliseconds = 120'000;
constexpr int kFetchMessages = 128;

void check(const char* what, natsStatus status) {
    if (status == NATS_OK) return;
    std::fprintf(stderr, "nats_peer: %s: %s\n", what, natsStatus_GetText(status));
    std::exit(1);
}

std::string fileBytes(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

natsMsg* message(const char* subject, const std::string& body, uint64_t number, bool isKept) {
    natsMsg* made = nullptr;
    const std::string text = std::to_string(number);
    check("message",
          natsMsg_Create(&made, subject, nullptr, body.data(), static_cast<int>(body.size())));
    check("header", natsMsgHeader_Set(made, "Pelmo-Origin", "bench"));
    check("header", natsMsgHeader_Set(made, "Pelmo-Sequence", text.c_str()));
    const std::string id = std::to_string(getpid()) + "-" + text;
    if (isKept) check("header", natsMsgHeader_Set(made, "Nats-Msg-Id", id.c_str()));
    return made;
}

void send(natsConnection* connection,
          jsCtx* streams,
          const char* subject,
          uint64_t count,
          const std::string& body,
          bool isKept) {
    for (uint64_t number = 1; number <= count; ++number) {
        natsMsg* made = message(subject, body, number, isKept);
        if (isKept) {
            check("publish", js_PublishMsgAsync(streams, &made, nullptr));
        } else {
            check("publish", natsConnection_PublishMsg(connection, made));
        }
        natsMsg_Destroy(made);
    }
    if (isKept) check("complete", js_PublishAsyncComplete(streams, nullptr));
    check("flush", natsConnection_FlushTimeout(connection, kPatienceMilliseconds));
}

void listen(natsSubscription* subscription, uint64_t count) {
    int64_t begin = 0;
    for (uint64_t number = 0; number < count; ++number) {
        natsMsg* taken = nullptr;
        check("next", natsSubscription_NextMsg(&taken, subscription, kPatienceMilliseconds));
        natsMsg_Destroy(taken);
        if (number == 0) begin = steadyNow();
    }
    std::printf("%.6f\n", steadySeconds(steadyNow() - begin));
}

void pull(natsSubscription* subscription, uint64_t count) {
    int64_t begin = 0;
    for (uint64_t number = 0; number < count;) {
        natsMsgList list = {};
        check("fetch", natsSubscription_Fetch(&list, subscription, kFetchMessages,
                                              kPatienceMilliseconds, nullptr));
        if (number == 0) begin = steadyNow();
        number += static_cast<uint64_t>(list.Count);
        for (int at = 0; at < list.Count; ++at) {
            check("acknowledge", natsMsg_Ack(list.Msgs[at], nullptr));
        }
        natsMsgList_Destroy(&list);
    }
    std::printf("%.6f\n", steadySeconds(steadyNow() - begin));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) return 2;
    const bool isSender = std::strcmp(argv[1], "send") == 0;
    const uint64_t count = std::strtoull(argv[4], nullptr, 10);
    natsConnection* connection = nullptr;
    natsSubscription* subscription = nullptr;
    jsCtx* streams = nullptr;
    check("connect", natsConnection_ConnectTo(
                         &connection, (std::string("nats://127.0.0.1:") + argv[2]).c_str()));
    check("streams", natsConnection_JetStream(&streams, connection, nullptr));
    if (isSender) {
        send(connection, streams, argv[3], count, argc > 5 ? fileBytes(argv[5]) : "x", argc > 6);
    } else if (argc > 5) {
        check("pull", js_PullSubscribe(&subscription, streams, argv[3], argv[5], nullptr, nullptr,
                                       nullptr));
        pull(subscription, count);
    } else {
        check("subscribe", natsConnection_SubscribeSync(&subscription, connection, argv[3]));
        check("limits", natsSubscription_SetPendingLimits(subscription, -1, -1));
        check("flush", natsConnection_FlushTimeout(connection, kPatienceMilliseconds));
        std::fputs("listens\n", stderr);
        listen(subscription, count);
    }
    natsSubscription_Destroy(subscription);
    jsCtx_Destroy(streams);
    natsConnection_Destroy(connection);
    nats_Close();
    return 0;
}
