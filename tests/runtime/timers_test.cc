#include "lib/runtime/timers.h"

#include <cmath>
#include <ranges>

#include "tests/runtime/event_stand.h"

namespace {

struct Timers : testing::Test {
    // One pass at `seconds` from the start, and the dispatch of what fired.
    uint32_t passAt(double seconds) const {
        const uint32_t fires = stand.fire(seconds);
        dispatchAll(stand.queue);
        return fires;
    }

    // Due so many seconds from the start, and after that not for long.
    Event* arm(double seconds) {
        Event* const event = recordOf<Event>(stand.timer(1e9, noteEvent, &fired));
        EXPECT_EQ(Timer_Remove(event), kStatusSuccess);
        event->timer.nextExpiry = stand.start + seconds;
        EXPECT_EQ(Timer_Insert(event), kStatusSuccess);
        return event;
    }

    double expiry(uint32_t timer) const {
        return recordOf<Event>(timer)->timer.nextExpiry - stand.start;
    }

    // Ends what the event manager's threads do, or lets it go on: a count of epochs more.
    void step() const {
        LockGuard guard(evmLock);
        ++evmEpoch;
        timersWakeLocked();
    }

    EventStand stand;
    std::vector<uint32_t> fired;
};

TEST_F(Timers, KeepTheirRateHoweverLateTheyFire) {
    const uint32_t timer = stand.timer(0.25, noteEvent, &fired);
    for (int tick = 1; tick <= 10'000; ++tick) {
        EXPECT_EQ(passAt(tick * 0.25 - 0.001), 0u);
        EXPECT_EQ(passAt(tick * 0.25 + tick % 7 * 0.03), 1u);
    }
    EXPECT_EQ(fired.size(), 10'000u);
    EXPECT_EQ(expiry(timer), 10'001 * 0.25);
}

TEST_F(Timers, CatchUpWithAHundredIntervalsAndDropMore) {
    const struct {
        double pause;
        uint32_t fires;
        double next;
    } cases[] = {{50, 50, 51}, {101, 101, 102}, {101.5, 1, 102.5}, {150, 1, 151}};
    for (const auto& c : cases) {
        const uint32_t timer = stand.timer(1.0, ignoreEvent);
        uint32_t fires = 0;
        while (passAt(c.pause) == 1)
            ++fires;
        EXPECT_EQ(fires, c.fires) << c.pause;
        EXPECT_EQ(expiry(timer), c.next) << c.pause;
        pelmoEvent_DestroyEx(timer, nullptr);
    }
}

// The slots of the heap in the order of arming: none comes before its parent. The last, due at 5,
// takes the slot of whatever is removed: it has to be sifted up from below 100, to stay below 1,
// and to be sifted down from the root.
TEST_F(Timers, FireInOrderWhicheverIsRemoved) {
    constexpr double kDue[] = {0, 100, 1, 200, 300, 101, 102, 103, 104, 5};
    for (const double removed : kDue) {
        std::vector<std::pair<double, uint32_t>> expected;
        Event* out = nullptr;
        for (const double due : kDue) {
            Event* const event = arm(due);
            if (due == removed) {
                out = event;
            } else {
                expected.emplace_back(due, event->header.id);
            }
        }
        EXPECT_EQ(Timer_Remove(out), kStatusSuccess);
        EXPECT_EQ(Timer_Remove(out), kStatusInvalidArgument);
        std::ranges::sort(expected);
        fired.clear();
        EXPECT_EQ(passAt(50) + passAt(1'000), expected.size()) << removed;
        EXPECT_TRUE(std::ranges::equal(fired, expected | std::views::values)) << removed;
        for (const auto& [due, timer] : expected)
            pelmoEvent_DestroyEx(timer, nullptr);
        pelmoEvent_DestroyEx(out->header.id, nullptr);
    }
}

// Equal times go by address.
TEST_F(Timers, FireThirtyTwoAtATime) {
    std::vector<std::pair<double, Event*>> armed;
    for (uint32_t i = 0; i < 70; ++i)
        armed.emplace_back(i % 3, arm(i % 3));
    std::ranges::sort(armed);
    for (const uint32_t fires : {32u, 32u, 6u, 0u})
        EXPECT_EQ(passAt(50), fires);
    EXPECT_TRUE(std::ranges::equal(fired, armed, {}, {},
                                   [](const auto& timer) { return timer.second->header.id; }));
}

TEST_F(Timers, OfAnIdleQueueLeaveOneEntry) {
    (void)stand.timer(1.0, ignoreEvent);
    for (int second = 1; second < 20; ++second)
        (void)stand.fire(second);
    EXPECT_EQ(countOf(stand.queue), 1u);
}

TEST_F(Timers, TakeANewIntervalFromTheCallOn) {
    const uint32_t armed = stand.timer(10, ignoreEvent);
    const uint32_t waiting = stand.timer(1, ignoreEvent);
    const uint32_t inCallback = stand.timer(1, [](uint32_t timer, pelmoMsg*, void*) {
        EXPECT_EQ(pelmoEvent_ResetTimerInterval(timer, 5), kStatusSuccess);
    });
    stand.clock.set(1'002);
    EXPECT_EQ(stand.fire(1), 2u);
    EXPECT_EQ(pelmoEvent_ResetTimerInterval(armed, 3), kStatusSuccess);
    EXPECT_EQ(pelmoEvent_ResetTimerInterval(waiting, 4), kStatusSuccess);
    EXPECT_EQ(passAt(1), 0u);
    EXPECT_EQ(expiry(armed), 5);
    EXPECT_EQ(expiry(waiting), 6);
    EXPECT_EQ(expiry(inCallback), 7);
    EXPECT_EQ(passAt(4.999), 0u);
    EXPECT_EQ(passAt(7), 3u);
    double interval = 0;
    EXPECT_EQ(pelmoEvent_GetTimerInterval(armed, &interval), kStatusSuccess);
    EXPECT_EQ(interval, 3);
}

TEST_F(Timers, RefuseIntervalsThatAreNone) {
    uint32_t event = kNoId;
    for (const double interval : {-0.001, std::nan("")}) {
        EXPECT_EQ(pelmoEvent_CreateTimer(&event, 0, nullptr, interval, nullptr),
                  kStatusInvalidCallback);  // looked at first
        EXPECT_EQ(pelmoEvent_CreateTimer(&event, 0, ignoreEvent, interval, nullptr),
                  kStatusInvalidInterval);
        EXPECT_EQ(pelmoEvent_ResetTimerInterval(0, interval), kStatusInvalidInterval);
    }
}

// What waits is cut short by a timer that is due sooner, and by no other.
TEST_F(Timers, WakeTheirThreadForTheSoonestOnly) {
    (void)stand.timer(1'000, ignoreEvent);
    std::atomic<uint32_t> returns{0};
    std::thread thread([&] {
        double now;
        while (timersAwait(stand.epoch, &now)) {
            EXPECT_EQ(now, stand.start);
            ++returns;
        }
    });
    const auto awaitReturns = [&](uint32_t count) {
        for (bool awaited = false; returns != count || !awaited; std::this_thread::yield()) {
            LockGuard guard(evmLock);
            awaited = timersAreAwaitedLocked();
        }
    };
    awaitReturns(0);
    for (int i = 1; i <= 500; ++i) {
        (void)stand.timer(1'000 + i, ignoreEvent);
        std::this_thread::yield();
    }
    EXPECT_EQ(returns, 0u);
    for (uint32_t i = 1; i <= 50; ++i) {
        (void)stand.timer(1'000 - i, ignoreEvent);
        awaitReturns(i);
    }
    step();
    thread.join();
    step();
}

}  // namespace
