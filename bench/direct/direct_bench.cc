// One end of a measurement of roads without a broker (direct_road.h), or both:
//
//     direct_bench roads                         those that this build has
//     direct_bench receive ROAD PORT SECONDS     "ready", then bytes a second, once they have come
//     direct_bench send ROAD PORT BYTES          sends messages until its input ends
//     direct_bench cpu ROAD BYTES COUNT AHEAD    "NS PACKETS": processor time of both ends, and
//     packets
//
// Arrivals are counted from kWarmSeconds after the first one: what the opening takes isn't in
// them.
//
// `cpu` sends COUNT messages over loopback from one process to another. With AHEAD the sender is
// that many messages before the receiver at most, by a semaphore each kCreditMessages: so
// messages don't pile up at either end, and each is a packet of its own. With AHEAD 0 the sender
// does what it can. User and system time count, from the first message to the last, of all threads
// of both processes; packets are those that the sender sent.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "bench/direct/direct_road.h"

namespace {

constexpr auto kWarmSeconds = std::chrono::duration<double>(0.2);
constexpr uint32_t kCreditMessages = 8;

// What both processes of `cpu` see.
struct Shared {
    sem_t ready;
    sem_t credits;
    sem_t done[2];
    uint64_t nanoseconds[2];
    uint64_t packets;
};

struct Measurement {
    Shared* shared;   // null: no `cpu`
    uint64_t toSend;  // messages; UINT64_MAX for no end
    uint64_t toTake;
    bool isCredited;
    uint64_t sent;
    std::atomic<uint64_t> taken;
    std::atomic<uint64_t> bytes;
    uint64_t processorBefore;
};

Measurement measurement = {};

const DirectRoad* const kRoads[] = {
    &kPelmoDirect,
#ifdef PELMO_BENCH_ENET
    &kEnetDirect,
#endif
#ifdef PELMO_BENCH_SCTP
    &kSctpDirect,
#endif
    &kBareDirect,
};

const DirectRoad* roadOf(const char* name) {
    for (const DirectRoad* road : kRoads) {
        if (std::strcmp(road->name, name) == 0) return road;
    }
    roadFail(name, "no such road");
}

uint64_t processorNanoseconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const auto nanoseconds = [](const timeval& time) {
        return static_cast<uint64_t>(time.tv_sec * 1'000'000L + time.tv_usec) * 1000;
    };
    return nanoseconds(usage.ru_utime) + nanoseconds(usage.ru_stime);
}

void waitFor(sem_t* semaphore) {
    while (sem_wait(semaphore) != 0 && errno == EINTR) {
    }
}

void print(const char* line) {
    std::puts(line);
    std::fflush(stdout);
}

[[noreturn]] void receive(const DirectRoad* road, uint16_t port, double seconds) {
    using Clock = std::chrono::steady_clock;
    measurement.toTake = UINT64_MAX;
    std::thread(road->receive, port).detach();
    while (measurement.taken.load() == 0)
        usleep(1'000);
    std::this_thread::sleep_for(kWarmSeconds);
    const uint64_t before = measurement.bytes.load();
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const auto bytes = static_cast<double>(measurement.bytes.load() - before);
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("%.0f\n", bytes / took);
    std::fflush(stdout);
    std::_Exit(0);
}

[[noreturn]] void send(const DirectRoad* road, uint16_t port, uint32_t bytes) {
    measurement.toSend = UINT64_MAX;
    std::thread(road->send, port, bytes).detach();
    char end;
    while (read(STDIN_FILENO, &end, 1) > 0) {
    }
    std::_Exit(0);
}

void keepTo(uint32_t core) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    if (sched_setaffinity(0, sizeof cores, &cores) != 0) roadFail("core", std::strerror(errno));
}

