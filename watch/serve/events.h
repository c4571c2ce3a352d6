// A client of /events: which bytes it gets next. It decides, and knows neither connection nor lock.
//
//     event: source
//     data: {"host":...}
//
//     event: snapshot
//     data: {"time":...}
//
// What is watched comes first, and again whenever it has changed. A slow reader skips events: after
// one it gets the newest. A client that was sent nothing for long gets an empty comment, so that a
// connection that is gone is noticed.
//
// Ownership: a client holds the event that it gets at present, and no other.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>
#include <string_view>

#include "watch/serve/body.h"

inline constexpr double kEventsSilenceSeconds = 15;

// In so many seconds a client has to read an event, or to take kEventsLeastBytes of it.
inline constexpr double kEventsReadSeconds = 10;
inline constexpr uint64_t kEventsLeastBytes = 10 * 64'000;

// What events are about, in the order in which a client gets them.
enum class StreamEvent : uint8_t { kSource, kSnapshot };
inline constexpr size_t kStreamEvents = 2;

struct Event {
    BodyHold body;
    uint64_t number;  // counted from 1; 0: there is none yet
};

// The newest of each kind.
struct Events {
    Event of[kStreamEvents];
};

// Their numbers.
struct EventNumbers {
    uint64_t of[kStreamEvents];
};

struct EventClient {
    bool isZipped;     // its events are fragments (zipped.h), and so is what it gets beside them
    BodyHold body;     // empty: the client waits
    size_t sentBytes;  // of it
    EventNumbers numbers;  // of the events that it got last, or gets at present
    double sinceSeconds;   // when that began, or was well under way; when it began to wait
    uint64_t takenBytes;   // by then, since it came
};

// The next bytes, `mostBytes` at most; empty where the client has to wait.
[[nodiscard]] std::string_view eventsNext(EventClient& client,
                                          const Events& newest,
                                          size_t mostBytes,
                                          double nowSeconds);

// Would a client that waits get something?
[[nodiscard]] bool eventsWakes(const EventClient& client,
                               const EventNumbers& newest,
                               double nowSeconds);

// Is it to be cut off? `takenBytes` are those that it has taken since it came. Asked now and then.
[[nodiscard]] bool eventsIsStalled(EventClient& client, uint64_t takenBytes, double nowSeconds);
