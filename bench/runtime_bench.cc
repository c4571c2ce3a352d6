// What timers and wake-ups cost, beside libuv doing the same work where it is installed.
//
// A firing of the library's timer makes a message, posts it to a queue and dispatches it. libuv
// calls back directly from its loop.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <latch>
#include <memory>
#include <vector>

#include "lib/pelmo.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/event_manager.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/timers.h"
#include "lib/runtime/wakeup_pair.h"
#ifdef PELMO_BENCH_UV
#include <uv.h>

#include <thread>
#endif

namespace {

constexpr uint32_t kArmed = 10'000;
constexpr uint32_t kDueAtOnce = 32;
constexpr int64_t kRounds = 1'000;

void check(bool good) {
    if (!good) std::abort();
}

void check(pelmoStatus status) {
    check(status == kStatusSuccess);
}

// A fixture: the library is open, without an event manager.
struct OpenLibrary {
    OpenLibrary() {
        check(pelmo_Open());
        EventManager_Stop();
    }
    ~OpenLibrary() { pelmo_Close(); }
};

double armedInterval(uint32_t i) {
    return 1'000.0 + i * 7'919 % kArmed;
}

// 10,000 timers that aren't due soon, without the timer thread.
struct ArmedTimers {
    ArmedTimers() {
        check(pelmoQueue_Create(&queue));
        {
            LockGuard guard(evmLock);
            epoch = ++evmEpoch;
            check(timersOpenLocked());
        }
        for (uint32_t i = 0; i < kArmed; ++i)
            add(armedInterval(i));
    }
    ~ArmedTimers() {
        {
            LockGuard guard(evmLock);
            ++evmEpoch;
            timersCloseLocked();
        }
        for (const uint32_t timer : timers)
            pelmoEvent_DestroyEx(timer, nullptr);
        pelmoQueue_DestroyEx(queue, nullptr, nullptr);
    }

    uint32_t add(double interval) {
        uint32_t timer;
        check(pelmoEvent_CreateTimer(
            &timer, queue, [](uint32_t, pelmoMsg*, void*) {}, interval, nullptr));
        timers.push_back(timer);
        return timer;
    }

