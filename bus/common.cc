#include "bus/common.h"

#include <cstdio>

void announce(const std::string& line) {
    const std::string whole = line + "\n";
    std::fwrite(whole.data(), 1, whole.size(), stderr);
}

void complain(const std::string& what) {
    announce("pelmobus: " + what);
}

void complain(const std::string& what, pelmoStatus status) {
    complain(what + ": " + pelmoStatus_GetText(status) + " (" + std::to_string(status) + ")");
}