// One of the two processes of `cpu`: works until all has arrived.
template <typename Work>
void inProcess(int end, uint32_t core, const DirectRoad* road, Work work) {
    const pid_t child = fork();
    if (child < 0) roadFail("fork", std::strerror(errno));
    if (child != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    keepTo(core);
    std::thread(work).detach();
    Shared* const shared = measurement.shared;
    waitFor(&shared->done[end]);
    shared->nanoseconds[end] = processorNanoseconds() - measurement.processorBefore;
    if (end == 1 && road->packetsSent != nullptr) shared->packets = road->packetsSent();
    std::_Exit(0);
}

struct Load {
    uint32_t bytes;
    uint64_t count;
    uint32_t ahead;
    uint32_t cores;
};

void runBoth(const DirectRoad* road, const Load& load) {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) roadFail("memory", std::strerror(errno));
    auto* const shared = static_cast<Shared*>(memory);
    sem_init(&shared->ready, 1, 0);
    sem_init(&shared->credits, 1, load.ahead / kCreditMessages);
    for (sem_t& done : shared->done)
        sem_init(&done, 1, 0);
    measurement.shared = shared;
    measurement.toSend = measurement.toTake = load.count;
    measurement.isCredited = load.ahead != 0;

    const uint16_t port = roadFreePort();
    inProcess(0, 0, road, [=] { road->receive(port); });
    waitFor(&shared->ready);
    inProcess(1, load.cores - 1, road, [=] { road->send(port, load.bytes); });
    for (int end = 0; end < 2; ++end) {
        int status = 0;
        if (wait(&status) < 0 || status != 0) roadFail("one end", "failed");
    }
    const uint64_t packets = shared->packets != 0 ? shared->packets : load.count;
    std::printf("%.1f %llu\n",
                static_cast<double>(shared->nanoseconds[0] + shared->nanoseconds[1]) /
                    static_cast<double>(packets),
                static_cast<unsigned long long>(packets));
}

}  // namespace

void roadIsReady() {
    if (measurement.shared == nullptr) {
        print("ready");
    } else {
        measurement.processorBefore = processorNanoseconds();
        sem_post(&measurement.shared->ready);
    }
}

void roadTake(uint64_t bytes, uint64_t messages) {
    // One thread of the road takes; the measuring one only reads.
    const uint64_t before = measurement.taken.load(std::memory_order_relaxed);
    const uint64_t taken = before + messages;
    measurement.bytes.store(measurement.bytes.load(std::memory_order_relaxed) + bytes,
                            std::memory_order_relaxed);
    measurement.taken.store(taken, std::memory_order_relaxed);
    if (measurement.shared == nullptr) return;
    for (uint64_t i = before / kCreditMessages; i < taken / kCreditMessages; ++i) {
        if (measurement.isCredited) sem_post(&measurement.shared->credits);
    }
    if (taken < measurement.toTake) return;
    // This process ends by the second one.
    sem_post(&measurement.shared->done[1]);
    sem_post(&measurement.shared->done[0]);
}

bool roadMaySend() {
    if (measurement.sent == 0) measurement.processorBefore = processorNanoseconds();
    if (measurement.sent == measurement.toSend) return false;
    if (measurement.isCredited && measurement.sent % kCreditMessages == 0)
        waitFor(&measurement.shared->credits);
    measurement.sent += 1;
    return true;
}

uint16_t roadFreePort() {
    const int probe = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&own);
    if (bind(probe, generic, size) != 0) roadFail("bind", std::strerror(errno));
    if (getsockname(probe, generic, &size) != 0) roadFail("port", std::strerror(errno));
    close(probe);
    return ntohs(own.sin_port);
}

void roadFail(const char* what, const char* why) {
    std::fprintf(stderr, "%s: %s\n", what, why);
    std::_Exit(1);
}

int main(int argc, char** argv) {
    const std::string part = argc > 1 ? argv[1] : "";
    const auto number = [&](int at) { return std::strtoull(argv[at], nullptr, 10); };
    const auto port = [&] { return static_cast<uint16_t>(number(3)); };
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (part == "roads" && argc == 2) {
        for (const DirectRoad* road : kRoads)
            std::puts(road->name);
        return 0;
    }
    if (part == "receive" && argc == 5) receive(roadOf(argv[2]), port(), std::atof(argv[4]));
    if (part == "send" && argc == 5)
        send(roadOf(argv[2]), port(), static_cast<uint32_t>(number(4)));
    if (part == "cpu" && argc == 7) {
        runBoth(roadOf(argv[2]), {.bytes = static_cast<uint32_t>(number(3)),
                                  .count = number(4),
                                  .ahead = static_cast<uint32_t>(number(5)),
                                  .cores = number(6) == 2 ? 2u : 1u});
        return 0;
    }
    std::fputs(
        "usage: direct_bench roads\n"
        "       direct_bench receive ROAD PORT SECONDS\n"
        "       direct_bench send ROAD PORT BYTES\n"
        "       direct_bench cpu ROAD BYTES COUNT AHEAD CORES\n",
        stderr);
    return 2;
}
