// Runs that keep far more memory than they have bytes: a few messages in a large read buffer, which
// lives as long as any of them waits. For a receiver that is behind, they are copied to a buffer of
// their own; the copy is made once for all such receivers.
//
// Threads: pure functions; messages are borrowed.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"

struct Dpa;
struct pelmoMsg;

using MessageRun = std::span<pelmoMsg* const>;

// Does its first buffer have more than kSparseTimes the bytes of the whole run?
inline constexpr uint64_t kSparseTimes = 4;
[[nodiscard]] bool runIsSparse(MessageRun run);

// Appends messages with the same bytes, one after the other in one buffer, to be released by the
// caller. kStatusNoMemory, and nothing is appended.
[[nodiscard]] pelmoStatus runCopy(MessageRun run, Dpa* out);
