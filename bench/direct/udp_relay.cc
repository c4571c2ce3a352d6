// A road over UDP with a length and faults: what comes to one port goes to another one, and back,
// each datagram a fixed time after it came, unless the dice take it.
//
//     udp_relay PORT TO_PORT DELAY_US LOSS_PERCENT SEED
//
// Prints "ready" when it listens on PORT, on loopback. When its input ends it prints
//
//     FORWARDED LOST LATE_US
//
// and ends; the last is how late datagrams left, in the mean. What is lost depends on the seed and
// a datagram's number in its direction alone, and the delay begins where the kernel took the
// datagram: a relay that is scheduled late doesn't lengthen the road. The other ends are whoever
// sent to PORT last, and TO_PORT. Order is kept.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <vector>

namespace {

constexpr size_t kMostDatagramBytes = 2048;  // a longer one doesn't fit an Ethernet, nor this bench
constexpr unsigned kMostAtOnce = 64;
constexpr int kSocketBufferBytes = 4 << 20;
constexpr int64_t kNanoseconds = 1'000'000'000;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::_Exit(1);
}

int64_t nanoseconds(const timespec& time) {
    return time.tv_sec * kNanoseconds + time.tv_nsec;
}

// Of the clock that the kernel stamps datagrams with.
int64_t now() {
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    return nanoseconds(time);
}

struct Datagram {
    int64_t due;
    std::vector<uint8_t> bytes;
};

// What goes in one direction.
struct Lane {
    int from;
    int to;
    double loss;
    std::mt19937_64 dice;
    std::deque<Datagram> underWay;
};

struct Totals {
    uint64_t forwarded;
    uint64_t lost;
    int64_t late;
};

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

int openSocket(uint16_t port) {
    const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    const sockaddr_in own = loopback(port);
    if (bind(handle, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) fail("bind");
    const int on = 1;
    if (setsockopt(handle, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0) fail("timestamps");
    for (const int option : {SO_RCVBUF, SO_SNDBUF})
        setsockopt(handle, SOL_SOCKET, option, &kSocketBufferBytes, sizeof kSocketBufferBytes);
    return handle;
}

void connectTo(int handle, const sockaddr_in& peer) {
    const auto* generic = reinterpret_cast<const sockaddr*>(&peer);
    if (connect(handle, generic, sizeof peer) != 0) fail("connect");
}

int64_t arrivalOf(msghdr* message) {
    for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr;
         part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_TIMESTAMPNS) continue;
        timespec time;
        std::memcpy(&time, CMSG_DATA(part), sizeof time);
        return nanoseconds(time);
    }
    return now();
}

// Takes what has come; `source` is that of the last one.
void takeArrivals(Lane* lane, int64_t delay, sockaddr_in* source, Totals* totals) {
    for (;;) {
        uint8_t bytes[kMostDatagramBytes];
        alignas(cmsghdr) char control[256];
        iovec place = {.iov_base = bytes, .iov_len = sizeof bytes};
        msghdr message = {};
        message.msg_name = source;
        message.msg_namelen = sizeof *source;
        message.msg_iov = &place;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t got = recvmsg(lane->from, &message, 0);
        if (got < 0) return;  // nothing more, or the other end isn't there yet
        if ((message.msg_flags & MSG_TRUNC) != 0) {
            std::fputs("a datagram is too long for an Ethernet\n", stderr);
            std::_Exit(1);
        }
        if (std::uniform_real_distribution<>(0, 100)(lane->dice) < lane->loss) {
            totals->lost += 1;
            continue;
        }
        lane->underWay.push_back({arrivalOf(&message) + delay, {bytes, bytes + got}});
    }
}

// All that is due, in one call of the system for each kMostAtOnce.
void sendDue(Lane* lane, Totals* totals) {
    const int64_t time = now();
    for (;;) {
        mmsghdr headers[kMostAtOnce] = {};
        iovec pieces[kMostAtOnce];
        unsigned count = 0;
        while (count < kMostAtOnce && count < lane->underWay.size()) {
            Datagram& datagram = lane->underWay[count];
            if (datagram.due > time) break;
            totals->late += time - datagram.due;
            pieces[count] = {.iov_base = datagram.bytes.data(), .iov_len = datagram.bytes.size()};
            headers[count].msg_hdr.msg_iov = &pieces[count];
            headers[count].msg_hdr.msg_iovlen = 1;
            ++count;
        }
        if (count == 0) return;
        // As on any road, what nobody takes at its end is gone, and takes nothing else with it.
        for (unsigned sent = 0; sent < count;)
            sent += static_cast<unsigned>(
                std::max(sendmmsg(lane->to, headers + sent, count - sent, 0), 1));
        totals->forwarded += count;
        lane->underWay.erase(lane->underWay.begin(), lane->underWay.begin() + count);
    }
}

timespec untilDue(const Lane (&lanes)[2]) {
    int64_t due = INT64_MAX;
    for (const Lane& lane : lanes) {
        if (!lane.underWay.empty()) due = std::min(due, lane.underWay.front().due);
    }
    if (due == INT64_MAX) return {3600, 0};
    const int64_t left = std::max<int64_t>(due - now(), 0);
    return {left / kNanoseconds, left % kNanoseconds};
}

void relay(Lane (&lanes)[2], int64_t delay) {
    Totals totals = {};
    pollfd ends[] = {
        {lanes[0].from, POLLIN, 0}, {lanes[1].from, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    sockaddr_in near = {};
    while (ends[2].revents == 0) {
        const timespec wait = untilDue(lanes);
        if (ppoll(ends, 3, &wait, nullptr) < 0) fail("ppoll");
        for (int i = 0; i < 2; ++i) {
            sockaddr_in source = {};
            if (ends[i].revents != 0) takeArrivals(&lanes[i], delay, &source, &totals);
            const bool isNew = i == 0 && source.sin_port != 0 && source.sin_port != near.sin_port;
            if (isNew) near = source;
            // Connected to the sender, the near socket is what `send` takes, and it has its route.
            if (isNew) connectTo(lanes[1].to, near);
        }
        for (Lane& lane : lanes)
            sendDue(&lane, &totals);
    }
    const auto forwarded = static_cast<double>(std::max<uint64_t>(totals.forwarded, 1));
    std::printf("%llu %llu %.1f\n", static_cast<unsigned long long>(totals.forwarded),
                static_cast<unsigned long long>(totals.lost),
                static_cast<double>(totals.late) / forwarded / 1000);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fputs("usage: udp_relay PORT TO_PORT DELAY_US LOSS_PERCENT SEED\n", stderr);
        return 2;
    }
    (void)setpriority(PRIO_PROCESS, 0, -20);  // where it may
    prctl(PR_SET_TIMERSLACK, 1);              // ns; the default of 50,000 would be 1 % of the delay
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const auto port = [&](int at) { return static_cast<uint16_t>(std::atoi(argv[at])); };
    const double loss = std::atof(argv[4]);
    const auto seed = static_cast<uint64_t>(std::atoll(argv[5]));
    const int near = openSocket(port(1)), far = openSocket(0);
    connectTo(far, loopback(port(2)));
    Lane lanes[] = {{near, far, loss, std::mt19937_64(2 * seed), {}},
                    {far, near, loss, std::mt19937_64(2 * seed + 1), {}}};
    std::puts("ready");
    std::fflush(stdout);
    relay(lanes, std::atoll(argv[3]) * 1000);
    return 0;
}