    OpenLibrary library;
    uint32_t queue = kNoId;
    uint32_t epoch = 0;
    std::vector<uint32_t> timers;
};

void timerInsertRemove(benchmark::State& state) {
    ArmedTimers armed;
    Held<Event> event;
    check(event.find(armed.add(5'000.5)));
    for (auto _ : state) {
        check(Timer_Remove(event.get()));
        check(Timer_Insert(event.get()));
    }
    event.release();
}
BENCHMARK(timerInsertRemove);

void timerFire(benchmark::State& state) {
    ArmedTimers armed;
    for (uint32_t i = 0; i < kDueAtOnce; ++i)
        armed.add(0);
    double now = 0;
    check(timersAwait(armed.epoch, &now));
    for (auto _ : state) {
        check(timersFire(armed.epoch, now) == kDueAtOnce);
        for (uint32_t i = 0; i < kDueAtOnce; ++i)
            check(pelmoQueue_TimedDispatch(armed.queue, 0));
    }
    state.SetItemsProcessed(state.iterations() * kDueAtOnce);
}
BENCHMARK(timerFire);

// Two threads wake each other in turn, each of which sleeps until then.
struct WakeRounds {
    WakeupPair* pairs[2] = {};
    int64_t left = 0;
    std::unique_ptr<std::latch> done;
};

void wakeupPairRound(benchmark::State& state) {
    const OpenLibrary library;
    check(EventManager_Start());
    check(EventManager_StartIo(2));
    WakeRounds rounds;
    const auto answer = [](void* closure) {
        wakeupPairWake(static_cast<WakeRounds*>(closure)->pairs[0]);
    };
    const auto next = [](void* closure) {
        auto* const own = static_cast<WakeRounds*>(closure);
        if (--own->left == 0) return own->done->count_down();
        wakeupPairWake(own->pairs[1]);
    };
    check(wakeupPairCreate(&rounds.pairs[0], kFirstIoQueueId, next, nullptr, &rounds));
    check(wakeupPairCreate(&rounds.pairs[1], kFirstIoQueueId + 1, answer, nullptr, &rounds));
    for (auto _ : state) {
        rounds.left = kRounds;
        rounds.done = std::make_unique<std::latch>(1);
        wakeupPairWake(rounds.pairs[1]);
        rounds.done->wait();
    }
    state.SetItemsProcessed(state.iterations() * kRounds);
    wakeupPairDestroy(rounds.pairs[0]);
    wakeupPairDestroy(rounds.pairs[1]);
}
BENCHMARK(wakeupPairRound)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

#ifdef PELMO_BENCH_UV

struct UvTimers {
    UvTimers() : timers(kArmed) {
        check(uv_loop_init(&loop) == 0);
        for (uint32_t i = 0; i < kArmed; ++i) {
            check(uv_timer_init(&loop, &timers[i]) == 0);
            start(&timers[i], armedInterval(i) * 1'000);
        }
    }
    ~UvTimers() {
        uv_walk(
            &loop, [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }

    static void start(uv_timer_t* timer, double milliseconds) {
        uv_timer_start(
            timer, [](uv_timer_t*) {}, static_cast<uint64_t>(milliseconds), 0);
    }

    uv_loop_t loop;
    std::vector<uv_timer_t> timers;
};

void uvTimerInsertRemove(benchmark::State& state) {
    UvTimers armed;
    uv_timer_t timer;
    uv_timer_init(&armed.loop, &timer);
    for (auto _ : state) {
        UvTimers::start(&timer, 5'000'500);
        uv_timer_stop(&timer);
    }
    uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    uv_run(&armed.loop, UV_RUN_NOWAIT);
}
BENCHMARK(uvTimerInsertRemove);

void uvTimerFire(benchmark::State& state) {
    UvTimers armed;
    for (auto _ : state) {
        for (uint32_t i = 0; i < kDueAtOnce; ++i)
            UvTimers::start(&armed.timers[i], 0);
        uv_run(&armed.loop, UV_RUN_NOWAIT);
    }
    state.SetItemsProcessed(state.iterations() * kDueAtOnce);
}
BENCHMARK(uvTimerFire);

struct UvRounds {
    uv_loop_t loops[2];
    uv_async_t wakes[2];
    int64_t left = 0;
    std::unique_ptr<std::latch> done;
};

void uvAnswer(uv_async_t* async) {
    uv_async_send(&static_cast<UvRounds*>(async->data)->wakes[0]);
}

void uvNext(uv_async_t* async) {
    auto* const own = static_cast<UvRounds*>(async->data);
    if (--own->left == 0) return own->done->count_down();
    uv_async_send(&own->wakes[1]);
}

void uvAsyncRound(benchmark::State& state) {
    UvRounds rounds;
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        uv_loop_init(&rounds.loops[i]);
        uv_async_init(&rounds.loops[i], &rounds.wakes[i], i == 0 ? uvNext : uvAnswer);
        rounds.wakes[i].data = &rounds;
        threads.emplace_back([loop = &rounds.loops[i]] { uv_run(loop, UV_RUN_DEFAULT); });
    }
    for (auto _ : state) {
        rounds.left = kRounds;
        rounds.done = std::make_unique<std::latch>(1);
        uv_async_send(&rounds.wakes[1]);
        rounds.done->wait();
    }
    state.SetItemsProcessed(state.iterations() * kRounds);
    // A loop must be stopped on its own thread, so this callback takes the place of the one above.
    for (int i = 0; i < 2; ++i) {
        rounds.wakes[i].async_cb = [](uv_async_t* async) {
            uv_close(reinterpret_cast<uv_handle_t*>(async), nullptr);
        };
        uv_async_send(&rounds.wakes[i]);
        threads[static_cast<size_t>(i)].join();
        uv_loop_close(&rounds.loops[i]);
    }
}
BENCHMARK(uvAsyncRound)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

#endif

}  // namespace
