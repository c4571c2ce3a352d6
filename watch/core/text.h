// What comes from outside, as text that is safe in any form: a line, a terminal, JSON, a page. It
// is UTF-8 without control characters, and without characters that turn the direction of text.
//
// Any other byte is written "\xHH", and a backslash "\\". Of a subject so is a dot
// within an element and every NUL, so that two subjects never have the same text.
//
// Quotes, "<" and "&" stay as they are: what they mean is the form's matter.
//
// Threads: any; no state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// "255.255.255.255" and a NUL.
inline constexpr size_t kAddressTextBytes = 16;

// Each byte takes four at most.
inline constexpr size_t kSafeSubjectBytes = 1024;

// "a.b.c.d" of a word in network order. The text is in the buffer, with a NUL after it, as below.
std::string_view addressText(uint32_t address, char (&buffer)[kAddressTextBytes]);

// The text of a well-formed packed subject.
std::string_view subjectSafeText(const uint8_t* subject, char (&buffer)[kSafeSubjectBytes]);

// The bytes as text, cut at a character's end to what the buffer holds.
std::string_view safeText(std::string_view bytes, char* buffer, size_t sizeBytes);
