#include "trace/report/report_format.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "lib/base/bytes.h"

namespace {

constexpr size_t kCountDigitsMax = 20;
constexpr size_t kAddressBytes = 15;
constexpr double kWholeLimit = 0x1p53;  // below, a double holds every whole number

// True for numbers that the fast paths handle: neither NaN nor infinite nor negative, -0 included.
bool isPlain(double value) {
    return !std::signbit(value) && value < kWholeLimit;
}

char* appendPrintf(char* at, const char* format, size_t width, double value) {
    return at + std::snprintf(at, kNumberBytesMax, format, static_cast<int>(width), value);
}

// The tenths, 0 to 10, of a fraction from 0 to below 1, rounded as printf does: exactly, ties to
// even.
unsigned roundToTenths(double fraction) {
    constexpr double kTiny = 0x1p-7;  // from here on, 60 binary places hold every bit
    constexpr int kPlaces = 60;
    constexpr uint64_t kHalf = uint64_t{1} << (kPlaces - 1);
    if (fraction < kTiny) return 0;

    const uint64_t scaled = static_cast<uint64_t>(fraction * 0x1p60) * 10;
    const auto tenths = static_cast<unsigned>(scaled >> kPlaces);
    const uint64_t rest = scaled & (kHalf * 2 - 1);
    const bool up = rest > kHalf || (rest == kHalf && tenths % 2 == 1);
    return up ? tenths + 1 : tenths;
}

char* appendOctet(char* at, uint32_t octet) {
    return std::to_chars(at, at + 3, octet & 0xff).ptr;
}

}  // namespace

char* appendText(char* at, std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    return at + text.size();
}

char* appendBlanks(char* at, size_t count) {
    std::memset(at, ' ', count);
    return at + count;
}

char* appendCount(char* at, uint64_t value, size_t width) {
    char digits[kCountDigitsMax];
    const char* end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    const auto length = static_cast<size_t>(end - digits);
    if (length < width) at = appendBlanks(at, width - length);
    return appendText(at, {digits, length});
}

char* appendRate(char* at, double value, size_t width) {
    if (!isPlain(value)) return appendPrintf(at, "%*.1f", width, value);

    auto whole = static_cast<uint64_t>(value);
    unsigned tenths = roundToTenths(value - static_cast<double>(whole));
    if (tenths == 10) {
        ++whole;
        tenths = 0;
    }
    at = appendCount(at, whole, width - 2);
    *at++ = '.';
    *at++ = static_cast<char>('0' + tenths);
    return at;
}

char* appendWhole(char* at, double value, size_t width) {
    if (!isPlain(value) || value != std::floor(value)) {
        return appendPrintf(at, "%*.0f", width, value);
    }
    return appendCount(at, static_cast<uint64_t>(value), width);
}

char* appendAddress(char* at, uint32_t address) {
    const char* fieldEnd = at + kAddressBytes;
    const uint32_t word = hostOrder32(address);
    at = appendOctet(at, word >> 24);
    for (const int shift : {16, 8, 0}) {
        *at++ = '.';
        at = appendOctet(at, word >> shift);
    }
    return appendBlanks(at, static_cast<size_t>(fieldEnd - at));
}

char* appendCounter(char* at, ReportView view, uint64_t value, size_t width) {
    if (!view.rate) return appendCount(at, value, width);
    const auto amount = static_cast<double>(static_cast<int64_t>(value));
    return appendRate(at, amount / view.elapsedSeconds, width);
}
