// The switch of the library's call log, as the floors below tracing see it: words that each call
// tests, and a function that writes a line. All off until the tracing above fills it in.
//
//     traceLine(kTraceMsg, "pelmoMsg_Detach(%p)", tracePointer(msg));
//
// Switched off, a line costs a load and a branch, and its arguments aren't evaluated.
//
// Threads: the words may change at any time and order no other data. `write` is set before them,
// before other threads run, and takes calls from any thread with any lock held.

#pragma once

#include <atomic>
#include <cstdint>

// What can be switched on one by one; the numbers are rows of the tracing's own table.
enum TraceModuleId : uint32_t {
    kTraceAdvisories = 2,
    kTraceReceive = 3,
    kTraceLibrary = 4,
    kTraceEvents = 5,
    kTraceMsg = 6,
    kTraceMsgDetail = 7,
    kTraceQueue = 8,
    kTraceQueueGroup = 9,
    kTraceTransport = 10,
    kTraceDispatch = 11,
    kTraceModules = 14,
};

struct TraceOps {
    std::atomic<uint32_t> on;
    std::atomic<uint32_t> enabled[kTraceModules];
    [[gnu::format(printf, 2, 3)]] void (*write)(uint32_t module, const char* format, ...);
};

inline TraceOps traceOps{};

[[nodiscard]] inline bool traceWants(TraceModuleId module) {
    return traceOps.on.load(std::memory_order_relaxed) != 0 &&
           traceOps.enabled[module].load(std::memory_order_relaxed) != 0;
}

// A macro, so that the arguments are left alone while it is off.
#define traceLine(module, ...)                   \
    do {                                         \
        if (traceWants(module)) [[unlikely]]     \
            traceOps.write(module, __VA_ARGS__); \
    } while (false)

// For %p, and for %s.
[[nodiscard]] inline const void* tracePointer(const void* pointer) {
    return pointer;
}

[[nodiscard]] inline const char* traceText(const char* text) {
    return text != nullptr ? text : "<NULL>";
}
