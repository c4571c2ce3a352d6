// Any bytes from some clients of the daemon at once: through the handshake, the stream cutter and
// the exchange, with the packetiser after it. What a client gets is whole and was meant for it;
// when all have gone, nothing of them is left.
//
//     input:   row of pieces: | client and flags 1 | size 2, big-endian | bytes ... |
//
// Flags: the client's connection is closed first, and then begins again; it begins after the
// handshake; it begins with a session.

#include <algorithm>

#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "lib/containers/hash.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/daemon/session.h"
#include "lib/transport/ipq/stream_cutter.h"
#include "pmd/exchange.h"
#include "pmd/oska_writer.h"
#include "pmd/server_handshake.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr uint8_t kClientMask = 3;
constexpr uint8_t kCloses = 4;
constexpr uint8_t kSkipsHandshake = 8;
constexpr uint8_t kStarted = 16;
constexpr uint32_t kReadBytes = 4096;
constexpr uint32_t kMostMessageBytes = 1 << 20;

struct Connection {
    Peer peer;
    ServerHandshake handshake;
    StreamCutter cutter;
    bool isOpen;      // bytes are taken
    bool hasEntered;  // the handshake is done
    bool hasLeft;     // the exchange knows it no longer
};

struct Daemon {
    Exchange exchange;
    OskaWriter writer;
    Connection connections[kClientMask + 1];
    Connection* taking;  // whose messages are being taken
};

void checkWhole(MessageRun run) {
    require(!run.empty());
    for (const pelmoMsg* msg : run)
        require(msgIsValid(msg) && msg->length >= 8 && loadBe32At(msgImage(msg)) == msg->length);
}

void onDeliver(void* closure, Member* to, MessageRun run) {
    const auto* daemon = static_cast<Daemon*>(closure);
    const auto* receiver = static_cast<Connection*>(to->owner);
    checkWhole(run);
    require(receiver->hasEntered && !receiver->hasLeft);
    require(receiver == daemon->taking ||
            receiver->peer.member.realm == daemon->taking->peer.member.realm);
}

void onTell(void* closure, Member* to, pelmoMsg* message) {
    onDeliver(closure, to, {&message, 1});
}

void onPublish(void* closure, MessageRun run) {
    auto* daemon = static_cast<Daemon*>(closure);
    checkWhole(run);
    for (const pelmoMsg* msg : run)
        oskaWriterAdd(&daemon->writer, {msgImage(msg), msg->length}, 1.0);
}

void onCutOff(void*, Member* member, const char* why) {
    auto* connection = static_cast<Connection*>(member->owner);
    require(why != nullptr && connection->isOpen && member->realm == nullptr);
    connection->hasLeft = true;
}

void onPacket(void*, std::span<const uint8_t> packet) {
    require(packet.size() >= kOskaDataHeaderBytes && packet.size() <= kOskaPacketBytes);
}

void closeConnection(Daemon& daemon, Connection& connection) {
    if (connection.hasEntered) {
        exchangeLeave(&daemon.exchange, &connection.peer);
        cutterFree(&connection.cutter);
    }
    connection = {};
}

void enter(Daemon& daemon, Connection& connection) {
    connection.hasEntered = true;
    cutterInit(&connection.cutter, kReadBytes, kMostMessageBytes);
    exchangeEnter(&daemon.exchange, &connection.peer, &connection, 1);
}

// As the daemon does with who breaks the rules.
void end(Daemon& daemon, Connection& connection) {
    connection.isOpen = false;
    connection.hasLeft = true;
    exchangeLeave(&daemon.exchange, &connection.peer);
}

void take(Daemon& daemon, Connection& connection, MessageRun batch) {
    daemon.taking = &connection;
    const char* fault = exchangeTake(&daemon.exchange, &connection.peer, batch);
    if (fault != nullptr) end(daemon, connection);
    oskaWriterFlush(&daemon.writer, 1.0);
}

