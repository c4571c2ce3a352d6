// The fixture of a network transport against a daemon: an open library, a dispatcher, and the
// advisories of a break.

#pragma once

#include "lib/pelmo.h"
#include "lib/transport/daemon/link_environment.h"
#include "tests/support/misbehaving_daemon.h"

inline constexpr size_t kPartBytes = 0x10000;
inline constexpr size_t kMostWaitingBytes = 0x1000000;  // above them a sender waits

// A listener on the queue that the fixture's dispatcher serves.
struct ServedListener : TestListener {
    ServedListener(uint32_t transport, const char* subject)
        : TestListener(kDefaultQueueId, subject, transport) {}
};

struct DaemonFixture : testing::Test {
    DaemonFixture() { open(); }
    ~DaemonFixture() override { pelmo_Close(); }

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
