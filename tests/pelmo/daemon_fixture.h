// The fixture of a network transport against a daemon: an open library, a dispatcher, and the
// advisories of a break.

#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "lib/pelmo.h"
#include "lib/runtime/library.h"
#include "lib/transport/daemon/link_environment.h"
#include "tests/support/local_bus.h"
#include "tests/support/misbehaving_daemon.h"
#include "tests/support/test.h"

inline constexpr size_t kPartBytes = 0x10000;
inline constexpr size_t kMostWaitingBytes = 0x1000000;  // above them a sender waits

// A time-out of the handshake that a test can wait for.
struct AnswerSeconds : NoCopy {
    explicit AnswerSeconds(double seconds) { linkEnvironment.answerSeconds = seconds; }
    ~AnswerSeconds() { linkEnvironment.answerSeconds = former; }

    double former = linkEnvironment.answerSeconds;
};

// Counts the messages of one subject; waits for them at the longest ten seconds.
struct CountingListener : NoCopy {
    CountingListener(uint32_t transport, const char* subject) {
        EXPECT_EQ(
            pelmoEvent_CreateListener(&event, kDefaultQueueId, take, transport, subject, this),
            kStatusSuccess);
    }

    [[nodiscard]] bool await(size_t wanted) const {
        return within(10, [&] { return count >= wanted; });
    }

    uint32_t event = kNoId;
    std::atomic<size_t> count{0};

  private:
    static void take(uint32_t, pelmoMsg*, void* closure) {
        ++static_cast<CountingListener*>(closure)->count;
    }
};

struct DaemonFixture : testing::Test {
    DaemonFixture() { open(); }
    ~DaemonFixture() override {
        if (libraryIsOpen()) pelmo_Close();
    }

    void open() {
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        EXPECT_EQ(pelmoDispatcher_CreateEx(&dispatcher, kDefaultQueueId, -1), kStatusSuccess);
    }

    pelmoStatus create(const MisbehavingDaemon& daemon) {
        return pelmoTransport_CreateNetwork(&transport, "7500", nullptr, daemon.name().c_str());
    }

    pelmoStatus sendText(const char* subject, const std::string& text) const {
        return ::sendText(transport, subject, text.c_str());
    }

    // Returns once the sender waits: a daemon that reads nothing has left it no room.
    [[nodiscard]] std::thread sendUntilItFails() const {
        auto sent = std::make_shared<std::atomic<size_t>>(0);
        std::thread sending([this, sent] {
            const std::string part(kPartBytes, 'x');
            while (sendText("A.B", part) == kStatusSuccess)
                ++*sent;
        });
        size_t seen;
        do {
            seen = *sent;
            (void)poll(nullptr, 0, 200);
        } while (seen != *sent || seen * kPartBytes < kMostWaitingBytes);
        return sending;
    }

    uint32_t dispatcher = kNoId;
    uint32_t transport = kNoId;
};

inline constexpr const char* kDisconnected = "_PM.WARN.SYSTEM.PMD.DISCONNECTED";
