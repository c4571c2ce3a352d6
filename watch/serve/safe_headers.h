// The headers of all answers, which keep browsers from taking an answer for something else, or from
// showing it in another site's page.
//
// libmicrohttpd answers some requests itself: malformed ones, and those whose head finds no room.
// It has no option for the headers of these, and leaves a client without an answer where its room
// is used up. But it queues them by its public call MHD_queue_response, through the table of the
// dynamic linker. This module defines that call, so the program's definition is found first:
// answers of the program are passed on; one of the library's own is replaced by a line with these
// headers, and its connection is closed. Where a build of the library calls itself otherwise, its
// own answers stay as they are.
//
// Threads: the server's.

#pragma once

#include <microhttpd.h>

#include <cstddef>
#include <string_view>

// A query may have so many parts; with more its request is answered by 414.
inline constexpr size_t kSafeQueryParts = 16;

// The policy of an answer that is no page.
inline constexpr std::string_view kSafeHeadersNoPage =
    "default-src 'none'; frame-ancestors 'none'; base-uri 'none'";

// All but Content-Type, Content-Security-Policy and Cache-Control. False without memory.
[[nodiscard]] bool safeHeadersAdd(MHD_Response* response);
