#include "trace/packets/address.h"

#include <cstdio>

#include "lib/base/bytes.h"

const char* ipToText(uint32_t address) {
    static char text[16];
    const uint32_t host = hostOrder32(address);
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", static_cast<int>(host >> 24),
                  static_cast<int>(host >> 16 & 0xff), static_cast<int>(host >> 8 & 0xff),
                  static_cast<int>(host & 0xff));
    return text;
}
