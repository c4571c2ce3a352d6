#include "pmd/client.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/text.h"
#include "lib/msg/message_internal.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/transport/ipq/ipq.h"
#include "lib/transport/socket/socket.h"

constinit Lock daemonLock = PELMO_LOCK_READY(LockRank::kDaemon);

namespace {

constinit ClientOps clientOps{};
std::atomic<uint32_t> alive{0};

void clientFree(void* closure) {
    auto* client = static_cast<Client*>(closure);
    client->~Client();
    std::free(client);
    alive.fetch_sub(1, std::memory_order_release);
}

// A handshake is a few bytes: if they can't be sent at once, the peer isn't reading them.
bool sendAll(Client* client, HandshakeBytes bytes) PELMO_REQUIRES(daemonLock) {
    if (bytes.empty()) return true;
    uint32_t sent = 0;
    const auto size = static_cast<uint32_t>(bytes.size());
    return socketWrite(client->socket, bytes.data(), size, &sent) == kSocketDone && sent == size;
}

void onMessages(Ipq*, std::span<pelmoMsg* const> messages, void* closure) {
    auto* client = static_cast<Client*>(closure);
    {
        const LockGuard guard(daemonLock);
        if (!client->isClosed) clientOps.received(client, messages);
    }
    for (pelmoMsg* message : messages) {
        msgRelease(message);
    }
}

void onGrowth(Ipq*, void* closure) {
    auto* client = static_cast<Client*>(closure);
    const LockGuard guard(daemonLock);
    if (!client->isClosed) clientOps.grown(client);
}

void onLost(Ipq*, void* closure) {
    auto* client = static_cast<Client*>(closure);
    const LockGuard guard(daemonLock);
    if (!client->isClosed) clientOps.failed(client, kClientGone);
}

// The queue takes the socket over, even if it can't be made.
bool makeQueue(Client* client) PELMO_REQUIRES(daemonLock) {
    (void)socketCancelReadable(client->socket, nullptr);
    Ipq* ipq = nullptr;
    Socket* const socket = std::exchange(client->socket, nullptr);
    if (ipqCreate(&ipq, &client->handshake.frame, kFirstIoQueueId, socket) != kStatusSuccess) {
        return false;
    }
    client->ipq = ipq;
    ipqSetErrorCallback(ipq, onLost, client);
    ipqSetMostFirstBytes(ipq, kMostStartBytes);
    ipqSetGrowthCallback(ipq, onGrowth);
    return true;
}

const char* advance(Client* client, HandshakeBytes bytes) PELMO_REQUIRES(daemonLock) {
    HandshakeBytes answer;
    const HandshakeVerdict verdict = serverHandshakeTake(&client->handshake, bytes, &answer);
    const bool sent = sendAll(client, answer);
    if (verdict == HandshakeVerdict::kRefused) return client->handshake.fault;
    if (!sent) return "it doesn't take the handshake";
    if (verdict == HandshakeVerdict::kGoOn) return nullptr;
    if (!makeQueue(client)) return "there is no queue for it";
    clientOps.opened(client);
    const pelmoStatus status = ipqSetReadCallback(client->ipq, onMessages, client);
    return status == kStatusSuccess ? nullptr : "there is no memory to read from it";
}

// No more than the handshake wants: what the client sends after it belongs to the queue.
void onHandshakeReadable(Socket* socket, void* closure) {
    auto* client = static_cast<Client*>(closure);
    const LockGuard guard(daemonLock);
    if (client->isClosed) return;
    while (client->socket != nullptr) {
        uint8_t bytes[kHelloBytes];
        uint32_t count = 0;
        const uint32_t wanted = serverHandshakeWants(&client->handshake);
        const SocketCode code = socketRead(socket, bytes, wanted, &count);
        if (code == kSocketWouldBlock) return;
        const char* fault = code == kSocketDone ? advance(client, {bytes, count}) : kClientGone;
        if (fault != nullptr) return clientOps.failed(client, fault);  // may be the record's end
    }
}

bool begin(Client* client) PELMO_REQUIRES(daemonLock) {
    socketSetMode(client->socket, SocketMode::kNonBlocking);
    if (!sendAll(client, serverHandshakeBegin(&client->handshake))) return false;
    return socketOnReadable(client->socket, onHandshakeReadable, client) == kStatusSuccess;
}

void closeSocket(Client* client) PELMO_REQUIRES(daemonLock) {
    Socket* const socket = std::exchange(client->socket, nullptr);
    const bool isFreedLater = socketCancelReadable(socket, clientFree) == kStatusSuccess;
    socketDestroy(socket);
    if (!isFreedLater) clientFree(client);
}

}  // namespace

void clientSetOps(const ClientOps& ops) {
    clientOps = ops;
}

Client* clientMake(Socket* socket) {
    void* const block = std::calloc(1, sizeof(Client));
    if (block == nullptr) {
        socketDestroy(socket);
        return nullptr;
    }
    alive.fetch_add(1, std::memory_order_relaxed);
    auto* client = new (block) Client{};
    client->socket = socket;
    client->address = socketPeerAddress(socket);
    client->port = socketPeerPort(socket);
    if (begin(client)) return client;
    client->isClosed = true;
    closeSocket(client);
    return nullptr;
}

void clientClose(Client* client) {
    client->isClosed = true;
    if (client->socket != nullptr) return closeSocket(client);
    if (client->ipq == nullptr) return clientFree(client);
    ipqClose(client->ipq, false, clientFree);
}

bool clientSaidGoodbye(const Client* client) {
    return client->ipq != nullptr && ipqHasNotice(client->ipq);
}

Backlog clientBacklog(const Client* client) {
    return {ipqBacklog(client->ipq).bytes, ipqWriteStatistics(client->ipq).bytes};
}

uint64_t clientMemory(const Client* client) {
    if (client->ipq == nullptr) return 0;
    const IpqBacklog backlog = ipqBacklog(client->ipq);
    return backlog.bufferBytes + backlog.unfinishedBytes;
}

uint32_t clientsAlive() {
    return alive.load(std::memory_order_acquire);
}

const char* clientText(const Client* client) {
    static char text[96] PELMO_GUARDED_BY(daemonLock);
    const uint32_t address = hostOrder32(client->address);
    const char* user = client->peer.start.user;
    boundedFormat(text, sizeof text, "%u.%u.%u.%u:%u%s%s%s", address >> 24, address >> 16 & 0xff,
                  address >> 8 & 0xff, address & 0xff, hostOrder16(client->port),
                  user[0] != '\0' ? " (" : "", user, user[0] != '\0' ? ")" : "");
    return text;
}
