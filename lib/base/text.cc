#include "lib/base/text.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

size_t boundedFormatList(char* buffer, size_t sizeBytes, const char* format, va_list arguments) {
    if (sizeBytes == 0) return 0;
    const int wanted = std::vsnprintf(buffer, sizeBytes, format, arguments);
    if (wanted < 0) {
        buffer[0] = '\0';
        return 0;
    }
    const auto length = static_cast<size_t>(wanted);
    return length < sizeBytes ? length : sizeBytes - 1;
}

size_t boundedFormat(char* buffer, size_t sizeBytes, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const size_t length = boundedFormatList(buffer, sizeBytes, format, arguments);
    va_end(arguments);
    return length;
}

void boundedCopy(char* destination, const char* source, size_t sizeBytes) {
    if (sizeBytes == 0) return;
    const size_t length = strnlen(source, sizeBytes - 1);
    std::memcpy(destination, source, length);
    destination[length] = '\0';
}

void boundedAppend(char* destination, const char* source, size_t sizeBytes) {
    const size_t length = strnlen(destination, sizeBytes);
    boundedCopy(destination + length, source, sizeBytes - length);
}

pelmoStatus sizeText(uint64_t value, char* buffer, size_t sizeBytes) {
    const int shift = value >> 30 != 0 ? 30 : value >> 20 != 0 ? 20 : 10;
    const char* const unit = shift == 30 ? "G" : shift == 20 ? "M" : "K";
    const bool isWhole = value % (uint64_t{1} << shift) == 0;
    const double number = std::ldexp(static_cast<double>(value), -shift);
    const int length =
        value == 0 ? std::snprintf(buffer, sizeBytes, "0")
                   : std::snprintf(buffer, sizeBytes, "%.*f %s", isWhole ? 0 : 3, number, unit);
    const bool fits = length >= 0 && static_cast<size_t>(length) < sizeBytes;
    return fits ? kStatusSuccess : kStatusInvalidArgument;
}

char* concat2(const char* a, const char* b) {
    return concat3(a, b, "");
}

char* concat3(const char* a, const char* b, const char* c) {
    const size_t aBytes = std::strlen(a);
    const size_t bBytes = std::strlen(b);
    const size_t cBytes = std::strlen(c);
    auto* text = static_cast<char*>(std::malloc(aBytes + bBytes + cBytes + 1));
    if (text == nullptr) return nullptr;
    std::memcpy(text, a, aBytes);
    std::memcpy(text + aBytes, b, bBytes);
    std::memcpy(text + aBytes + bBytes, c, cBytes + 1);
    return text;
}
