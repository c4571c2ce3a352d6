// Texts that fit: what is too long is cut, and the last byte is always the terminator.
//
// Failure: none, except that concat2 and concat3 return null without memory.

#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "lib/base/status.h"

// Returns the length of what was written: sizeBytes - 1 where the text was cut. With a size of 0 it
// writes nothing and returns 0.
[[gnu::format(printf, 3, 4)]] size_t boundedFormat(char* buffer,
                                                   size_t sizeBytes,
                                                   const char* format,
                                                   ...);
[[gnu::format(printf, 3, 0)]] size_t boundedFormatList(char* buffer,
                                                       size_t sizeBytes,
                                                       const char* format,
                                                       va_list arguments);

// With a size of 0 it does nothing.
void boundedCopy(char* destination, const char* source, size_t sizeBytes);

// sizeBytes is the size of the whole destination. If its text already fills it, terminated or not,
// the call does nothing.
void boundedAppend(char* destination, const char* source, size_t sizeBytes);

// A number of bytes in K, M or G, of 1024 each: "0", "1 K", "1.500 M". kStatusInvalidArgument where
// text and NUL don't fit; the buffer may then hold a part of it.
[[nodiscard]] pelmoStatus sizeText(uint64_t value, char* buffer, size_t sizeBytes);

// The parts joined, in a new block that the caller frees.
[[nodiscard]] char* concat2(const char* a, const char* b);
[[nodiscard]] char* concat3(const char* a, const char* b, const char* c);
