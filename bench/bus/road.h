// One way for messages to get from process to process: a broker and its client library. The
// measurements of bus_bench.cc are the same for each.
//
// Failure: a call that fails ends the process with a line; a measurement with a fault is none.

#pragma once

#include <cstdint>
#include <span>

struct RoadClient;

// Runs on a thread of the road. `reply` is good for the call and null where there is none.
using RoadCallback = void (*)(RoadClient* client, const char* reply, void* closure);

struct Road {
    const char* name;
    RoadClient* (*connect)(uint16_t port);
    void (*listen)(RoadClient* client, const char* subject, RoadCallback callback, void* closure);
    void (*send)(RoadClient* client, const char* subject, std::span<const uint8_t> bytes);

    // Sends, waits for the answer and drops it.
    void (*request)(RoadClient* client, const char* subject, std::span<const uint8_t> bytes);

    // Until what was sent and asked for has reached the broker.
    void (*flush)(RoadClient* client);
};

extern const Road kPelmoRoad;
extern const Road kPelmoBatchRoad;  // as applications with high rates do
extern const Road kNatsRoad;
extern const Road kMosquittoRoad;

[[noreturn]] void roadFail(const char* what, const char* why);
