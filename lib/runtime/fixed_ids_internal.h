// Ids that the library gives to objects of its own, by hand. They live in the table of their type
// alone, so that one number may serve two types.

#pragma once

#include <cstdint>

#include "lib/runtime/fixed_ids.h"

inline constexpr uint32_t kTimerQueueId = 2;    // dispatched by the timer thread
inline constexpr uint32_t kWorkQueueId = 3;     // dispatched by a dispatcher of the library's own
inline constexpr uint32_t kFirstIoQueueId = 5;  // IO queue n, from 1, has id n + 4
inline constexpr uint32_t kMostIoQueues = 128;
inline constexpr uint32_t kLastFixedId = 1000;
inline constexpr uint32_t kFirstGlobalId = kLastFixedId + 1;

// Is it an IO queue's? One number more than there are queues is kept for them.
[[nodiscard]] inline bool idIsIoQueue(uint32_t queueId) {
    return queueId >= kFirstIoQueueId && queueId <= kFirstIoQueueId + kMostIoQueues;
}

// Queues whose threads wake by other means than the queue's condition.
[[nodiscard]] inline bool idIsEventManagerQueue(uint32_t queueId) {
    return queueId == kTimerQueueId || idIsIoQueue(queueId);
}