void startSession(Daemon& daemon, Connection& connection) {
    pelmoMsg* msg = nullptr;
    const SessionStart start = {"u", "", "", "", 1, false, 0, nullptr, nullptr, true, false, -1.0};
    require(sessionStartMessage(&msg, start) == kStatusSuccess);
    const HeldMessage held(msg);
    msgFlush(msg);
    take(daemon, connection, {&msg, 1});
    require(peerHasStarted(&connection.peer));
}

void openConnection(Daemon& daemon, Connection& connection, uint8_t flags) {
    connection.isOpen = true;
    (void)serverHandshakeBegin(&connection.handshake);
    if ((flags & (kSkipsHandshake | kStarted)) == 0) return;
    enter(daemon, connection);
    if ((flags & kStarted) != 0) startSession(daemon, connection);
}

// How many bytes the handshake used.
size_t shakeHands(Daemon& daemon, Connection& connection, std::span<const uint8_t> bytes) {
    const size_t size = std::min<size_t>(serverHandshakeWants(&connection.handshake), bytes.size());
    require(size > 0);
    HandshakeBytes answer;
    const auto verdict = serverHandshakeTake(&connection.handshake, bytes.first(size), &answer);
    require(answer.empty() || answer.size() == kHelloBytes);
    if (verdict == HandshakeVerdict::kAgreed) enter(daemon, connection);
    if (verdict == HandshakeVerdict::kRefused) connection.isOpen = false;
    return size;
}

size_t cutStream(Daemon& daemon, Connection& connection, std::span<const uint8_t> bytes) {
    const std::span<uint8_t> room = cutterRoom(&connection.cutter);
    require(!room.empty());
    const size_t size = std::min(room.size(), bytes.size());
    std::copy_n(bytes.begin(), size, room.begin());
    Dpa* batch = dpaCreate(1);
    const CutVerdict verdict = cutterTake(&connection.cutter, static_cast<uint32_t>(size), batch);
    auto** messages = reinterpret_cast<pelmoMsg**>(batch->items);
    if (batch->count != 0) take(daemon, connection, {messages, batch->count});
    for (uint32_t i = 0; i < batch->count; ++i)
        msgRelease(messages[i]);
    dpaDestroy(batch);
    if (verdict != CutVerdict::kGoOn) end(daemon, connection);
    return size;
}

void feed(Daemon& daemon, Connection& connection, std::span<const uint8_t> bytes) {
    while (!bytes.empty() && connection.isOpen && !connection.hasLeft) {
        const auto use = connection.hasEntered ? cutStream : shakeHands;
        bytes = bytes.subspan(use(daemon, connection, bytes));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static auto* const daemon = new Daemon();
    const SessionGround ground = {1, 2, 0x0100007f, 0x4c1d};
    require(
        exchangeInit(&daemon->exchange, ground, {onDeliver, onTell, onPublish, onCutOff}, daemon));
    oskaWriterInit(&daemon->writer, 1, 2, 3, onPacket, nullptr);

    std::span<const uint8_t> left(data, size);
    while (left.size() >= 3) {
        const uint8_t flags = left[0];
        const size_t pieceBytes = std::min<size_t>(loadBe16At(left.data() + 1), left.size() - 3);
        const std::span<const uint8_t> piece = left.subspan(3, pieceBytes);
        left = left.subspan(3 + pieceBytes);
        Connection& connection = daemon->connections[flags & kClientMask];
        if ((flags & kCloses) != 0) closeConnection(*daemon, connection);
        if (!connection.isOpen && !connection.hasEntered)
            openConnection(*daemon, connection, flags);
        feed(*daemon, connection, piece);
    }
    for (Connection& connection : daemon->connections)
        closeConnection(*daemon, connection);
    require(daemon->exchange.router.realms->count == 0 && daemon->exchange.ids.taken.none());
    exchangeFree(&daemon->exchange);
    return 0;
}
