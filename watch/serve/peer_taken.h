// How much of what was sent over a TCP connection its peer has taken (acknowledged), in bytes since
// the connection began; 0 where the system doesn't say.
//
// Threads: any.

#pragma once

#include <cstdint>

[[nodiscard]] uint64_t peerTakenBytes(int descriptor);
