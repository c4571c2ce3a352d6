// Datagrams as they are: a sendto and a recvfrom for each, which is the least that a packet costs
// without batches. Nothing is acknowledged, and what finds no room is lost: for `cpu` alone, whose
// credits keep the sender from running away.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "bench/direct/direct_road.h"

namespace {

constexpr int kBufferBytes = 131072;  // as endpoints have it

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

int openSocket(uint16_t port) {
    const int handle = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in own = loopback(port);
    if (bind(handle, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0)
        roadFail("bind", std::strerror(errno));
    for (const int option : {SO_RCVBUF, SO_SNDBUF})
        setsockopt(handle, SOL_SOCKET, option, &kBufferBytes, sizeof kBufferBytes);
    return handle;
}

void receive(uint16_t port) {
    const int handle = openSocket(port);
    roadIsReady();
    for (;;) {
        uint8_t bytes[kRoadDatagramBytes];
        sockaddr_in source;
        socklen_t size = sizeof source;
        const ssize_t got =
            recvfrom(handle, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&source), &size);
        if (got < 0) roadFail("recvfrom", std::strerror(errno));
        roadTake(static_cast<uint64_t>(got), 1);
    }
}

void send(uint16_t port, uint32_t messageBytes) {
    const int handle = openSocket(0);
    const sockaddr_in peer = loopback(port);
    const std::vector<uint8_t> bytes(messageBytes, 'x');
    while (roadMaySend()) {
        if (sendto(handle, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&peer),
                   sizeof peer) < 0)
            roadFail("sendto", std::strerror(errno));
    }
}

}  // namespace

const DirectRoad kBareDirect = {"bare", receive, send, nullptr};
