// Binds as the tool does and shows the environment that it made.

#include <cstdio>
#include <cstdlib>

#include "lib/transport/socket/secure_modules.h"

namespace {

void show(const char* name) {
    const char* value = std::getenv(name);
    std::printf("%s=%s\n", name, value != nullptr ? value : "(none)");
}

}  // namespace

int main(int, char** argv) {
    if (secureBindAll(argv) != kStatusSuccess) return 1;
    show("PM_BIN");
    show("PM_LIB");
    return 0;
}
