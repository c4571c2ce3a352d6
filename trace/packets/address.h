// Addresses as text.

#pragma once

#include <cstdint>

// "a.b.c.d" of a word in network order. The text lies in one static buffer and is good until the
// next call: under `statsLock`, or on the thread that prints, never both at once.
[[nodiscard]] const char* ipToText(uint32_t address);
