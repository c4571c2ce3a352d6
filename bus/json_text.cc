#include "bus/json_text.h"

#include <cstdint>
#include <cstdio>

#include "programs/text.h"

namespace {

constexpr uint32_t kByteSurrogates = 0xDC00;

bool isBetween(uint32_t value, uint32_t least, uint32_t most) {
    return value >= least && value <= most;
}

bool needsEscape(uint32_t character) {
    return character < 0x20 || character == '"' || character == '\\' ||
           isBetween(character, 0x7F, 0x9F) || isBetween(character, 0x2028, 0x2029);
}

struct ShortEscape {
    char character;
    char letter;
};

constexpr ShortEscape kShortEscapes[] = {{'"', '"'},  {'\\', '\\'}, {'/', '/'},  {'\b', 'b'},
                                         {'\f', 'f'}, {'\n', 'n'},  {'\r', 'r'}, {'\t', 't'}};

void addEscaped(std::string& out, uint32_t character) {
    for (const ShortEscape& escape : kShortEscapes) {
        if (character != static_cast<uint32_t>(escape.character)) continue;
        out += '\\';
        out += escape.letter;
        return;
    }
    char text[8];
    std::snprintf(text, sizeof text, "\\u%04x", static_cast<unsigned>(character));
    out += text;
}

// Four digits at `at`; false where they aren't there.
bool readUnit(std::string_view inner, size_t at, uint32_t& unit) {
    if (inner.size() < at + 4) return false;
    unit = 0;
    for (size_t i = at; i < at + 4; ++i) {
        const int digit = hexDigit(inner[i]);
        if (digit < 0) return false;
        unit = unit << 4 | static_cast<uint32_t>(digit);
    }
    return true;
}

struct Escape {
    size_t length;        // with the backslash
    uint32_t character;   // or a byte,
    bool isByte = false;  // which stands for itself
    const char* fault = nullptr;
};

// "\uXXXX" at the beginning of `inner`, or two of them for one character.
Escape readUnitEscape(std::string_view inner) {
    uint32_t unit = 0;
    if (!readUnit(inner, 2, unit)) return {0, 0, false, "\\u needs four hexadecimal digits"};
    if (!isBetween(unit, 0xD800, 0xDFFF)) return {6, unit};
    uint32_t low = 0;
    if (unit < 0xDC00 && inner.substr(6, 2) == "\\u" && readUnit(inner, 8, low) &&
        isBetween(low, 0xDC00, 0xDFFF)) {
        return {12, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00)};
    }
    if (isBetween(unit, kByteSurrogates + 0x80, kByteSurrogates + 0xFF)) {
        return {6, unit - kByteSurrogates, true};
    }
    return {0, 0, false, "half a surrogate pair"};
}

Escape readEscape(std::string_view inner) {
    if (inner.size() < 2) return {0, 0, false, "a backslash without a letter"};
    if (inner[1] == 'u') return readUnitEscape(inner);
    for (const ShortEscape& escape : kShortEscapes) {
        if (inner[1] == escape.letter) return {2, static_cast<uint32_t>(escape.character)};
    }
    return {0, 0, false, "no such escape"};
}

Escape readOne(std::string_view rest) {
    if (rest[0] == '\\') return readEscape(rest);
    if (static_cast<uint8_t>(rest[0]) < 0x20) return {0, 0, false, "a raw control character"};
    Escape plain{0, 0};
    plain.length = utf8Read(rest, plain.character);
    if (plain.length == 0) plain.fault = "not UTF-8";
    return plain;
}

}  // namespace

void jsonTextAdd(std::string& out, std::string_view text) {
    out += '"';
    for (size_t at = 0; at < text.size();) {
        uint32_t character = 0;
        const size_t length = utf8Read(text.substr(at), character);
        if (length == 0) {
            addEscaped(out, kByteSurrogates + static_cast<uint8_t>(text[at++]));
            continue;
        }
        if (needsEscape(character)) {
            addEscaped(out, character);
        } else {
            out.append(text, at, length);
        }
        at += length;
    }
    out += '"';
}

const char* jsonTextRead(std::string_view inner, std::string* out, size_t* outStop) {
    if (out != nullptr) out->clear();
    for (size_t at = 0; at < inner.size();) {
        const Escape one = readOne(inner.substr(at));
        if (one.fault != nullptr) {
            *outStop = at;
            return one.fault;
        }
        at += one.length;
        if (out == nullptr) continue;
        if (one.isByte) {
            *out += static_cast<char>(one.character);
        } else {
            utf8Add(*out, one.character);
        }
    }
    return nullptr;
}
