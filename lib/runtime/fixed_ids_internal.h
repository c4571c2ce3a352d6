// Fixed ids of the library's own objects. They are entered only in the table of their type, so two
// types may use the same number.

#pragma once

#include <cstdint>

#include "lib/runtime/fixed_ids.h"

inline constexpr uint32_t kTimerQueueId = 2;    // dispatched by the timer thread
inline constexpr uint32_t kWorkQueueId = 3;     // dispatched by a dispatcher of the library's own
inline constexpr uint32_t kFirstIoQueueId = 5;  // IO queue n, from 1, has id n + 4
inline constexpr uint32_t kMostIoQueues = 128;
inline constexpr uint32_t kLastFixedId = 1000;
inline constexpr uint32_t kFirstGlobalId = kLastFixedId + 1;

// Is it the id of an IO queue? One id more than the largest number of IO queues is reserved.
[[nodiscard]] inline bool idIsIoQueue(uint32_t queueId) {
    return queueId >= kFirstIoQueueId && queueId <= kFirstIoQueueId + kMostIoQueues;
}

// Queues whose threads don't wait on the queue's condition.
[[nodiscard]] inline bool idIsEventManagerQueue(uint32_t queueId) {
    return queueId == kTimerQueueId || idIsIoQueue(queueId);
}
