// What the daemons of tests share: a port on the loopback, a thread for each connection, and the
// bytes that open a session.

#pragma once

#include <netinet/tcp.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include "lib/base/bytes.h"
#include "lib/msg/message_typed.h"
#include "lib/transport/transport_links.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/message_values.h"
#include "tests/support/packet_builder.h"
#include "tests/support/test.h"

struct Greeting {
    uint32_t first = 0;
    uint32_t version = 4;
};
inline constexpr size_t kGreetingSize = 12;
inline Bytes greetingBytes(const Greeting& greeting = {}) {
    return be32(greeting.first) + be32(greeting.version) + be32(0);
}

struct Frame {
    uint32_t type = 2;
    uint32_t version = 2;
    uint16_t queueLimit = 0;
    uint16_t format = 1;
    uint32_t limitA = 0x4000000;
    uint32_t limitB = 0x4000000;
};
inline constexpr size_t kFrameSize = 64;
inline Bytes frameBytes(const Frame& frame = {}) {
    Bytes bytes = be32(frame.type) + be32(frame.version) + be32(0) + be16(frame.queueLimit) +
                  be16(frame.format) + be32(0) + be32(frame.limitA) + be32(frame.limitB);
    bytes.resize(kFrameSize);
    return bytes;
}

// A reply to a start message.
struct Reply {
    const char* without = "";  // the field that is left out
    const char* mtype = "R";
    int64_t error = -1;         // negative: none
    const char* gob = nullptr;  // null: none
    DaemonVersion version = {8, 5, 2};
};
inline Bytes replyBytes(const Reply& reply = {}) {
    const auto has = [&](const char* field) { return std::strcmp(field, reply.without) != 0; };
    const Message data = newMessage(), outer = newMessage();
    pelmoMsg* const in = data.get();
    const auto number = [&](const char* name, int64_t value) {
        EXPECT_EQ(pelmoMsg_AddI32(in, name, static_cast<int32_t>(value), 0), kStatusSuccess);
    };
    if (has("ipaddr")) (void)pelmoMsg_AddIPAddr32(in, "ipaddr", kLoopbackHost, 0);
    if (has("ipport")) (void)pelmoMsg_AddIPPort16(in, "ipport", htons(7500), 0);
    EXPECT_EQ(pelmoMsg_AddU16(in, "cid", 0x2a, 0), kStatusSuccess);
    number("vmaj", reply.version.major);
    number("vmin", reply.version.minor);
    number("vupd", reply.version.update);
    if (reply.error >= 0) number("error", reply.error);
    if (reply.gob != nullptr) (void)pelmoMsg_AddString(in, "gob", reply.gob, 0);
    if (has("mtype")) (void)pelmoMsg_AddString(outer.get(), "mtype", reply.mtype, 0);
    if (has("data")) (void)pelmoMsg_AddMsg(outer.get(), "data", in, 0);
    return imageOf(outer.get());
}

// One connection. Calls return false once either side has ended it.
struct DaemonWire : NoCopy {
    OwnHandle handle;
    size_t bytesLeft = SIZE_MAX;  // it reads no more

    explicit DaemonWire(OwnHandle connection) : handle(std::move(connection)) {}

    [[nodiscard]] bool write(const Bytes& bytes) const {
        return send(handle.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    [[nodiscard]] bool read(size_t size, Bytes* out) {
        const size_t wanted = std::min(size, bytesLeft);
        bytesLeft -= wanted;
        out->resize(wanted);
        return recv(handle.number(), out->data(), wanted, MSG_WAITALL) ==
                   static_cast<ssize_t>(size) &&
               wanted == size;
    }

    // The next message, without keep-alives. A close notice is eight zero bytes.
    [[nodiscard]] bool readMessage(Bytes* out) {
        constexpr uint32_t kHeadBytes = 8;
        do {
            if (!read(kHeadBytes, out)) return false;
        } while (loadBe32At(out->data()) == kHeadBytes);
        const uint32_t size = loadBe32At(out->data());
        Bytes body;
        if (size == 0) return true;
        if (size < kHeadBytes || !read(size - kHeadBytes, &body)) return false;
        out->insert(out->end(), body.begin(), body.end());
        return true;
    }

    // Lets time pass, negative: until the connection ends.
    [[nodiscard]] bool pause(int milliseconds) const {
        pollfd polled = {.fd = handle.number(), .events = POLLRDHUP, .revents = 0};
        return poll(&polled, 1, milliseconds) == 0;
    }
};

// Declared last in a daemon: its end waits for all connections.
struct DaemonFrame : NoCopy {
    // Runs on a thread of each connection, counted from 0; the connection ends with it.
    using Serve = std::function<void(DaemonWire& wire, size_t index)>;

    LoopbackListener listener;
    std::mutex mutex;  // guards all below, and what the daemon adds
    std::condition_variable changed;
    bool isEnding = false;
    size_t acceptedCount = 0;
    size_t openCount = 0;

    // `port` 0: any.
    explicit DaemonFrame(Serve each, uint16_t port = 0)
        : listener(SOMAXCONN, port), serve(std::move(each)), acceptor([this] { accept(); }) {}
    ~DaemonFrame() {
        {
            const std::lock_guard guard(mutex);
            isEnding = true;
            changed.notify_all();
        }
        stopListening();
        acceptor.join();
        breakConnections();
        connections.clear();
    }

    // A listening socket that is shut refuses, and keeps its port from others.
    void stopListening() const { shutdown(listener.handle.number(), SHUT_RDWR); }
    void breakConnections() {
        const std::lock_guard guard(mutex);
        for (const Connection& each : connections)
            shutdown(each.wire.handle.number(), SHUT_RDWR);
    }

    template <typename Condition>
    [[nodiscard]] bool await(Condition isTrue) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(30), isTrue);
    }

  private:
    struct Connection {
        DaemonWire wire;
        bool isOver = false;
        std::thread thread{};

        explicit Connection(OwnHandle handle) : wire(std::move(handle)) {}
        ~Connection() { thread.join(); }
    };
    const Serve serve;
    std::list<Connection> connections;
    std::thread acceptor;

    void accept() {
        for (;;) {
            OwnHandle handle = listener.take();
            std::unique_lock lock(mutex);
            // The thread stays, so that those who count threads find it.
            if (handle.number() < 0) return changed.wait(lock, [this] { return isEnding; });
            const int on = 1;
            setsockopt(handle.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            connections.remove_if([](const Connection& each) { return each.isOver; });
            Connection& made = connections.emplace_back(std::move(handle));
            ++openCount;
            made.thread = std::thread([this, &made, index = acceptedCount++] {
                serve(made.wire, index);
                const std::lock_guard guard(mutex);
                made.wire.handle.shut();
                made.isOver = true;
                --openCount;
                changed.notify_all();
            });
            changed.notify_all();
        }
    }
};
