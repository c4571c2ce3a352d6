#include "bridge/subjects.h"

#include <cstdint>

#include "programs/text.h"

namespace {

constexpr size_t kMostElementBytes = 127;
constexpr size_t kMostPackedBytes = 200;
constexpr size_t kPackedHeadBytes = 3;
constexpr size_t kPackedElementBytes = 2;

bool isPlain(char character, bool isFirst) {
    const auto byte = static_cast<uint8_t>(character);
    if (byte <= 0x20 || byte == 0x7F) return false;
    return character != '%' && character != '*' && character != '>' &&
           !(isFirst && character == '$');
}

void escapeElement(std::string_view element, std::string& out) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    for (size_t at = 0; at < element.size(); ++at) {
        const char character = element[at];
        if (isPlain(character, at == 0)) {
            out += character;
            continue;
        }
        const auto byte = static_cast<uint8_t>(character);
        out += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
}

bool isUpperDigit(char character) {
    return hexDigit(character) >= 0 && !(character >= 'a' && character <= 'f');
}

// The byte of "%XX" at the start of the text, or -1. Dots and NULs have no place in an element.
int escapedByte(std::string_view text) {
    if (text.size() < 3 || text[0] != '%' || !isUpperDigit(text[1]) || !isUpperDigit(text[2]))
        return -1;
    const int byte = hexDigit(text[1]) * 16 + hexDigit(text[2]);
    return byte == 0 || byte == '.' ? -1 : byte;
}

void unescapeElement(std::string_view element, std::string& out) {
    for (size_t at = 0; at < element.size();) {
        const int byte = escapedByte(element.substr(at));
        out += byte >= 0 ? static_cast<char>(byte) : element[at];
        at += byte >= 0 ? 3 : 1;
    }
}

// Takes the next element off the rest. False at the end.
bool takeElement(std::string_view& rest, bool& isLast, std::string_view& element) {
    if (isLast) return false;
    const size_t dot = rest.find('.');
    isLast = dot == std::string_view::npos;
    element = rest.substr(0, dot);
    rest = isLast ? std::string_view() : rest.substr(dot + 1);
    return true;
}

// Can the bus carry a message on it, and may it leave its bus?
bool isBusSubject(std::string_view subject) {
    if (subjectIsLocal(subject)) return false;
    size_t packed = kPackedHeadBytes;
    bool isLast = false;
    size_t elements = 0;
    for (std::string_view element; takeElement(subject, isLast, element); ++elements) {
        if (element.empty() || element.size() > kMostElementBytes) return false;
        if (element.find('\0') != std::string_view::npos) return false;
        packed += kPackedElementBytes + element.size();
    }
    return packed <= kMostPackedBytes;
}

template <typename Turn>
void eachElement(std::string_view subject, std::string& out, Turn turn) {
    bool isLast = false;
    std::string_view element;
    for (bool isFirst = true; takeElement(subject, isLast, element); isFirst = false) {
        if (!isFirst) out += '.';
        turn(element, isLast, out);
    }
}

}  // namespace

const char* subjectPrefixFault(std::string_view prefix) {
    if (prefix.empty()) return nullptr;
    if (prefix.back() != '.') return "has no dot at its end";
    const std::string_view subject = prefix.substr(0, prefix.size() - 1);
    if (!isBusSubject(subject)) return "isn't the beginning of a subject";
    bool isWild = false;
    std::string unused;
    eachElement(subject, unused, [&](std::string_view element, bool, std::string&) {
        for (size_t at = 0; at < element.size(); ++at) {
            isWild |= !isPlain(element[at], at == 0);
        }
    });
    return isWild ? "has characters that a prefix must not have" : nullptr;
}

bool subjectToNats(const SubjectMap& map, std::string_view bus, std::string& out) {
    if (!bus.starts_with(map.busPrefix) || !isBusSubject(bus)) return false;
    bus.remove_prefix(map.busPrefix.size());
    if (bus.empty()) return false;
    out = map.natsPrefix;
    eachElement(bus, out, [](std::string_view element, bool, std::string& to) {
        escapeElement(element, to);
    });
    return true;
}

bool subjectToBus(const SubjectMap& map, std::string_view nats, std::string& out) {
    if (!nats.starts_with(map.natsPrefix)) return false;
    nats.remove_prefix(map.natsPrefix.size());
    if (nats.empty()) return false;
    out = map.busPrefix;
    eachElement(nats, out, [](std::string_view element, bool, std::string& to) {
        unescapeElement(element, to);
    });
    return isBusSubject(out);
}

bool subjectIsLocal(std::string_view bus) {
    const std::string_view first = bus.substr(0, bus.find('.'));
    return first == "_INBOX" || first == "_PM";
}

bool subjectPatternsOverlap(std::string_view first, std::string_view second) {
    bool isLast[2] = {false, false};
    for (;;) {
        std::string_view elements[2];
        const bool has[2] = {takeElement(first, isLast[0], elements[0]),
                             takeElement(second, isLast[1], elements[1])};
        if (!has[0] || !has[1]) return has[0] == has[1];
        for (int side = 0; side < 2; ++side) {
            if (elements[side] == ">" && isLast[side]) return true;
        }
        const bool isWild = elements[0] == "*" || elements[1] == "*";
        if (!isWild && elements[0] != elements[1]) return false;
    }
}

bool subjectPattern(const SubjectMap& map,
                    std::string_view pattern,
                    std::string& outBus,
                    std::string& outNats) {
    outBus = map.busPrefix;
    outBus += pattern;
    if (!isBusSubject(outBus)) return false;
    outNats = map.natsPrefix;
    eachElement(pattern, outNats, [](std::string_view element, bool isLast, std::string& to) {
        const bool isWild = element == "*" || (element == ">" && isLast);
        if (isWild) {
            to += element;
        } else {
            escapeElement(element, to);
        }
    });
    return true;
}
