// Texts that are compressed once and shared by all clients that take gzip (RFC 1952, RFC 1951).
//
//     header | fragment | fragment | ... | end
//
// A fragment refers to nothing before it and ends on a byte, so that the same bytes go into the
// stream of any client, wherever that is. A text of its own is a header, a fragment and an end; a
// stream of events has no end.
//
// Failure: JsonBuffer::failed, also where zlib finds no memory.
//
// Threads: any; no state.

#pragma once

#include <string_view>

#include "watch/json/json_buffer.h"

// No name, no time, of an unknown system.
inline constexpr std::string_view kZippedHeader("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", 10);

void zippedAppendFragment(JsonBuffer& out, std::string_view text);

// The whole text: header, fragment, end.
void zippedAppend(JsonBuffer& out, std::string_view text);

// Whether a client takes gzip, by its header Accept-Encoding (RFC 9110, 12.5.3).
[[nodiscard]] bool zippedIsAccepted(std::string_view header);
