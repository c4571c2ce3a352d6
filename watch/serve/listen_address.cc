#include "watch/serve/listen_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "programs/number.h"

namespace {

constexpr size_t kAddressBytes = INET6_ADDRSTRLEN + 1;
constexpr const char* kWrongForm = "not ADDRESS:PORT, as 127.0.0.1:9471 or [::1]:9471";

// Copies the text with a NUL after it. False where it doesn't fit.
bool copyText(std::string_view text, char (&buffer)[kAddressBytes]) {
    if (text.size() >= sizeof buffer) return false;
    buffer[text.copy(buffer, text.size())] = '\0';
    return true;
}

bool parseFour(std::string_view text, in_addr* out) {
    char buffer[kAddressBytes];
    return copyText(text, buffer) && inet_pton(AF_INET, buffer, out) == 1;
}

bool parseSix(std::string_view text, in6_addr* out) {
    if (text.size() < 2 || text.front() != '[' || text.back() != ']') return false;
    char buffer[kAddressBytes];
    return copyText(text.substr(1, text.size() - 2), buffer) &&
           inet_pton(AF_INET6, buffer, out) == 1;
}

template <typename Address>
void store(ListenAddress* out, const Address& address) {
    *out = {};
    std::memcpy(&out->address, &address, sizeof address);
    out->sizeBytes = sizeof address;
}

template <typename Address>
Address load(const ListenAddress& listen) {
    Address address{};
    std::memcpy(&address, &listen.address, sizeof address);
    return address;
}

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
}

}  // namespace

const char* listenAddressParse(const char* text, ListenAddress* out) {
    const std::string_view whole = text;
    const size_t colon = whole.rfind(':');
    if (colon == std::string_view::npos) return kWrongForm;
    const std::string_view name = whole.substr(0, colon);

    uint16_t port = 0;
    if (numberParse(whole.substr(colon + 1), port) != nullptr) {
        return "needs a port from 0 to 65535 after the colon";
    }
    const in_port_t netPort = htons(port);
    sockaddr_in four{};
    four.sin_family = AF_INET;
    four.sin_port = netPort;
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_port = netPort;
    if (parseFour(name, &four.sin_addr)) {
        store(out, four);
    } else if (parseSix(name, &six.sin6_addr)) {
        store(out, six);
    } else {
        return kWrongForm;
    }
    return nullptr;
}

std::string_view listenAddressText(const ListenAddress& listen, char (&buffer)[kListenTextBytes]) {
    char address[kAddressBytes] = "";
    int length = 0;
    if (listen.address.ss_family == AF_INET6) {
        const auto six = load<sockaddr_in6>(listen);
        inet_ntop(AF_INET6, &six.sin6_addr, address, sizeof address);
        length = std::snprintf(buffer, sizeof buffer, "[%s]:%u", address, ntohs(six.sin6_port));
    } else {
        const auto four = load<sockaddr_in>(listen);
        inet_ntop(AF_INET, &four.sin_addr, address, sizeof address);
        length = std::snprintf(buffer, sizeof buffer, "%s:%u", address, ntohs(four.sin_port));
    }
    return {buffer, static_cast<size_t>(length)};
}

std::string_view hostName(std::string_view header) {
    const size_t bracket = header.starts_with('[') ? header.find(']') : std::string_view::npos;
    const size_t end = bracket != std::string_view::npos ? bracket + 1 : header.find(':');
    return header.substr(0, end);
}

bool hostNameIsAddress(std::string_view name) {
    in_addr four{};
    in6_addr six{};
    return parseFour(name, &four) || parseSix(name, &six);
}

bool hostNamesAreEqual(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, {}, lower, lower);
}
