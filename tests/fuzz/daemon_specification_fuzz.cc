// Any text as a daemon argument and as a service argument.

#include <cstring>
#include <string>

#include "lib/transport/daemon/specification.h"
#include "tests/fuzz/fuzz.h"

namespace {

// Knows what begins with "k".
const NameResolver kNames = {.host =
                                 [](const char* name, uint32_t* out) {
                                     *out = 0x0100000a;
                                     return name[0] == 'k';
                                 },
                             .service =
                                 [](const char* name, const char*, uint16_t* out) {
                                     *out = 0x4c1d;
                                     return name[0] == 'k';
                                 }};

void checkDaemon(const std::string& text) {
    DaemonSpecification parsed;
    if (specificationParse(&parsed, text.c_str()) != kStatusSuccess) return;
    require(parsed.text[0] != '-' && std::strlen(parsed.host) <= kMostHostChars);
    require(parsed.namesHost == (parsed.host[0] != 0));
    require(parsed.port >= parsed.text && parsed.port <= parsed.text + std::strlen(parsed.text));
    DaemonAddress where;
    if (specificationResolve(&where, parsed, kNames) != kStatusSuccess) return;
    require(where.port != 0);
    require(parsed.namesHost || where.address == 0);
}

void checkService(const std::string& text) {
    DirectPort direct;
    const pelmoStatus status = specificationDirectPort(&direct, text.c_str(), kNames);
    const bool hasColon = std::strchr(text.c_str(), ':') != nullptr;
    require(status != kStatusSuccess || direct.isWanted == hasColon);
    require(hasColon || status == kStatusSuccess);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkDaemon(text);
    checkService(text);
    return 0;
}
