// Sockets with the library's own threads.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/transport/socket/socket.h"
#include "lib/transport/socket/socket_class.h"
#include "tests/support/loopback_peer.h"

namespace {

// Callbacks run while other threads write, cancel and close.
TEST(SocketRaces, CloseWhileCallbacksRun) {
    ASSERT_EQ(pelmo_Open(), kStatusSuccess);
    struct Counts {
        std::atomic<uint32_t> reads{0};
        std::atomic<uint32_t> dones{0};
    } counts;
    const auto onReadable = [](Socket* socket, void* closure) {
        char bytes[16];
        uint32_t got;
        (void)socketRead(socket, bytes, sizeof(bytes), &got);
        ++static_cast<Counts*>(closure)->reads;
    };
    const auto onDone = [](void* closure) { ++static_cast<Counts*>(closure)->dones; };
    const LoopbackListener listener;
    constexpr int kRounds = 100;
    uint32_t cancels = 0;
    for (int round = 0; round < kRounds; ++round) {
        Socket* socket = nullptr;
        ASSERT_EQ(socketCreateClient(&socket, kPlainSocketClass, kFirstIoQueueId, false),
                  kSocketDone);
        (void)socketConnect(socket, kLoopbackHost, listener.port);
        (void)socketOnReadable(socket, onReadable, &counts);
        const OwnHandle peer = listener.take();
        ASSERT_EQ(socketWaitConnected(socket, -1), kStatusSuccess);
        const uint32_t before = counts.reads;
        sendText(peer.number(), "first");
        while (round % 2 == 0 && counts.reads == before)
            std::this_thread::yield();
        std::thread others[] = {
            std::thread([&] {
                uint32_t out;
                for (int i = 0; i < 10; ++i)
                    (void)socketWrite(socket, "x", 1, &out);
            }),
            std::thread([&] { (void)send(peer.number(), "more", 4, MSG_NOSIGNAL); }),
            std::thread([&] { (round % 4 < 2 ? socketClose : socketInterrupt)(socket); }),
        };
        if (socketCancelReadable(socket, onDone) == kStatusSuccess) ++cancels;
        for (std::thread& other : others)
            other.join();
        socketDestroy(socket);
    }
    while (counts.dones != cancels)
        std::this_thread::yield();
    EXPECT_EQ(pelmo_Close(), kStatusSuccess);
}

}  // namespace
