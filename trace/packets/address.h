// Addresses as text.

#pragma once

#include <cstdint>

// "a.b.c.d" of a word in network order. The text lies in one static buffer and is good until the
// next call. The lines about faults alone ask for it, on the thread that takes packets; no other
// thread may.
[[nodiscard]] const char* ipToText(uint32_t address);
