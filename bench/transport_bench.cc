// What it costs to send a message inside the process: the look-up of its listeners, a copy and a
// queue entry for each, and the dispatch of their callbacks on the same thread.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "lib/pelmo.h"

namespace {

constexpr const char* kSubject = "PRICES.EUROPE.VENUE7.BOND";
constexpr int kOtherSubjects = 1000;

void check(bool good) {
    if (!good) std::abort();
}

void count(uint32_t, pelmoMsg*, void* closure) {
    ++*static_cast<int64_t*>(closure);
}

// A fixture: an open library, a message, a thousand listeners on other subjects, and `listeners` on
// this one.
struct Bus {
    uint32_t queue = 0;
    std::vector<uint32_t> events;
    pelmoMsg* message = nullptr;
    int64_t received = 0;

    Bus(int64_t listeners, const char* subject) {
        check(pelmo_Open() == kStatusSuccess);
        check(pelmoQueue_Create(&queue) == kStatusSuccess);
        for (int i = 0; i < kOtherSubjects; ++i) {
            listen(("PRICES.EUROPE.VENUE" + std::to_string(i + 100) + ".BOND").c_str());
        }
        for (int64_t i = 0; i < listeners; ++i) {
            listen(subject);
        }
        check(pelmoMsg_Create(&message) == kStatusSuccess);
        check(pelmoMsg_SetSendSubject(message, kSubject) == kStatusSuccess);
        check(pelmoMsg_AddI32(message, "bid", 7, 0) == kStatusSuccess);
    }
    ~Bus() {
        pelmoMsg_Destroy(message);
        pelmo_Close();
    }

    void listen(const char* subject) {
        uint32_t event = 0;
        check(pelmoEvent_CreateListener(&event, queue, count, kIntraProcessTransportId, subject,
                                        &received) == kStatusSuccess);
        events.push_back(event);
    }
};

void sendToListeners(benchmark::State& state, const char* subject) {
    const int64_t listeners = state.range(0);
    Bus bus(listeners, subject);
    int64_t sent = 0;
    for (auto _ : state) {
        check(pelmoTransport_Send(kIntraProcessTransportId, bus.message) == kStatusSuccess);
        for (int64_t i = 0; i < listeners; ++i) {
            check(pelmoQueue_TimedDispatch(bus.queue, 0) == kStatusSuccess);
        }
        ++sent;
    }
    check(bus.received == sent * listeners);
    state.SetItemsProcessed(sent * listeners);
}

void sendExact(benchmark::State& state) {
    sendToListeners(state, kSubject);
}
BENCHMARK(sendExact)->Arg(0)->Arg(1)->Arg(10)->Arg(100);

void sendWildcard(benchmark::State& state) {
    sendToListeners(state, "PRICES.*.VENUE7.>");
}
BENCHMARK(sendWildcard)->Arg(1)->Arg(10)->Arg(100);

// A request and its answer, both on this thread: the server runs from its queue's hook.
void answerRequest(uint32_t, pelmoMsg* request, void* closure) {
    auto* reply = static_cast<pelmoMsg*>(closure);
    check(pelmoTransport_SendReply(kIntraProcessTransportId, reply, request) == kStatusSuccess);
}

void dispatchOne(uint32_t queue, void*) {
    check(pelmoQueue_TimedDispatch(queue, 0) == kStatusSuccess);
}

void requestAndReply(benchmark::State& state) {
    Bus bus(0, kSubject);
    uint32_t event = 0;
    pelmoMsg* answer = nullptr;
    check(pelmoMsg_Create(&answer) == kStatusSuccess);
    check(pelmoEvent_CreateListener(&event, bus.queue, answerRequest, kIntraProcessTransportId,
                                    kSubject, answer) == kStatusSuccess);
    check(pelmoQueue_SetHook(bus.queue, dispatchOne, nullptr) == kStatusSuccess);
    for (auto _ : state) {
        pelmoMsg* reply = nullptr;
        check(pelmoTransport_SendRequest(kIntraProcessTransportId, bus.message, &reply, 10) ==
              kStatusSuccess);
        pelmoMsg_Destroy(reply);
    }
    pelmoMsg_Destroy(answer);
}
BENCHMARK(requestAndReply);

}  // namespace
