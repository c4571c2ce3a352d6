#include "lib/transport/daemon/specification.h"

#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>

#include "lib/base/bytes.h"
#include "lib/base/text.h"

namespace {

constexpr const char* kDefaultSpecification = "7500";
constexpr uint32_t kMostServiceChars = 127;
constexpr uint32_t kAddressParts = 4;

// What may come before the first ":".
struct Prefix {
    std::string_view text;
    bool isSupported;
    bool isSecure;
};
constexpr Prefix kPrefixes[] = {
    {"ipc:", false, false},
    {"tcp:", true, false},
    {"ssl:", true, true},
};

const Prefix* findPrefix(std::string_view argument) {
    for (const Prefix& prefix : kPrefixes) {
        if (argument.starts_with(prefix.text)) return &prefix;
    }
    return nullptr;
}

// The whole text is a number of at most that value.
bool parseNumber(std::string_view text, uint32_t most, uint32_t& out) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc{} && end == text.data() + text.size() && out <= most;
}

bool parseDotted(std::string_view text, uint32_t* out) {
    uint32_t number = 0;
    for (uint32_t part = 1; part <= kAddressParts; ++part) {
        const size_t dot = text.find('.');
        if ((dot == std::string_view::npos) != (part == kAddressParts)) return false;
        uint32_t value = 0;
        if (!parseNumber(text.substr(0, dot), 255, value)) return false;
        number = number << 8 | value;
        text.remove_prefix(part < kAddressParts ? dot + 1 : text.size());
    }
    *out = hostOrder32(number);
    return true;
}

bool resolvePort(const char* text,
                 const char* protocol,
                 const NameResolver& resolver,
                 uint16_t* out) {
    uint32_t number = 0;
    if (!parseNumber(text, UINT16_MAX, number)) return resolver.service(text, protocol, out);
    *out = hostOrder16(static_cast<uint16_t>(number));
    return true;
}

}  // namespace

pelmoStatus specificationParse(DaemonSpecification* out, const char* argument) {
    const bool isGiven = argument != nullptr && argument[0] != 0;
    DaemonSpecification made = {};
    made.text = isGiven ? argument : kDefaultSpecification;
    if (made.text[0] == '-') return kStatusNotPermitted;
    const char* rest = made.text;
    if (const Prefix* prefix = findPrefix(made.text); prefix != nullptr) {
        if (!prefix->isSupported) return kStatusInvalidArgument;
        made.isSecure = prefix->isSecure;
        rest += prefix->text.size();
        if (rest[0] == 0) return kStatusInvalidArgument;
    }
    const char* colon = std::strchr(rest, ':');
    made.port = colon != nullptr ? colon + 1 : rest;
    const size_t hostChars = colon != nullptr ? static_cast<size_t>(colon - rest) : 0;
    if (hostChars > kMostHostChars) return kStatusInvalidArgument;
    std::memcpy(made.host, rest, hostChars);
    made.namesHost = hostChars != 0;
    *out = made;
    return kStatusSuccess;
}

pelmoStatus specificationResolve(DaemonAddress* out,
                                 const DaemonSpecification& specification,
                                 const NameResolver& resolver) {
    DaemonAddress made = {};
    if (specification.namesHost && !parseDotted(specification.host, &made.address) &&
        !resolver.host(specification.host, &made.address)) {
        return kStatusInvalidArgument;
    }
    // A daemon can't listen on port 0.
    if (!resolvePort(specification.port, "tcp", resolver, &made.port) || made.port == 0) {
        return kStatusInvalidArgument;
    }
    *out = made;
    return kStatusSuccess;
}

pelmoStatus specificationDirectPort(DirectPort* out,
                                    const char* service,
                                    const NameResolver& resolver) {
    DirectPort made = {.isWanted = false, .port = 0};
    const std::string_view whole(service);
    const size_t colon = whole.find(':');
    if (colon != std::string_view::npos) {
        const std::string_view port =
            whole.substr(colon + 1, whole.find(':', colon + 1) - colon - 1);
        if (port == whole.substr(0, colon)) return kStatusNotPermitted;
        char text[kMostServiceChars + 1];
        if (port.size() > kMostServiceChars) return kStatusServiceNotFound;
        boundedFormat(text, sizeof text, "%.*s", static_cast<int>(port.size()), port.data());
        if (!port.empty() && !resolvePort(text, "udp", resolver, &made.port)) {
            return kStatusServiceNotFound;
        }
        made.isWanted = true;
    }
    *out = made;
    return kStatusSuccess;
}
