// A daemon that does what a script says, right or wrong.
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

#include "tests/support/daemon_frame.h"
#include "tests/support/local_bus.h"

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

inline DaemonScript wireStep(std::function<bool(DaemonWire&)> act) {
    return {[act = std::move(act)](MisbehavingDaemon&, DaemonWire& wire) { return act(wire); }};
}
inline DaemonScript sendBytes(const Bytes& bytes) {
    return wireStep([bytes](DaemonWire& wire) { return wire.write(bytes); });
}
inline DaemonScript sendOneByOne(const Bytes& bytes) {
    return wireStep([bytes](DaemonWire& wire) {
        return std::ranges::all_of(bytes, [&](uint8_t byte) { return wire.write({byte}); });
    });
}
inline DaemonScript greet(const Greeting& greeting = {}) {
    return sendBytes(greetingBytes(greeting));
}
inline DaemonScript takeAnswer() {
    return wireStep([](DaemonWire& wire) {
        Bytes answer;
        if (!wire.read(kGreetingSize, &answer)) return false;
        EXPECT_EQ(answer, be32(0) + be32(4) + be32(0)) << "a daemon of some host";
        return true;
    });
}
inline DaemonScript sendFrame(const Frame& frame) {
    return sendBytes(frameBytes(frame));
}
inline DaemonScript takeFrame() {
    return wireStep([](DaemonWire& wire) {
        Bytes frame;
        return wire.read(kFrameSize, &frame);
    });
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
    return wireStep([milliseconds](DaemonWire& wire) { return wire.pause(milliseconds); });
}
inline DaemonScript gate() {
    return {[](MisbehavingDaemon& daemon, DaemonWire&) { return daemon.passGate(); }};
}
inline DaemonScript hangUp() {
    return wireStep([](DaemonWire&) { return false; });
}

// Hangs up, and drops what is under way.
inline DaemonScript reset() {
    return wireStep([](DaemonWire& wire) {
        const linger none = {.l_onoff = 1, .l_linger = 0};
        setsockopt(wire.handle.number(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
        return false;
    });
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
