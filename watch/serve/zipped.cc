#include "watch/serve/zipped.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

namespace {

// Of the same text, level 6 takes four times as long and is a fifth smaller.
constexpr int kLevel = 1;
constexpr int kRawWindowBits = -15;
constexpr int kMemoryLevel = 8;
constexpr size_t kStepBytes = 64 << 10;

// Deflates what the stream is given, up to a byte's end.
bool deflateAll(z_stream& stream, JsonBuffer& out) {
    do {
        if (!out.reserve(kStepBytes)) return false;
        stream.next_out = reinterpret_cast<Bytef*>(out.bytes + out.usedBytes);
        stream.avail_out = kStepBytes;
        if (deflate(&stream, Z_FULL_FLUSH) == Z_STREAM_ERROR) return false;
        out.usedBytes += kStepBytes - stream.avail_out;
    } while (stream.avail_out == 0);
    return true;
}

bool deflateText(JsonBuffer& out, std::string_view text) {
    constexpr size_t kMostInput = std::numeric_limits<uInt>::max();
    z_stream stream = {};
    if (deflateInit2(&stream, kLevel, Z_DEFLATED, kRawWindowBits, kMemoryLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        return false;
    }
    bool isDone = true;
    while (isDone && !text.empty()) {
        const std::string_view part = text.substr(0, kMostInput);
        text.remove_prefix(part.size());
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(part.data()));
        stream.avail_in = static_cast<uInt>(part.size());
        isDone = deflateAll(stream, out);
    }
    deflateEnd(&stream);
    return isDone;
}

void appendLittle32(JsonBuffer& out, uint32_t number) {
    for (int shift = 0; shift < 32; shift += 8) {
        out.Put(static_cast<char>(number >> shift & 0xff));
    }
}

constexpr std::string_view kBlanks = " \t";

std::string_view trimmed(std::string_view text) {
    const size_t begin = std::min(text.find_first_not_of(kBlanks), text.size());
    text.remove_prefix(begin);
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

bool isSame(std::string_view text, std::string_view lower) {
    return std::ranges::equal(text, lower, [](char left, char right) {
        return (left >= 'A' && left <= 'Z' ? left - 'A' + 'a' : left) == right;
    });
}

// "gzip;q=0.000" is a refusal.
bool isRefused(std::string_view parameters) {
    const std::string_view weight = trimmed(parameters);
    if (!isSame(weight.substr(0, 2), "q=")) return false;
    return weight.substr(2).find_first_not_of("0.") == std::string_view::npos;
}

}  // namespace

void zippedAppendFragment(JsonBuffer& out, std::string_view text) {
    if (!deflateText(out, text)) out.failed = true;
}

void zippedAppend(JsonBuffer& out, std::string_view text) {
    constexpr std::string_view kLastBlock("\x03\x00", 2);
    out.append(kZippedHeader);
    zippedAppendFragment(out, text);
    out.append(kLastBlock);
    uLong check = crc32(0, nullptr, 0);
    for (size_t at = 0; at < text.size(); at += kStepBytes) {
        const std::string_view part = text.substr(at, kStepBytes);
        check = crc32(check, reinterpret_cast<const Bytef*>(part.data()),
                      static_cast<uInt>(part.size()));
    }
    appendLittle32(out, static_cast<uint32_t>(check));
    appendLittle32(out, static_cast<uint32_t>(text.size()));
}

bool zippedIsAccepted(std::string_view header) {
    bool takesAny = false;
    while (!header.empty()) {
        const size_t comma = std::min(header.find(','), header.size());
        const std::string_view part = header.substr(0, comma);
        header.remove_prefix(std::min(comma + 1, header.size()));
        const size_t semicolon = std::min(part.find(';'), part.size());
        const std::string_view name = trimmed(part.substr(0, semicolon));
        const std::string_view rest = part.substr(std::min(semicolon + 1, part.size()));
        if (isSame(name, "gzip") || isSame(name, "x-gzip")) return !isRefused(rest);
        if (name == "*") takesAny = !isRefused(rest);
    }
    return takesAny;
}
