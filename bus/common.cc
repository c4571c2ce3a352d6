#include "bus/common.h"

#include <cstdio>

void plainTextAdd(std::string& out, std::string_view text) {
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte != 0x7F) {
            out += character;
            continue;
        }
        char escaped[8];
        const bool isBreak = character == '\n';
        std::snprintf(escaped, sizeof escaped, isBreak ? "\\n" : "\\x%02x", byte);
        out += escaped;
    }
}

void announce(const std::string& line) {
    std::string whole;
    plainTextAdd(whole, line);
    whole += '\n';
    std::fwrite(whole.data(), 1, whole.size(), stderr);
}

void complain(const std::string& what) {
    announce("pelmobus: " + what);
}

void complain(const std::string& what, pelmoStatus status) {
    complain(what + ": " + pelmoStatus_GetText(status) + " (" + std::to_string(status) + ")");
}
