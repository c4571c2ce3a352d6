#include "bench/bus/bare_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "lib/base/bytes.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/wire.h"
#include "lib/transport/daemon/interest.h"
#include "lib/transport/daemon/session.h"
#include "lib/transport/ipq/hello.h"

namespace {

constexpr size_t kGreetingBytes = 12;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::_Exit(1);
}

void check(const char* what, bool holds) {
    if (!holds) fail(what);
}

void sendAll(int connection, const void* bytes, size_t size) {
    check("write", write(connection, bytes, size) == static_cast<ssize_t>(size));
}

void receiveAll(int connection, void* bytes, size_t size) {
    check("read", recv(connection, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size));
}

void sendMessage(int connection, pelmoMsg* msg) {
    (void)msgFlushBuffer(msg);
    sendAll(connection, msgImage(msg), msg->length);
    msgRelease(msg);
}

int connectTo(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const int connection = socket(AF_INET, SOCK_STREAM, 0);
    check("connect",
          connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    const int on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connection;
}

void shakeHands(int connection) {
    uint8_t greeting[kGreetingBytes];
    receiveAll(connection, greeting, sizeof greeting);
    sendAll(connection, greeting, sizeof greeting);
    HelloFrame frame;
    receiveAll(connection, frame.bytes, sizeof frame.bytes);
    ipqHelloNegotiate(&frame);
    sendAll(connection, frame.bytes, sizeof frame.bytes);
    receiveAll(connection, frame.bytes, sizeof frame.bytes);
    check("hello", helloRead(frame).type == kHelloAgreed);
}

void sendStart(int connection) {
    const SessionStart start = {.userName = "bench",
                                .session = "",
                                .service = "",
                                .network = "",
                                .pid = static_cast<uint32_t>(getpid()),
                                .resume = false,
                                .localAddress = 0,
                                .description = nullptr,
                                .httpAddress = nullptr,
                                .echo = false,
                                .hide = false,
                                .reliabilitySeconds = -1.0};
    pelmoMsg* msg = nullptr;
    check("start", sessionStartMessage(&msg, start) == kStatusSuccess);
    sendMessage(connection, msg);
}

void awaitReply(int connection) {
    std::vector<uint8_t> reply(kMessageHeadBytes);
    receiveAll(connection, reply.data(), reply.size());
    reply.resize(loadBe32At(reply.data()));
    receiveAll(connection, reply.data() + kMessageHeadBytes, reply.size() - kMessageHeadBytes);
}

}  // namespace

int bareConnect(uint16_t port, const char* subject) {
    const int connection = connectTo(port);
    shakeHands(connection);
    sendStart(connection);
    awaitReply(connection);
    sendStart(connection);
    uint8_t packed[kSubjectMaxBytes];
    check("subject", subjectFromText(packed, sizeof packed, subject) > 0);
    pelmoMsg* msg = nullptr;
    check("interest", interestMessage(&msg, packed, kInterestStart) == kStatusSuccess);
    sendMessage(connection, msg);
    // The second start message has no answer; another one's comes once the interest stands.
    sendStart(connection);
    awaitReply(connection);
    return connection;
}

std::vector<uint8_t> bareMessage(const char* subject, size_t size) {
    const std::vector<uint8_t> payload(size);
    pelmoMsg* msg = nullptr;
    check("message", msgCreateWithOpaque(&msg, subject, nullptr, payload.data(),
                                         static_cast<uint32_t>(size)) == kStatusSuccess);
    std::vector<uint8_t> bytes(msgImage(msg), msgImage(msg) + msg->length);
    msgRelease(msg);
    return bytes;
}
