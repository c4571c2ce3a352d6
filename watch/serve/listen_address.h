// Where the server listens, and which names clients may call it by.
//
// A page of anybody's may have its own name lead to any address, and a browser then takes this
// server for that page's own. So only requests are answered whose Host header has a literal
// address, "localhost", or a name that the operator gave.
//
// Threads: any; no state.

#pragma once

#include <sys/socket.h>

#include <string_view>

struct ListenAddress {
    sockaddr_storage address;
    socklen_t sizeBytes;
};

// Room for "[ADDRESS]:PORT" of any kind.
inline constexpr size_t kListenTextBytes = 64;

// "127.0.0.1:9471" or "[::1]:9471"; port 0 leaves the choice to the system. Returns null, or what
// is wrong with the text.
[[nodiscard]] const char* listenAddressParse(const char* text, ListenAddress* out);

// The text that listenAddressParse takes, in the buffer and with a NUL after it.
std::string_view listenAddressText(const ListenAddress& listen, char (&buffer)[kListenTextBytes]);

// A Host header's name or address, without its port (RFC 9110, 7.2).
[[nodiscard]] std::string_view hostName(std::string_view header);

// Is it a literal address, one of IPv6 in brackets?
[[nodiscard]] bool hostNameIsAddress(std::string_view name);

// Without regard to the case of letters.
[[nodiscard]] bool hostNamesAreEqual(std::string_view left, std::string_view right);
