// A client of /events: which bytes it gets next. It decides, and knows neither connection nor lock.
//
//     event: snapshot
//     data: {"time":...}
//
// Whoever reads slowly skips: behind an event comes the newest that there is. Whoever was told
// nothing for long gets an empty comment, so that a connection that is gone is noticed.
//
// Ownership: a client holds the event that it gets at present, and no other.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>
#include <string_view>

#include "watch/serve/body.h"

inline constexpr double kEventsSilenceSeconds = 15;

// The time that a client has to read an event.
inline constexpr double kEventsReadSeconds = 10;

struct Event {
    BodyHold body;
    uint64_t number;  // counted from 1; 0: there is none yet
};

struct EventClient {
    BodyHold body;        // empty: the client waits
    size_t sentBytes;     // of it
    uint64_t number;      // of the event that it got last, or gets at present
    double sinceSeconds;  // when it began, or began to wait
};

// The next bytes, `mostBytes` at most; empty where the client has to wait.
[[nodiscard]] std::string_view eventsNext(EventClient& client,
                                          const Event& newest,
                                          size_t mostBytes,
                                          double nowSeconds);

// Would a client that waits get something? `newest` is the number of the newest event.
[[nodiscard]] bool eventsWakes(const EventClient& client, uint64_t newest, double nowSeconds);

// Is it to be cut off?
[[nodiscard]] bool eventsIsStalled(const EventClient& client, double nowSeconds);
