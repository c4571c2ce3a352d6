// The floor of a request through a broker: bare TCP over two hops, client, relay and server each a
// process of its own that waits in the system for bytes. With a port, pmd is in the relay's place,
// and its two clients are as bare (bare_client.h).
//
//     tcp_floor SIZE COUNT [PORT]     prints "MEDIAN P999" in microseconds

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/bus/bare_client.h"

namespace {

constexpr size_t kRoomBytes = 65536;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::_Exit(1);
}

double now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// A connection over loopback, both ends.
struct Pair {
    int near, far;
};

Pair connectPair() {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, generic, size) != 0 || listen(listener, 1) != 0) fail("listen");
    if (getsockname(listener, generic, &size) != 0) fail("getsockname");
    const int near = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(near, generic, size) != 0) fail("connect");
    const int far = accept(listener, nullptr, nullptr);
    close(listener);
    const int on = 1;
    for (const int end : {near, far}) {
        setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    return {near, far};
}

void writeAll(int to, const uint8_t* bytes, size_t size) {
    while (size > 0) {
        const ssize_t sent = write(to, bytes, size);
        if (sent <= 0) fail("write");
        bytes += sent;
        size -= static_cast<size_t>(sent);
    }
}

// False at the end of the stream.
bool readAll(int from, uint8_t* bytes, size_t size) {
    while (size > 0) {
        const ssize_t got = read(from, bytes, size);
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

// Reads as much as a question has, and answers.
void serve(int connection, size_t size, const std::vector<uint8_t>& answer) {
    std::vector<uint8_t> bytes(size);
    while (readAll(connection, bytes.data(), size)) {
        writeAll(connection, answer.data(), answer.size());
    }
}

void relay(int left, int right) {
    std::vector<uint8_t> bytes(kRoomBytes);
    pollfd ends[] = {{left, POLLIN, 0}, {right, POLLIN, 0}};
    for (;;) {
        if (poll(ends, 2, -1) < 0) fail("poll");
        for (int i = 0; i < 2; ++i) {
            if (ends[i].revents == 0) continue;
            const ssize_t got = read(ends[i].fd, bytes.data(), bytes.size());
            if (got <= 0) return;
            writeAll(ends[1 - i].fd, bytes.data(), static_cast<size_t>(got));
        }
    }
}

template <typename Work>
void inProcess(Work work) {
    const pid_t child = fork();
    if (child < 0) fail("fork");
    if (child != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work();
    std::_Exit(0);
}

// Where questions are sent and answers come in; the other end answers already.
struct Road {
    int connection;
    std::vector<uint8_t> question, answer;
};

Road bareRoad(size_t size) {
    const Pair client = connectPair(), server = connectPair();
    const std::vector<uint8_t> bytes(size);
    inProcess([&] { relay(client.far, server.near); });
    inProcess([&] { serve(server.far, size, bytes); });
    return {client.near, bytes, bytes};
}

Road daemonRoad(size_t size, uint16_t port) {
    const Road road = {bareConnect(port, "ANSWER"), bareMessage("QUESTION", size),
                       bareMessage("ANSWER", size)};
    const int server = bareConnect(port, "QUESTION");
    inProcess([&] { serve(server, road.question.size(), road.answer); });
    return road;
}

void measure(const Road& road, size_t count) {
    std::vector<uint8_t> bytes(road.answer.size());
    std::vector<double> times;
    for (size_t i = 0; i < count + count / 10; ++i) {
        const double start = now();
        writeAll(road.connection, road.question.data(), road.question.size());
        if (!readAll(road.connection, bytes.data(), bytes.size())) fail("read");
        if (i >= count / 10) times.push_back(now() - start);
    }
    std::sort(times.begin(), times.end());
    std::printf("%.1f %.1f\n", times[count / 2] * 1e6, times[count * 999 / 1000] * 1e6);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) fail("arguments");
    const auto number = [&](int at) { return std::strtoull(argv[at], nullptr, 10); };
    measure(
        argc > 3 ? daemonRoad(number(1), static_cast<uint16_t>(number(3))) : bareRoad(number(1)),
        number(2));
    std::_Exit(0);
}
