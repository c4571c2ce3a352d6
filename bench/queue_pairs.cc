// What messages between two processes cost over an inter-process queue, against a bare loop of
// sendmsg and recv that moves the same bytes in the same chunks, over loopback:
//
//     queue_pairs [PAIRS [MEGABYTES [BYTES]]]
//
// A pair is a run of each, one after the other; a line has the medians of all pairs of one size
// and the median of their ratios. With BYTES only messages of that size are sent. A run that
// doesn't count goes first. "held" sends a hundred messages between a hold and a flush. The bare
// processes have a second thread, asleep, as each process with queues has: system calls cost more
// there. The processor time of the two sides, in nanoseconds a message, shows which of them limits
// the rate; on a busy machine it says more.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "lib/base/bytes.h"
#include "lib/msg/message_internal.h"
#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/transport/ipq/ipq.h"
#include "lib/transport/socket/socket.h"

namespace {

using Clock = std::chrono::steady_clock;

// Ratios of a row whose bare loop changed by more within the run say nothing.
constexpr double kMostChange = 4.0 / 3;
constexpr size_t kRatioColumn = 2;

constexpr uint32_t kHeldMessages = 100;
constexpr int kSendBufferBytes = 262'144;  // as of a client of a daemon on the same machine
const uint32_t kLoopback = htonl(INADDR_LOOPBACK);

struct Shape {
    uint32_t messageBytes;
    bool isHeld;
    uint64_t messages;
};

// What a run came to: seconds from the first byte to the last, its mean chunks, and the processor
// time of both sides.
struct Run {
    double seconds;
    double bytesPerWrite;
    double bytesPerRead;
    double sendSeconds;
    double receiveSeconds;
};

void check(bool holds, const char* what) {
    if (holds) return;
    std::perror(what);
    std::exit(1);
}

double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double processorSeconds(int whose) {
    rusage usage;
    getrusage(whose, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Waits for the sender, whose time is that of all children from then to now.
void addTimes(Run* run, pid_t sender, double ownBefore, double childrenBefore) {
    run->receiveSeconds = processorSeconds(RUSAGE_SELF) - ownBefore;
    waitpid(sender, nullptr, 0);
    run->sendSeconds = processorSeconds(RUSAGE_CHILDREN) - childrenBefore;
}

template <typename Child>
pid_t inChild(Child child) {
    const pid_t pid = fork();
    check(pid >= 0, "fork");
    if (pid == 0) {
        child();
        std::_Exit(0);
    }
    return pid;
}

int listenAnywhere(uint16_t* port) {
    const int handle = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = kLoopback;
    socklen_t size = sizeof(own);
    check(bind(handle, reinterpret_cast<sockaddr*>(&own), size) == 0, "bind");
    check(listen(handle, 1) == 0, "listen");
    check(getsockname(handle, reinterpret_cast<sockaddr*>(&own), &size) == 0, "getsockname");
    *port = own.sin_port;
    return handle;
}

// The queue

struct Arrivals {
    std::atomic<uint64_t> messages{0};
    Clock::time_point first;

    static void read(Ipq*, std::span<pelmoMsg* const> messages, void* closure) {
        auto* const self = static_cast<Arrivals*>(closure);
        if (self->messages.load(std::memory_order_relaxed) == 0) self->first = Clock::now();
        for (pelmoMsg* message : messages)
            msgRelease(message);
        self->messages.fetch_add(messages.size(), std::memory_order_release);
    }
};

pelmoMsg* makeMessage(uint32_t bytes) {
    Buffer* const buffer = bufferCreate(bytes);
    check(buffer != nullptr, "buffer");
    std::memset(buffer->data, 'x', bytes);
    storeBe32At(buffer->data, bytes);
    storeBe32At(buffer->data + kMessageMagicOffset, kMessageMagic);
    pelmoMsg* message = nullptr;
    check(msgCreateOverBuffer(&message, buffer, 0) == kStatusSuccess, "message");
    bufferRelease(buffer);
    return message;
}

void sendAll(Ipq* ipq, const Shape& shape) {
    pelmoMsg* const message = makeMessage(shape.messageBytes);
    for (uint64_t i = 0; i < shape.messages; ++i) {
        if (shape.isHeld && i % kHeldMessages == 0) check(ipqHold(ipq) == kStatusSuccess, "hold");
        check(ipqSend(ipq, message, false) == kStatusSuccess, "send");
        const bool isLast = i % kHeldMessages == kHeldMessages - 1 || i + 1 == shape.messages;
        if (shape.isHeld && isLast) check(ipqFlush(ipq) == kStatusSuccess, "flush");
    }
    msgRelease(message);
}

void sendByQueue(uint16_t port, const Shape& shape, int report) {
    check(pelmo_Open() == kStatusSuccess, "open");
    Socket* socket = nullptr;
    check(socketCreateClient(&socket, 0, kFirstIoQueueId, false) == kSocketDone, "socket");
    socketSetMode(socket, SocketMode::kBlocking);
    check(socketConnect(socket, kLoopback, port) == kSocketDone, "connect");
    check(socketSetSendBuffer(socket, kSendBufferBytes) == kStatusSuccess, "buffer");
    Ipq* ipq = nullptr;
    check(ipqCreate(&ipq, nullptr, kFirstIoQueueId, socket) == kStatusSuccess, "queue");
    ipqSetBlockWhenFull(ipq, true);
    sendAll(ipq, shape);
    while (ipqBacklog(ipq).bytes != 0)
        usleep(1'000);
    const IpqStatistics counts = ipqWriteStatistics(ipq);
    const double mean = static_cast<double>(counts.bytes) / (counts.attempts - counts.failures);
    check(write(report, &mean, sizeof(mean)) == sizeof(mean), "report");
    ipqClose(ipq, true, nullptr);
}

Run runQueue(const Shape& shape) {
    const double own = processorSeconds(RUSAGE_SELF);
    const double children = processorSeconds(RUSAGE_CHILDREN);
    int report[2];
    check(pipe(report) == 0, "pipe");
    Socket* server = nullptr;
    Socket* accepted = nullptr;
    uint16_t port = 0;
    const int listener = listenAnywhere(&port);
    close(listener);  // only a port that is free
    const pid_t child = inChild([&] {
        usleep(100'000);  // until the parent listens
        sendByQueue(port, shape, report[1]);
    });
    check(pelmo_Open() == kStatusSuccess, "open");
    check(socketCreateServer(&server, 0, kFirstIoQueueId, false) == kSocketDone, "server");
    check(socketBind(server, kLoopback, port, false) == kSocketDone, "bind");
    check(socketListen(server) == kSocketDone, "listen");
    socketSetMode(server, SocketMode::kBlocking);
    check(socketAccept(server, &accepted, kFirstIoQueueId) == kSocketDone, "accept");
    socketDestroy(server);
    Ipq* ipq = nullptr;
    Arrivals arrivals;
    check(ipqCreate(&ipq, nullptr, kFirstIoQueueId, accepted) == kStatusSuccess, "queue");
    check(ipqSetReadCallback(ipq, Arrivals::read, &arrivals) == kStatusSuccess, "callback");
    while (arrivals.messages.load(std::memory_order_acquire) < shape.messages)
        usleep(1'000);
    Run run = {};
    run.seconds = since(arrivals.first);
    const IpqStatistics counts = ipqReadStatistics(ipq);
    run.bytesPerRead = static_cast<double>(counts.bytes) / (counts.attempts - counts.failures);
    ipqClose(ipq, false, nullptr);
    check(read(report[0], &run.bytesPerWrite, sizeof(double)) == sizeof(double), "report");
    close(report[0]);
    close(report[1]);
    pelmo_Close();
    addTimes(&run, child, own, children);
    return run;
}

// The bare loop

void sleepBeside() {
    std::thread([] { pause(); }).detach();
}

void sendBare(uint16_t port, uint64_t bytes, size_t chunk) {
    const int handle = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = kLoopback;
    peer.sin_port = port;
    check(connect(handle, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) == 0, "connect");
    std::vector<char> from(chunk, 'x');
    sleepBeside();
    while (bytes != 0) {
        iovec entry = {.iov_base = from.data(), .iov_len = std::min<uint64_t>(chunk, bytes)};
        msghdr message = {};
        message.msg_iov = &entry;
        message.msg_iovlen = 1;
        const ssize_t sent = sendmsg(handle, &message, MSG_NOSIGNAL);
        check(sent > 0, "sendmsg");
        bytes -= static_cast<uint64_t>(sent);
    }
    close(handle);
}

Run runBare(const Shape& shape, const Run& queue) {
    const double own = processorSeconds(RUSAGE_SELF);
    const double children = processorSeconds(RUSAGE_CHILDREN);
    uint16_t port = 0;
    const int listener = listenAnywhere(&port);
    const uint64_t bytes = shape.messages * shape.messageBytes;
    const pid_t child =
        inChild([&] { sendBare(port, bytes, static_cast<size_t>(queue.bytesPerWrite)); });
    const int handle = accept(listener, nullptr, nullptr);
    check(handle >= 0, "accept");
    static const bool sleeps = [] {
        sleepBeside();
        return true;
    }();
    check(sleeps, "thread");
    std::vector<char> to(0x20000);
    Clock::time_point first;
    for (uint64_t got = 0; got < bytes;) {
        const ssize_t read = recv(handle, to.data(), to.size(), 0);
        check(read > 0, "recv");
        if (got == 0) first = Clock::now();
        got += static_cast<uint64_t>(read);
    }
    Run run = {};
    run.seconds = since(first);
    close(handle);
    close(listener);
    addTimes(&run, child, own, children);
    return run;
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

void measure(const Shape& shape, int pairs) {
    std::vector<double> columns[9];
    const auto messages = static_cast<double>(shape.messages);
    for (int pair = -1; pair < pairs; ++pair) {
        const Run queue = runQueue(shape);
        const Run bare = runBare(shape, queue);
        if (pair < 0) continue;
        const double values[] = {messages / queue.seconds,
                                 messages / bare.seconds,
                                 bare.seconds / queue.seconds,
                                 queue.bytesPerWrite,
                                 queue.bytesPerRead,
                                 queue.sendSeconds * 1e9 / messages,
                                 bare.sendSeconds * 1e9 / messages,
                                 queue.receiveSeconds * 1e9 / messages,
                                 bare.receiveSeconds * 1e9 / messages};
        for (size_t column = 0; column < std::size(columns); ++column)
            columns[column].push_back(values[column]);
    }
    std::printf("%6u%s", shape.messageBytes, shape.isHeld ? " held" : "     ");
    const char* const formats[] = {"%11.0f", "%11.0f", "%7.2f", "%9.0f",  "%9.0f",
                                   "%8.0f",  "%8.0f",  "%8.0f", "%8.0f\n"};
    const auto [least, most] = std::minmax_element(columns[1].begin(), columns[1].end());
    const bool isSteady = *most <= kMostChange * *least;
    for (size_t column = 0; column < std::size(columns); ++column) {
        if (column == kRatioColumn && !isSteady) {
            std::printf("%7s", "-");
        } else {
            std::printf(formats[column], median(columns[column]));
        }
    }
    if (!isSteady) std::printf("       the machine changed: bare %.0f to %.0f /s\n", *least, *most);
    std::fflush(stdout);
}

}  // namespace

int main(int count, char** arguments) {
    const int pairs = count > 1 ? std::atoi(arguments[1]) : 7;
    const uint64_t megabytes = count > 2 ? static_cast<uint64_t>(std::atoi(arguments[2])) : 400;
    const uint32_t only = count > 3 ? static_cast<uint32_t>(std::atoi(arguments[3])) : 0;
    double load[3] = {};
    (void)getloadavg(load, 3);
    std::printf("%u cores, load %.1f (%.1f over 15 minutes)\n", std::thread::hardware_concurrency(),
                load[0], load[2]);
    std::printf(
        " bytes       ours /s    bare /s  ratio  a write   a read  ns to send, bare  to receive, "
        "bare"
        "\n");
    for (const uint32_t messageBytes : {100u, 1024u, 16384u}) {
        if (only != 0 && messageBytes != only) continue;
        const uint64_t bytes = megabytes * 1'000'000 / (messageBytes == 100 ? 4 : 1);
        for (const bool isHeld : {false, true})
            measure({messageBytes, isHeld, bytes / messageBytes}, pairs);
    }
    return 0;
}
