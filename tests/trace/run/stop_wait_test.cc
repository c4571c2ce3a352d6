#include "trace/run/stop_wait.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>

#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "tests/support/test.h"
#include "tests/support/trace_run.h"

namespace {

std::atomic<int> callbacks;

// Looked up by their names: other threads may be closing descriptors.
std::set<int> openSockets() {
    std::set<int> sockets;
    struct stat status;
    for (int i = 0; i < 256; ++i) {
        const std::string name = "/proc/self/fd/" + std::to_string(i);
        if (stat(name.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) sockets.insert(i);
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
        const std::set<int> before = openSockets();
        ASSERT_EQ(stopWaitInit([] { ++callbacks; }), kStatusSuccess);
        for (const int socket : openSockets())
            if (!before.contains(socket)) pair.push_back(socket);
        ASSERT_EQ(pair.size(), 2u);
    }

    // Ends the pair's connection while the system gives no descriptors, so that it can't be remade.
    // Those that are open go on working: poll takes as many as the limit says. One end is enough.
    void breakForGood() {
        const int lowestFree = dup(STDERR_FILENO);
        close(lowestFree);
        noSockets.emplace(RLIMIT_NOFILE, static_cast<rlim_t>(lowestFree));
        shutdown(pair[0], SHUT_RDWR);
    }

    // A signal ends the wait; closing joins the threads that call back.
    static int callbacksAtASignal() {
        raise(SIGTERM);
        (void)stopWaitRun();
        pelmo_Close();
        return callbacks;
    }

    TraceRun run;
    std::vector<int> pair;
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
    while (fcntl(pair[0], F_GETFD) != -1 || fcntl(pair[1], F_GETFD) != -1)
        sched_yield();
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
