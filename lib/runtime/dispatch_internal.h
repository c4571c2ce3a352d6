// Dispatch for the library's own floors. lib/runtime/dispatch.h has the calls for applications and
// says what a step is.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/runtime/dispatch.h"

struct Queue;

enum class DispatchBatch { kOneEvent, kMixedEvents };

// The caller holds a reference and no lock. The open flag is tested only after a wait, so that the
// event manager can dispatch while the library opens.
[[nodiscard]] pelmoStatus Queue_Dispatch(Queue* queue, double seconds, DispatchBatch batch);

// Like the public calls, trace lines included, but without the test of the open flag: a
// dispatcher's thread may start while the library opens.
[[nodiscard]] pelmoStatus Queue_DispatchId(uint32_t queue, double seconds);
[[nodiscard]] pelmoStatus QueueGroup_DispatchId(uint32_t group, double seconds);
