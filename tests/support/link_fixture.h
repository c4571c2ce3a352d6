// An open library whose links to daemons take time, random numbers and timers from the test: no
// test waits for a delay, and a timer fires when the test says so, on the test's thread.

#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/pelmo.h"
#include "lib/transport/daemon/link_environment.h"
#include "tests/support/local_bus.h"

class LinkFixture : NoCopy {
  public:
    struct Timer {
        uint32_t id;
        double seconds;
        pelmoEventCallback callback;
        void* closure;
    };

    std::atomic<double> now = 1000;
    std::atomic<uint32_t> random = 0;
    std::function<bool(const std::string&)> onLaunch;  // null: no program is found
    std::function<void()> onSleep;                     // in place of a sleep

    LinkFixture() {
        current = this;
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        former = linkEnvironment;
        linkEnvironment.now = [] { return current->now.load(); };
        linkEnvironment.random = [](uint32_t) { return current->random.load(); };
        linkEnvironment.createTimer = createTimer;
        linkEnvironment.destroyTimer = destroyTimer;
        linkEnvironment.wait = wait;
        linkEnvironment.names.host = [](const char*, uint32_t*) { return false; };
        linkEnvironment.launch = [](const char* specification) {
            return current->onLaunch && current->onLaunch(specification);
        };
    }
    ~LinkFixture() {
        if (libraryIsOpen()) pelmo_Close();
        linkEnvironment = former;
        current = nullptr;
    }

    size_t timers() {
        const std::lock_guard guard(mutex);
        return armed.size();
    }

    // The next timer that is set, which then counts as fired but isn't run.
    Timer awaitTimer() {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(
            changed.wait_for(lock, std::chrono::seconds(30), [&] { return !armed.empty(); }));
        return armed.empty() ? Timer{} : armed.front();
    }
    static void fire(const Timer& timer) { timer.callback(timer.id, nullptr, timer.closure); }

  private:
    static inline LinkFixture* current = nullptr;
    LinkEnvironment former;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Timer> armed;
    uint32_t nextTimer = 1;

    static pelmoStatus createTimer(
        uint32_t* out, uint32_t queue, pelmoEventCallback callback, double seconds, void* closure) {
        EXPECT_EQ(queue, kWorkQueueId);
        const std::lock_guard guard(current->mutex);
        *out = current->nextTimer++;
        current->armed.push_back({*out, seconds, callback, closure});
        current->changed.notify_all();
        return kStatusSuccess;
    }
    static pelmoStatus destroyTimer(uint32_t timer, pelmoEventCompletion) {
        const std::lock_guard guard(current->mutex);
        EXPECT_EQ(std::erase_if(current->armed, [&](const Timer& t) { return t.id == timer; }), 1u);
        return kStatusSuccess;
    }
    static pelmoStatus wait(Cond* cond, Lock* lock, double seconds) {
        if (!current->onSleep) return Cond_TimedWait(cond, lock, seconds);
        current->onSleep();
        return kStatusTimeout;
    }
};
