// What it costs to send a message inside the process: the look-up of its listeners, a copy and a
// queue entry for each, and the dispatch of their callbacks on the same thread.

#include <benchmark/benchmark.h>

#include <atomic>
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

// A stream of messages to a listener that a dispatcher's thread serves, straight and through a
// circuit, which has the library's work thread in between. The processor time is that of all
// threads.
constexpr int64_t kWindow = 2048;  // messages on their way at most

struct Stream {
    Bus bus{0, kSubject};
    uint32_t from = kIntraProcessTransportId, to = kIntraProcessTransportId;
    std::atomic<int64_t> windows = 0;  // half ones that have come
    int64_t received = 0;              // the dispatcher thread's own

    explicit Stream(bool throughCircuit) {
        if (throughCircuit) connect();
        uint32_t dispatcher = 0, event = 0;
        check(pelmoEvent_CreateListener(&event, bus.queue, take, to, kSubject, this) ==
              kStatusSuccess);
        check(pelmoDispatcher_CreateEx(&dispatcher, bus.queue, -1) == kStatusSuccess);
    }
    void connect() {
        const char* subject = nullptr;
        check(vcCreateAccept(&to, &subject, kIntraProcessTransportId) == kStatusSuccess);
        check(vcCreateConnect(&from, subject, kIntraProcessTransportId) == kStatusSuccess);
        check(vcWaitForConnection(from, 10) == kStatusSuccess);
        check(vcWaitForConnection(to, 10) == kStatusSuccess);
    }
    static void take(uint32_t, pelmoMsg*, void* closure) {
        auto* self = static_cast<Stream*>(closure);
        if (++self->received % (kWindow / 2) != 0) return;
        self->windows.fetch_add(1);
        self->windows.notify_one();
    }
    void await(int64_t wanted) const {
        for (int64_t now = windows; now < wanted; now = windows)
            windows.wait(now);
    }
};

void streamMessages(benchmark::State& state) {
    Stream stream(state.range(0) != 0);
    const std::string pad(static_cast<size_t>(state.range(1)), 'x');
    check(pelmoMsg_AddOpaque(stream.bus.message, "pad", pad.data(),
                             static_cast<uint32_t>(pad.size()), 0) == kStatusSuccess);
    int64_t halves = 0;
    for (auto _ : state) {
        for (int64_t i = 0; i < kWindow / 2; ++i)
            check(pelmoTransport_Send(stream.from, stream.bus.message) == kStatusSuccess);
        stream.await(++halves - 1);
    }
    stream.await(halves);
    state.SetItemsProcessed(halves * kWindow / 2);
}
BENCHMARK(streamMessages)
    ->ArgNames({"circuit", "bytes"})
    ->ArgsProduct({{0, 1}, {16, 1000, 60000}})
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace
