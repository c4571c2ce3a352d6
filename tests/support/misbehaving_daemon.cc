#include "tests/support/misbehaving_daemon.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/message_typed.h"
#include "tests/support/envelope_bytes.h"
#include "tests/support/packet_builder.h"

namespace {

constexpr std::chrono::seconds kLongestAwait{10};
constexpr size_t kHeadBytes = 8;
constexpr size_t kGreetingSize = 12;
constexpr size_t kFrameSize = 64;
constexpr uint32_t kMagic = 0x9955eeaa;

DaemonScript step(DaemonStep made) {
    return {std::move(made)};
}

DaemonScript takeBytes(size_t size) {
    return step([size](DaemonWire& wire) {
        Bytes bytes;
        return wire.read(size, &bytes);
    });
}

}  // namespace

DaemonScript operator+(DaemonScript left, const DaemonScript& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// The wire

bool DaemonWire::await(short events, int milliseconds) {
    pollfd entries[] = {{.fd = handle, .events = events, .revents = 0},
                        {.fd = daemon.stopRead.number(), .events = POLLIN, .revents = 0}};
    int ready;
    do {
        ready = poll(entries, 2, milliseconds);
    } while (ready < 0 && errno == EINTR);
    return entries[1].revents == 0 && (milliseconds >= 0 || entries[0].revents != 0);
}

bool DaemonWire::write(const Bytes& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        if (!await(POLLOUT)) return false;
        const ssize_t sent =
            send(handle, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN && errno != EINTR) return false;
        if (sent > 0) at += static_cast<size_t>(sent);
    }
    return true;
}

bool DaemonWire::readSome(size_t most, Bytes* out) {
    out->resize(most);
    if (!await(POLLIN)) return false;
    const ssize_t got = recv(handle, out->data(), most, MSG_DONTWAIT);
    if (got <= 0) return false;
    out->resize(static_cast<size_t>(got));
    daemon.readBytes += static_cast<uint64_t>(got);
    return true;
}

bool DaemonWire::read(size_t size, Bytes* out) {
    out->clear();
    Bytes part;
    while (out->size() < size) {
        if (!readSome(size - out->size(), &part)) return false;
        out->insert(out->end(), part.begin(), part.end());
    }
    return true;
}

bool DaemonWire::readMessage(Bytes* out) {
    Bytes body;
    if (!read(kHeadBytes, out)) return false;
    const uint32_t size = loadBe32At(out->data());
    if (loadBe32At(out->data() + 4) != kMagic || size < kHeadBytes) return size == 0;
    if (!read(size - kHeadBytes, &body)) return false;
    if (body.empty()) return true;
    out->insert(out->end(), body.begin(), body.end());
    const std::lock_guard guard(daemon.mutex);
    daemon.received.push_back(*out);
    daemon.changed.notify_all();
    return true;
}

bool DaemonWire::pause(int milliseconds) {
    return await(POLLRDHUP, milliseconds);
}

bool DaemonWire::awaitGate() {
    std::unique_lock guard(daemon.mutex);
    ++daemon.gatesReached;
    daemon.changed.notify_all();
    daemon.changed.wait(guard, [&] { return daemon.ending || daemon.gatesOpen != 0; });
    if (daemon.ending) return false;
    --daemon.gatesOpen;
    return true;
}

void DaemonWire::resetAtEnd() {
    const linger none = {.l_onoff = 1, .l_linger = 0};
    EXPECT_EQ(setsockopt(handle, SOL_SOCKET, SO_LINGER, &none, sizeof(none)), 0);
}

// The daemon

MisbehavingDaemon::MisbehavingDaemon(std::vector<DaemonScript> connectionScripts)
    : scripts(std::move(connectionScripts)) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    stopRead = OwnHandle(ends[0]);
    stopWrite = OwnHandle(ends[1]);
    thread = std::thread([this] { run(); });
}

MisbehavingDaemon::~MisbehavingDaemon() {
    {
        const std::lock_guard guard(mutex);
        ending = true;
        changed.notify_all();
    }
    stopWrite.shut();
    thread.join();
}

std::string MisbehavingDaemon::name() const {
    return "127.0.0.1:" + std::to_string(ntohs(listener.port));
}

void MisbehavingDaemon::openGate() {
    const std::lock_guard guard(mutex);
    ++gatesOpen;
    changed.notify_all();
}

// A listening socket that is shut refuses, and keeps its port from others.
void MisbehavingDaemon::stopListening() {
    shutdown(listener.handle.number(), SHUT_RDWR);
}

bool MisbehavingDaemon::await(const std::function<bool()>& isTrue) {
    std::unique_lock guard(mutex);
    return changed.wait_for(guard, kLongestAwait, isTrue);
}

bool MisbehavingDaemon::awaitConnections(size_t count) {
    return await([&] { return connections >= count; });
}

bool MisbehavingDaemon::awaitGates(size_t count) {
    return await([&] { return gatesReached >= count; });
}

std::vector<Bytes> MisbehavingDaemon::messages() {
    const std::lock_guard guard(mutex);
    return received;
}

void MisbehavingDaemon::run() {
    for (size_t taken = 0;; ++taken) {
        pollfd entries[] = {{.fd = listener.handle.number(), .events = POLLIN, .revents = 0},
                            {.fd = stopRead.number(), .events = POLLIN, .revents = 0}};
        if (poll(entries, 2, -1) < 0 || entries[1].revents != 0) return;
        const OwnHandle connection = listener.take();
        if (connection.number() < 0) {  // it was told to stop listening
            entries[0].fd = -1;
            (void)poll(entries, 2, -1);
            return;
        }
        const int on = 1;
        setsockopt(connection.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        {
            const std::lock_guard guard(mutex);
            ++connections;
            changed.notify_all();
        }
        DaemonWire wire(*this, connection.number());
        for (const DaemonStep& made : scripts[std::min(taken, scripts.size() - 1)]) {
            if (!made(wire)) break;
        }
    }
}

// Bytes

Bytes frameBytes(const Frame& frame) {
    Bytes bytes = joined({be32(frame.type), be32(frame.version), be32(0), be16(frame.queueLimit),
                          be16(frame.format), be32(0), be32(frame.limitA), be32(frame.limitB)});
    bytes.resize(kFrameSize);
    return bytes;
}

Bytes replyBytes(const Reply& reply) {
    const auto has = [&](const char* field) { return std::strcmp(field, reply.without) != 0; };
    const Message data = newMessage();
    const Message outer = newMessage();
    pelmoMsg* const in = data.get();
    bool made = true;
    const auto add = [&](pelmoStatus status) { made = made && status == kStatusSuccess; };
    if (has("ipaddr")) add(pelmoMsg_AddIPAddr32(in, "ipaddr", kLoopbackHost, 0));
    if (has("ipport")) add(pelmoMsg_AddIPPort16(in, "ipport", htons(7500), 0));
    add(pelmoMsg_AddU16(in, "cid", 9, 0));
    add(pelmoMsg_AddI32(in, "vmaj", 8, 0));
    add(pelmoMsg_AddI32(in, "vmin", 5, 0));
    add(pelmoMsg_AddI32(in, "vupd", 2, 0));
    if (reply.error >= 0) add(pelmoMsg_AddI32(in, "error", static_cast<int32_t>(reply.error), 0));
    if (has("mtype")) add(pelmoMsg_AddString(outer.get(), "mtype", reply.mtype, 0));
    if (has("data")) add(pelmoMsg_AddMsg(outer.get(), "data", in, 0));
    EXPECT_TRUE(made);
    return imageOf(outer.get());
}

Bytes messageBytes(const char* subject, const std::string& text) {
    const Message message = newMessage();
    EXPECT_EQ(pelmoMsg_AddString(message.get(), "text", text.c_str(), 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_SetSendSubject(message.get(), subject), kStatusSuccess);
    return wireOf(message.get());
}

// Steps

DaemonScript greet(const Greeting& greeting) {
    return sendBytes(be32(greeting.first) + be32(greeting.version) + be32(0));
}

DaemonScript takeAnswer() {
    return takeBytes(kGreetingSize);
}

DaemonScript sendFrame(const Frame& frame) {
    return sendBytes(frameBytes(frame));
}

DaemonScript takeFrame() {
    return takeBytes(kFrameSize);
}

DaemonScript takeMessage() {
    return step([](DaemonWire& wire) {
        Bytes message;
        return wire.readMessage(&message) && loadBe32At(message.data()) != 0;
    });
}

DaemonScript reply(const Reply& reply) {
    return sendBytes(replyBytes(reply));
}

DaemonScript sendBytes(const Bytes& bytes) {
    return step([bytes](DaemonWire& wire) { return wire.write(bytes); });
}

DaemonScript sendOneByOne(const Bytes& bytes) {
    return step([bytes](DaemonWire& wire) {
        return std::ranges::all_of(bytes, [&](uint8_t byte) { return wire.write({byte}); });
    });
}

DaemonScript pauseFor(int milliseconds) {
    return step([milliseconds](DaemonWire& wire) { return wire.pause(milliseconds); });
}

DaemonScript gate() {
    return step([](DaemonWire& wire) { return wire.awaitGate(); });
}

DaemonScript hangUp() {
    return step([](DaemonWire&) { return false; });
}

DaemonScript reset() {
    return step([](DaemonWire& wire) {
        wire.resetAtEnd();
        return false;
    });
}

DaemonScript silence() {
    return step([](DaemonWire& wire) { return wire.pause(-1) && false; });
}

DaemonScript serve() {
    return step([](DaemonWire& wire) {
        Bytes message;
        while (wire.readMessage(&message)) {
            if (loadBe32At(message.data()) == 0) return wire.write(Bytes(kHeadBytes)) && false;
        }
        return false;
    });
}

DaemonScript goodHandshake() {
    return greet() + takeAnswer() + sendFrame({}) + takeFrame() + sendFrame({.type = 1});
}

DaemonScript goodSession() {
    return goodHandshake() + takeMessage() + reply() + takeMessage();
}
