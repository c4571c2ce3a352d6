// The parts of bench/bus.py, each a process of its own that prints one line for it:
//
//     bus_bench listen ROAD PORT CLIENTS COUNT     "ready", then "COUNT SECONDS" from the first
//                                                  message to the last, of all clients together
//     bus_bench send ROAD PORT SIZE COUNT          "SECONDS" until all has left
//     bus_bench answer ROAD PORT                   "ready", until its input ends
//     bus_bench request ROAD PORT SIZE COUNT       "MEDIAN P999" in microseconds
//     bus_bench idle ROAD PORT CLIENTS             "ready", until its input ends
//
// A listener that gets nothing for two seconds prints how far it came.

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "bench/bus/road.h"

namespace {

constexpr const char* kSubject = "BENCH.A.B";
constexpr int kLookMicroseconds = 1000;
constexpr double kSilenceSeconds = 2.0;

double now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

const Road* const kRoads[] = {
    &kPelmoRoad,
    &kPelmoBatchRoad,
#ifdef PELMO_BENCH_NATS
    &kNatsRoad,
#endif
#ifdef PELMO_BENCH_MOSQUITTO
    &kMosquittoRoad,
#endif
};

const Road& findRoad(const char* name) {
    for (const Road* road : kRoads) {
        if (std::string_view(name) == road->name) return *road;
    }
    roadFail(name, "no such road was built");
}

void say(const char* word) {
    std::puts(word);
    std::fflush(stdout);
}

void waitForEndOfInput() {
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

// Each client's callbacks run on one thread at a time, those of two may run on two.
struct alignas(64) Count {
    std::atomic<uint64_t> messages{0};
};

void onMessage(RoadClient*, const char*, void* closure) {
    auto* count = static_cast<Count*>(closure);
    count->messages.store(count->messages.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
}

uint64_t sumOf(const std::vector<Count>& counts) {
    uint64_t sum = 0;
    for (const Count& count : counts) {
        sum += count.messages.load(std::memory_order_relaxed);
    }
    return sum;
}

int runListen(const Road& road, uint16_t port, size_t clients, uint64_t count) {
    std::vector<Count> counts(clients);
    for (Count& own : counts) {
        RoadClient* client = road.connect(port);
        road.listen(client, kSubject, onMessage, &own);
        road.flush(client);
    }
    say("ready");
    double first = 0, last = 0;
    for (uint64_t seen = 0; seen < count * clients;) {
        usleep(kLookMicroseconds);
        const uint64_t sum = sumOf(counts);
        const double time = now();
        if (sum != seen) last = time;
        if (seen == 0 && sum != 0) first = time;
        if (seen != 0 && time - last > kSilenceSeconds) break;
        seen = sum;
    }
    std::printf("%llu %.6f\n", static_cast<unsigned long long>(sumOf(counts)), last - first);
    return 0;
}

int runSend(const Road& road, uint16_t port, size_t size, uint64_t count) {
    RoadClient* client = road.connect(port);
    const std::vector<uint8_t> bytes(size, 'x');
    const double start = now();
    for (uint64_t i = 0; i < count; ++i) {
        road.send(client, kSubject, bytes);
    }
    road.flush(client);
    std::printf("%.6f\n", now() - start);
    return 0;
}

const Road* answering;

void onRequest(RoadClient* client, const char* reply, void*) {
    static const uint8_t bytes[16] = {};
    if (reply != nullptr) answering->send(client, reply, std::span(bytes));
}

int runAnswer(const Road& road, uint16_t port) {
    answering = &road;
    RoadClient* client = road.connect(port);
    road.listen(client, kSubject, onRequest, nullptr);
    road.flush(client);
    say("ready");
    waitForEndOfInput();
    return 0;
}

int runRequest(const Road& road, uint16_t port, size_t size, uint64_t count) {
    RoadClient* client = road.connect(port);
    const std::vector<uint8_t> bytes(size, 'x');
    for (uint64_t i = 0; i < count / 10; ++i) {
        road.request(client, kSubject, bytes);
    }
    std::vector<double> times(count);
    for (double& time : times) {
        const double start = now();
        road.request(client, kSubject, bytes);
        time = now() - start;
    }
    std::sort(times.begin(), times.end());
    std::printf("%.1f %.1f\n", times[count / 2] * 1e6, times[count * 999 / 1000] * 1e6);
    return 0;
}

int runIdle(const Road& road, uint16_t port, size_t clients) {
    for (size_t i = 0; i < clients; ++i) {
        (void)road.connect(port);
    }
    say("ready");
    waitForEndOfInput();
    return 0;
}

}  // namespace

void roadFail(const char* what, const char* why) {
    std::fprintf(stderr, "bus_bench: %s: %s\n", what, why);
    std::_Exit(1);
}

int main(int argc, char** argv) {
    const auto number = [&](int at) {
        return at < argc ? std::strtoull(argv[at], nullptr, 10) : 0;
    };
    const std::string_view part = argc > 3 ? argv[1] : "";
    if (part.empty()) roadFail("arguments", "see the head of bus_bench.cc");
    const Road& road = findRoad(argv[2]);
    const auto port = static_cast<uint16_t>(number(3));
    int status = 1;
    if (part == "listen") status = runListen(road, port, number(4), number(5));
    if (part == "send") status = runSend(road, port, number(4), number(5));
    if (part == "answer") status = runAnswer(road, port);
    if (part == "request") status = runRequest(road, port, number(4), number(5));
    if (part == "idle") status = runIdle(road, port, number(4));
    std::fflush(stdout);
    std::_Exit(status);  // an orderly end is no part of the measurement
}
