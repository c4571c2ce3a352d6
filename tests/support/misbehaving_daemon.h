// What the daemons of tests share, a port on the loopback, a thread for each connection and the
// bytes that open a session; and a daemon that does what a script says, right or wrong:
//
//     MisbehavingDaemon daemon({greet() + hangUp(), goodSession() + serve()});
//     pelmoTransport_CreateNetwork(&transport, nullptr, nullptr, daemon.name().c_str());
//
// A script is a list of steps. Its end closes the connection, as does a step that the client
// doesn't let go on. The last script is used for all further connections.
//
// Threads: the steps run on a thread of each connection and end with the daemon. All else is for
// the test's.

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
#include "tests/support/local_bus.h"
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

class MisbehavingDaemon;
using DaemonStep = std::function<bool(MisbehavingDaemon&, DaemonWire&)>;
using DaemonScript = std::vector<DaemonStep>;

inline DaemonScript operator+(DaemonScript left, const DaemonScript& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class MisbehavingDaemon : NoCopy {
  public:
    explicit MisbehavingDaemon(std::vector<DaemonScript> connections)
        : scripts(std::move(connections)) {}

    // "127.0.0.1:PORT"
    [[nodiscard]] std::string name() const {
        return "127.0.0.1:" + std::to_string(ntohs(frame.listener.port));
    }

    // Lets one gate go on, now or when it is reached.
    void openGate() { count(&gatesOpen); }

    // Further connections are refused.
    void stopListening() const { frame.stopListening(); }

    // Wait until there were so many.
    [[nodiscard]] bool awaitConnections(size_t count) {
        return frame.await([&] { return frame.acceptedCount >= count; });
    }
    [[nodiscard]] bool awaitGates(size_t count) {
        return frame.await([&] { return gatesReached >= count; });
    }

    // What clients sent, with their heads, in order; keep-alives aside.
    [[nodiscard]] std::vector<Bytes> messages() {
        const std::lock_guard guard(frame.mutex);
        return received;
    }

    // For steps.
    [[nodiscard]] bool passGate() {
        count(&gatesReached);
        std::unique_lock lock(frame.mutex);
        frame.changed.wait(lock, [&] { return frame.isEnding || gatesOpen != 0; });
        return !frame.isEnding && gatesOpen-- != 0;
    }
    // Notes the message; false for a close notice, too.
    [[nodiscard]] bool take(DaemonWire& wire, Bytes* message) {
        if (!wire.readMessage(message) || loadBe32At(message->data()) == 0) return false;
        const std::lock_guard guard(frame.mutex);
        received.push_back(*message);
        return true;
    }

  private:
    const std::vector<DaemonScript> scripts;
    size_t gatesReached = 0, gatesOpen = 0;
    std::vector<Bytes> received;
    DaemonFrame frame{[this](DaemonWire& wire, size_t index) {
        for (const DaemonStep& made : scripts[std::min(index, scripts.size() - 1)]) {
            if (!made(*this, wire)) return;
        }
    }};

    void count(size_t* number) {
        const std::lock_guard guard(frame.mutex);
        ++*number;
        frame.changed.notify_all();
    }
};

// A message of an application, with its envelope.
inline Bytes messageBytes(const char* subject, const std::string& text) {
    const Message message = messageOn(subject, text.c_str());
    EXPECT_EQ(msgCloseEnvelope(message.get()), kStatusSuccess);
    return imageOf(message.get());
}

// Steps

inline DaemonScript sendBytes(const Bytes& bytes) {
    return {[bytes](MisbehavingDaemon&, DaemonWire& wire) { return wire.write(bytes); }};
}
inline DaemonScript sendOneByOne(const Bytes& bytes) {
    return {[bytes](MisbehavingDaemon&, DaemonWire& wire) {
        return std::ranges::all_of(bytes, [&](uint8_t byte) { return wire.write({byte}); });
    }};
}
inline DaemonScript greet(const Greeting& greeting = {}) {
    return sendBytes(greetingBytes(greeting));
}
inline DaemonScript takeAnswer() {
    return {[](MisbehavingDaemon&, DaemonWire& wire) {
        Bytes answer;
        if (!wire.read(kGreetingSize, &answer)) return false;
        EXPECT_EQ(answer, be32(0) + be32(4) + be32(0)) << "a daemon of some host";
        return true;
    }};
}
inline DaemonScript sendFrame(const Frame& frame) {
    return sendBytes(frameBytes(frame));
}
inline DaemonScript takeFrame() {
    return {[](MisbehavingDaemon&, DaemonWire& wire) {
        Bytes frame;
        return wire.read(kFrameSize, &frame);
    }};
}
inline DaemonScript reply(const Reply& reply = {}) {
    return sendBytes(replyBytes(reply));
}
inline DaemonScript takeMessage() {
    return {[](MisbehavingDaemon& daemon, DaemonWire& wire) {
        Bytes message;
        return daemon.take(wire, &message);
    }};
}
inline DaemonScript pauseFor(int milliseconds) {
    return {
        [milliseconds](MisbehavingDaemon&, DaemonWire& wire) { return wire.pause(milliseconds); }};
}
inline DaemonScript gate() {
    return {[](MisbehavingDaemon& daemon, DaemonWire&) { return daemon.passGate(); }};
}
inline DaemonScript hangUp() {
    return {[](MisbehavingDaemon&, DaemonWire&) { return false; }};
}

// Hangs up, and drops what is under way.
inline DaemonScript reset() {
    return {[](MisbehavingDaemon&, DaemonWire& wire) {
        const linger none = {.l_onoff = 1, .l_linger = 0};
        setsockopt(wire.handle.number(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
        return false;
    }};
}

// Neither reads nor writes until the client closes.
inline DaemonScript silence() {
    return pauseFor(-1);
}

// Reads all messages, and answers the close notice.
inline DaemonScript serve() {
    return {[](MisbehavingDaemon& daemon, DaemonWire& wire) {
        Bytes message(1);
        while (daemon.take(wire, &message)) {
        }
        return message == Bytes(8) && wire.write(message);
    }};
}

inline DaemonScript goodHandshake() {
    return greet() + takeAnswer() + sendFrame({}) + takeFrame() + sendFrame({.type = 1});
}

// All up to the second start message.
inline DaemonScript goodSession() {
    return goodHandshake() + takeMessage() + reply() + takeMessage();
}
