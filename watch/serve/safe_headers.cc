#include "watch/serve/safe_headers.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>

namespace {

struct Header {
    const char* name;
    const char* value;
};

constexpr Header kHeaders[] = {
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
};

// Of an answer of the library's own.
constexpr Header kLastHeaders[] = {
    {"Content-Type", "text/plain; charset=utf-8"},
    {"Content-Security-Policy", kSafeHeadersNoPage.data()},
    {"Cache-Control", "no-store"},
    {"Connection", "close"},
};

constexpr size_t kAnswerBytes = 1024;

using QueueResponse = MHD_Result (*)(MHD_Connection*, unsigned, MHD_Response*);

// The library says "head too large" where the query's parts find no room.
unsigned statusOf(MHD_Connection* connection, unsigned status) {
    const int parts =
        MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, nullptr, nullptr);
    const bool isLong = parts > static_cast<int>(kSafeQueryParts);
    return status == MHD_HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE && isLong ? MHD_HTTP_URI_TOO_LONG
                                                                        : status;
}

size_t writeAnswer(char (&text)[kAnswerBytes], unsigned status) {
    const char* const reason = MHD_get_reason_phrase_for(status);
    size_t length = 0;
    const auto append = [&](const char* form, auto... values) {
        const int more = std::snprintf(text + length, sizeof text - length, form, values...);
        length = std::min(length + static_cast<size_t>(std::max(more, 0)), sizeof text - 1);
    };
    append("HTTP/1.1 %u %s\r\n", status, reason);
    for (const Header& header : kHeaders)
        append("%s: %s\r\n", header.name, header.value);
    for (const Header& header : kLastHeaders)
        append("%s: %s\r\n", header.name, header.value);
    append("Content-Length: %zu\r\n\r\n%s\n", std::string_view(reason).size() + 1, reason);
    return length;
}

// Anyone who closes a socket before all was read resets the connection, and the peer may lose the
// answer.
void dropUnread(int socket) {
    char bytes[4096];
    constexpr size_t kMostBytes = 256 << 10;
    for (size_t dropped = 0; dropped < kMostBytes; dropped += sizeof bytes) {
        if (recv(socket, bytes, sizeof bytes, MSG_DONTWAIT) <= 0) return;
    }
}

// Nothing waits in the socket's buffer before it but answers that the client hasn't read; one
// that finds no room there is dropped with its connection.
void answerInstead(MHD_Connection* connection, unsigned status) {
    char text[kAnswerBytes];
    const size_t length = writeAnswer(text, statusOf(connection, status));
    const int socket =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    (void)send(socket, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    dropUnread(socket);
    shutdown(socket, SHUT_RDWR);
}

}  // namespace

bool safeHeadersAdd(MHD_Response* response) {
    return std::ranges::all_of(kHeaders, [response](const Header& header) {
        return MHD_add_response_header(response, header.name, header.value) == MHD_YES;
    });
}

extern "C" MHD_Result MHD_queue_response(MHD_Connection* connection,
                                         unsigned status,
                                         MHD_Response* response) {
    static const auto pass =
        reinterpret_cast<QueueResponse>(dlsym(RTLD_NEXT, "MHD_queue_response"));
    if (pass == nullptr) return MHD_NO;
    if (MHD_get_response_header(response, kHeaders[0].name) != nullptr) {
        return pass(connection, status, response);
    }
    // The library goes on as if its answer went out, and notices that the socket is shut.
    answerInstead(connection, status);
    return pass(connection, status, response);
}
