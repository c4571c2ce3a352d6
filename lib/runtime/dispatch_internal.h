// Dispatch for the library's own floors. The calls for applications, and what a step is, stand in
// lib/runtime/dispatch.h.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/runtime/dispatch.h"

struct Queue;

enum class DispatchBatch { kOneEvent, kMixedEvents };

// The caller holds a reference, no lock. The open flag is looked at after a wait alone, so that the
// event manager can dispatch while the library opens.
[[nodiscard]] pelmoStatus Queue_Dispatch(Queue* queue, double seconds, DispatchBatch batch);

// What the public calls do, traced as they are, but for the look at the open flag: a dispatcher's
// thread may begin while the library opens.
[[nodiscard]] pelmoStatus Queue_DispatchId(uint32_t queue, double seconds);
[[nodiscard]] pelmoStatus QueueGroup_DispatchId(uint32_t group, double seconds);
