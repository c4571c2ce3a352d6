#include "lib/runtime/wakeup_pair.h"

#include <netinet/in.h>

#include <functional>

#include "tests/runtime/event_stand.h"
#include "tests/support/test.h"

namespace {

// All zeros when there is none.
sockaddr_in addressOf(int end, int (*ask)(int, sockaddr*, socklen_t*)) {
    sockaddr_in found{};
    socklen_t size = sizeof(found);
    if (ask(end, reinterpret_cast<sockaddr*>(&found), &size) != 0) found = {};
    return found.sin_family == AF_INET ? found : sockaddr_in{};
}

struct WakeupPairs : testing::Test {
    WakeupPairs() { create(); }
    void create() {
        const auto wake = [](void* closure) {
            auto* const self = static_cast<WakeupPairs*>(closure);
            ++self->wakes;
            if (self->onWake) self->onWake();
        };
        const auto fail = [](void*) { ADD_FAILURE() << "the owner is called"; };
        wakes = 0;
        onWake = nullptr;
        EXPECT_EQ(wakeupPairCreate(&pair, stand.queue, wake, fail, this), kStatusSuccess);
        const std::vector<uint32_t> events = idsOf(IdType::kEvent);
        event = *std::ranges::max_element(events);  // ids count up
    }
    ~WakeupPairs() override {
        if (pair != nullptr) wakeupPairDestroy(pair);
    }

    void pass() {
        stand.ioPass();
        dispatchAll(stand.queue);
    }

    // Shuts the writer, the end whose address is the reader's peer: the reader finds the end.
    void breakConnection() const {
        int32_t reader = -1;
        EXPECT_EQ(pelmoEvent_GetIOSource(event, &reader), kStatusSuccess);
        const in_port_t port = addressOf(reader, getpeername).sin_port;
        int writer = 0;
        while (writer < 1'000 && addressOf(writer, getsockname).sin_port != port)
            ++writer;
        EXPECT_EQ(shutdown(writer, SHUT_RDWR), 0);
    }

    EventStand stand;
    WakeupPair* pair = nullptr;
    uint32_t event = kNoId;
    int wakes = 0;
    std::function<void()> onWake;
};

TEST_F(WakeupPairs, CallOnceForManyWakesUnlessTheyFindNoSockets) {
    pass();
    EXPECT_EQ(wakes, 0);
    for (int i = 0; i < 32; ++i)
        wakeupPairWake(pair);
    pass();
    pass();
    EXPECT_EQ(wakes, 1);

    wakeupPairDisable(pair);
    EXPECT_FALSE(wakeupPairHasEvent(pair));
    wakeupPairWake(pair);
    EXPECT_EQ(wakeupPairRemake(pair, stand.queue), kStatusSuccess);
    pass();
    EXPECT_EQ(wakes, 1);
    wakeupPairWake(pair);
    pass();
    EXPECT_EQ(wakes, 2);
}

TEST_F(WakeupPairs, RemakeABrokenConnection) {
    testing::internal::CaptureStderr();
    breakConnection();
    pass();
    EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with(
        "Socket pair unexpectedly closed, creating new pair\n"));
    EXPECT_EQ(wakes, 0);  // there was no wake-up
    wakeupPairWake(pair);
    pass();
    EXPECT_EQ(wakes, 1);
    EXPECT_TRUE(wakeupPairHasEvent(pair));
}

// Nor does errno change, whether the byte is written, finds no room or no peer.
TEST_F(WakeupPairs, NeverBlockNorKillTheWaker) {
    for (const int times : {300'000, 1}) {
        errno = 4'711;
        for (int i = 0; i < times; ++i)
            wakeupPairWake(pair);
        EXPECT_EQ(errno, 4'711);
        breakConnection();
    }
}

// By their own callback; when they fail, and then their owner isn't called; or after their event.
TEST_F(WakeupPairs, MayBeDestroyedAtAnyTime) {
    onWake = [this] { wakeupPairDestroy(std::exchange(pair, nullptr)); };
    wakeupPairWake(pair);
    pass();
    EXPECT_EQ(wakes, 1);
    EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusInvalidEvent);

    create();
    wakeupPairWake(pair);
    pass();  // takes the byte
    onWake = [this] { wakeupPairDestroy(std::exchange(pair, nullptr)); };
    testing::internal::CaptureStderr();
    breakConnection();
    {
        const LowLimit noSockets(RLIMIT_NOFILE, 3);
        pass();  // finds it, and can't open another one
    }
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(pair, nullptr);

    create();
    EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusSuccess);
    wakeupPairWake(pair);
    pass();
    EXPECT_EQ(wakes, 0);
}

// The numbers of closed sockets are given to others at once; a waker never writes to these.
TEST_F(WakeupPairs, NeverWriteToAnotherDescriptor) {
    std::atomic<bool> done{false};
    std::thread waker([&] {
        while (!done)
            wakeupPairWake(pair);
    });
    for (int i = 0; i < 300; ++i) {
        wakeupPairDisable(pair);
        const SocketPair others[3];
        ASSERT_EQ(wakeupPairRemake(pair, stand.queue), kStatusSuccess);
        char byte;
        for (const SocketPair& other : others) {
            for (const int end : other.ends)
                ASSERT_LT(recv(end, &byte, 1, MSG_DONTWAIT), 0);
        }
    }
    done = true;
    waker.join();
}

// Other connections to the listening port are closed.
TEST(LoopbackPair, RejectsForeignConnects) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(listen(listener, 8), 0);
    const sockaddr_in target = addressOf(listener, getsockname);
    int ends[3];
    for (int& end : ends) {
        end = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(connect(end, reinterpret_cast<const sockaddr*>(&target), sizeof(target)), 0);
    }
    const sockaddr_in own = addressOf(ends[2], getsockname);
    const int accepted = loopbackAcceptFrom(listener, own);
    EXPECT_EQ(addressOf(accepted, getpeername).sin_port, own.sin_port);
    char byte;
    EXPECT_EQ(recv(ends[0], &byte, 1, 0), 0);
    EXPECT_EQ(recv(ends[1], &byte, 1, 0), 0);
    for (const int end : {listener, accepted, ends[0], ends[1], ends[2]})
        close(end);
}

}  // namespace
