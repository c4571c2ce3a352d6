// Texts in JSON (RFC 8259), and bytes that aren't UTF-8 in them.
//
// What is valid UTF-8 (RFC 3629) stands as it is, but for quotes, backslashes, control characters
// and the two characters that some take for line breaks, U+2028 and U+2029. A byte that isn't part
// of valid UTF-8 is written as the lone surrogate U+DC00 + byte, "\udc80" to "\udcff", which no
// valid text has: so any bytes come back as they were.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// With its quotes.
void jsonTextAdd(std::string& out, std::string_view text);

// `inner` is what stands between the quotes. Returns null, or what is wrong with it; `outStop` is
// then where. `out` may be null, to check only.
[[nodiscard]] const char* jsonTextRead(std::string_view inner, std::string* out, size_t* outStop);
