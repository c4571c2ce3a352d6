#include "programs/text.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

namespace {

// The two digits of each byte.
constexpr auto kHexPairs = [] {
    std::array<std::array<char, 2>, 256> pairs{};
    for (size_t byte = 0; byte < pairs.size(); ++byte) {
        pairs[byte] = {kHexDigits[byte >> 4], kHexDigits[byte & 15]};
    }
    return pairs;
}();

// The lead byte of a character, by how many bytes follow it.
struct Utf8Head {
    uint8_t mask;
    uint8_t head;
    uint8_t tails;
    uint32_t least;  // the lowest character of that length
};

constexpr Utf8Head kUtf8Heads[] = {
    {0x80, 0x00, 0, 0},
    {0xE0, 0xC0, 1, 0x80},
    {0xF0, 0xE0, 2, 0x800},
    {0xF8, 0xF0, 3, 0x10000},
};

}  // namespace

void hexAdd(std::string& out, const void* bytes, size_t sizeBytes) {
    const auto* from = static_cast<const unsigned char*>(bytes);
    const size_t before = out.size();
    out.resize(before + 2 * sizeBytes);
    char* to = out.data() + before;
    for (size_t i = 0; i < sizeBytes; ++i, to += 2) {
        std::memcpy(to, kHexPairs[from[i]].data(), 2);
    }
}

bool hexParse(std::string_view text, std::string& out) {
    out.clear();
    if (text.size() % 2 != 0) return false;
    out.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = hexDigit(text[i]);
        const int low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0) return out.clear(), false;
        out += static_cast<char>(high << 4 | low);
    }
    return true;
}

int hexDigit(char character) {
    if (character >= '0' && character <= '9') return character - '0';
    const int lower = character | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

size_t utf8Read(std::string_view text, uint32_t& character) {
    if (text.empty()) return 0;
    const auto first = static_cast<uint8_t>(text[0]);
    for (const Utf8Head& row : kUtf8Heads) {
        if ((first & row.mask) != row.head) continue;
        if (text.size() <= row.tails) return 0;
        character = first & static_cast<uint8_t>(~row.mask);
        for (size_t i = 1; i <= row.tails; ++i) {
            const auto tail = static_cast<uint8_t>(text[i]);
            if ((tail & 0xC0) != 0x80) return 0;
            character = character << 6 | (tail & 0x3F);
        }
        const bool isCharacter = character >= row.least && character <= 0x10FFFF &&
                                 (character < 0xD800 || character > 0xDFFF);
        return isCharacter ? row.tails + 1u : 0;
    }
    return 0;
}

void utf8Add(std::string& out, uint32_t character) {
    size_t tails = 0;
    while (tails + 1 < std::size(kUtf8Heads) && character >= kUtf8Heads[tails + 1].least) {
        ++tails;
    }
    out += static_cast<char>(kUtf8Heads[tails].head | character >> 6 * tails);
    while (tails-- > 0) {
        out += static_cast<char>(0x80 | (character >> 6 * tails & 0x3F));
    }
}

size_t utf8Length(std::string_view text) {
    uint32_t character = 0;
    return utf8Read(text, character);
}

std::string_view utcText(int64_t seconds, uint32_t nanoseconds, char (&buffer)[kUtcTextBytes]) {
    const time_t whole = seconds;
    tm utc{};
    gmtime_r(&whole, &utc);
    const int length = std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%09uZ",
                                     utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
                                     utc.tm_min, utc.tm_sec, nanoseconds);
    return {buffer, static_cast<size_t>(length)};
}
