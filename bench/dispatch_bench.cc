// What it costs to post to a queue and to dispatch it, within one thread and from thread to thread;
// the latter beside libuv's async handles, where it is installed.

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "lib/pelmo.h"
#include "lib/runtime/post.h"
#ifdef PELMO_BENCH_UV
#include <uv.h>
#endif

namespace {

constexpr uint32_t kTransport = kIntraProcessTransportId;

void check(bool good) {
    if (!good) std::abort();
}

void check(pelmoStatus status) {
    check(status == kStatusSuccess);
}

// A fixture: while it exists, the library is open and there is a queue.
struct OpenQueue {
    OpenQueue() {
        check(pelmo_Open());
        check(pelmoQueue_Create(&id));
    }
    ~OpenQueue() { pelmo_Close(); }

    uint32_t id = kNoId;
};

pelmoMsg* newEntry() {
    pelmoMsg* message = nullptr;
    check(pelmoMsg_Create(&message));
    return message;
}

// The time includes making and releasing an empty message.
void postAndDispatchOne(benchmark::State& state) {
    const OpenQueue queue;
    uint32_t event = kNoId;
    const auto callback = [](uint32_t, pelmoMsg*, void*) {};
    check(pelmoEvent_CreateListener(&event, queue.id, callback, kTransport, "A", nullptr));
    for (auto _ : state) {
        const PostEntry entry{event, newEntry()};
        Queue_PostBatch(queue.id, {&entry, 1});
        check(pelmoQueue_TimedDispatch(queue.id, 0));
    }
}
BENCHMARK(postAndDispatchOne);

void postAndDispatchVector(benchmark::State& state) {
    const OpenQueue queue;
    uint32_t event = kNoId;
    const auto callback = [](pelmoMsg**, uint32_t count) { check(count == kMostBatchMessages); };
    check(pelmoEvent_CreateVectorListener(&event, queue.id, callback, kTransport, "A", nullptr));
    std::array<PostEntry, kMostBatchMessages> entries;
    for (auto _ : state) {
        for (PostEntry& entry : entries)
            entry = {event, newEntry()};
        Queue_PostBatch(queue.id, entries);
        check(pelmoQueue_TimedDispatch(queue.id, 0));
    }
    state.SetItemsProcessed(state.iterations() * kMostBatchMessages);
}
BENCHMARK(postAndDispatchVector);

// A round trip between two sleeping threads: each callback wakes the other side.

struct Side {
    uint32_t queue = kNoId;
    uint32_t event = kNoId;
};

void wake(const Side& side) {
    const PostEntry entry{side.event, newEntry()};
    Queue_PostBatch(side.queue, {&entry, 1});
}

void thereAndBack(benchmark::State& state) {
    const OpenQueue queue;
    Side here{queue.id}, there;
    uint32_t dispatcher = kNoId;
    check(pelmoQueue_Create(&there.queue));
    const auto noted = [](uint32_t, pelmoMsg*, void*) {};
    const auto answer = [](uint32_t, pelmoMsg*, void* side) { wake(*static_cast<Side*>(side)); };
    check(pelmoEvent_CreateListener(&here.event, here.queue, noted, kTransport, "A", nullptr));
    check(pelmoEvent_CreateListener(&there.event, there.queue, answer, kTransport, "A", &here));
    check(pelmoDispatcher_CreateEx(&dispatcher, there.queue, -1.0));
    for (auto _ : state) {
        wake(there);
        check(pelmoQueue_TimedDispatch(here.queue, -1.0));
    }
    pelmoDispatcher_Destroy(dispatcher);
}
BENCHMARK(thereAndBack)->UseRealTime();

#ifdef PELMO_BENCH_UV
struct UvSide {
    uv_loop_t loop;
    uv_async_t async;
    UvSide* other;
    bool answers;
    std::atomic<bool> stops{false};
};

void uvWoken(uv_async_t* async) {
    auto* const side = static_cast<UvSide*>(async->data);
    if (side->stops) {
        uv_close(reinterpret_cast<uv_handle_t*>(async), nullptr);
    } else if (side->answers) {
        uv_async_send(&side->other->async);
    }
}

void uvStart(UvSide& side, UvSide& other, bool answers) {
    check(uv_loop_init(&side.loop) == 0);
    check(uv_async_init(&side.loop, &side.async, uvWoken) == 0);
    side.async.data = &side;
    side.other = &other;
    side.answers = answers;
}

void uvThereAndBack(benchmark::State& state) {
    UvSide here, there;
    uvStart(here, there, false);
    uvStart(there, here, true);
    std::thread thread([&there] { uv_run(&there.loop, UV_RUN_DEFAULT); });
    for (auto _ : state) {
        uv_async_send(&there.async);
        uv_run(&here.loop, UV_RUN_ONCE);
    }
    there.stops = here.stops = true;
    uv_async_send(&there.async);
    thread.join();
    uv_async_send(&here.async);
    uv_run(&here.loop, UV_RUN_DEFAULT);
    check(uv_loop_close(&here.loop) == 0);
    check(uv_loop_close(&there.loop) == 0);
}
BENCHMARK(uvThereAndBack)->UseRealTime();
#endif

}  // namespace
