#include "trace/run/stop_wait.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "tests/support/test.h"
#include "tests/support/trace_run.h"

namespace {

std::atomic<int> callbacks;

// By the system's own number for each, which it doesn't use again as it does descriptors.
using Sockets = std::map<std::string, int>;

Sockets openSockets() {
    Sockets sockets;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone);
        if (target.starts_with("socket:")) sockets[target] = std::stoi(entry.path().filename());
    }
    return sockets;
}

struct StopWait : testing::Test {
    StopWait() {
        callbacks = 0;
        signal(SIGHUP, SIG_DFL);  // the tests may themselves run where it is ignored
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
    }
    ~StopWait() override {
        stopWaitCleanup();
        stopWaitRelease();
        pelmo_Close();
        for (const int number : {SIGINT, SIGTERM, SIGHUP})
            EXPECT_EQ(signal(number, SIG_DFL), SIG_DFL);
    }

    // Arms the wait; the pair's sockets are those that appear.
    void arm() {
        const Sockets before = openSockets();
        ASSERT_EQ(stopWaitInit([] { ++callbacks; }), kStatusSuccess);
        for (const auto& [name, socket] : openSockets()) {
            if (!before.contains(name)) pair[name] = socket;
        }
        ASSERT_EQ(pair.size(), 2u);
    }

    // Ends the pair's connection while the system gives no descriptors, so that it can't be remade.
    // Those that are open go on working: poll takes as many as the limit says.
    void breakForGood() {
        const int lowestFree = dup(STDERR_FILENO);
        close(lowestFree);
        noSockets.emplace(RLIMIT_NOFILE, static_cast<rlim_t>(lowestFree));
        breakPair();
    }

    // One end is enough, and the other's number may be a new socket's at once.
    void breakPair() const { shutdown(pair.begin()->second, SHUT_RDWR); }

    // A signal ends the wait; closing joins the threads that call back.
    static int callbacksAtASignal() {
        raise(SIGTERM);
        (void)stopWaitRun();
        pelmo_Close();
        return callbacks;
    }

    void awaitNoPair() const {
        const auto isOpen = [](const auto& socket) { return fcntl(socket.second, F_GETFD) != -1; };
        while (std::ranges::any_of(pair, isOpen))
            sched_yield();
    }

    TraceRun run;
    Sockets pair;
    std::optional<LowLimit> noSockets;
};

TEST_F(StopWait, LeavesAHangUpAloneThatWasIgnored) {
    signal(SIGHUP, SIG_IGN);
    ASSERT_EQ(stopWaitInit(nullptr), kStatusSuccess);
    raise(SIGHUP);  // nor does it stop the run
    raise(SIGINT);
    EXPECT_TRUE(stopWaitRun());
    stopWaitCleanup();
    stopWaitRelease();
    EXPECT_EQ(signal(SIGHUP, SIG_DFL), SIG_IGN);
}

TEST_F(StopWait, WakesWhoWaitsAndCallsBackOnce) {
    arm();
    std::thread waiting([] { EXPECT_TRUE(stopWaitRun()); });
    for (int i = 0; i < 100; ++i)
        kill(getpid(), SIGTERM);
    waiting.join();
    EXPECT_EQ(callbacksAtASignal(), 1);
}

// The timer of a second finds the signal that no pair could carry.
TEST_F(StopWait, SeesASignalThatComesWhileThePairIsBroken) {
    arm();
    breakForGood();
    awaitNoPair();
    EXPECT_EQ(callbacksAtASignal(), 1);
}

// With neither a pair nor a timer no signal could be seen: the program is to stop.
TEST_F(StopWait, EndsWhereNothingCouldBringASignal) {
    arm();
    ASSERT_EQ(pelmoQueue_DestroyEx(kTimerQueueId, nullptr, nullptr), kStatusSuccess);
    breakForGood();
    EXPECT_FALSE(stopWaitRun());
    noSockets.reset();
    pelmo_Close();
    EXPECT_EQ(callbacks, 0);
    EXPECT_EQ(run.logged(), Lines({"Socket pair unexpectedly closed, creating new pair",
                                   "unable to create sigterm restart timer: Invalid queue."}));
}

}  // namespace
