#include "bus/bus.h"

#include <fcntl.h>
#include <unistd.h>

#include <new>
#include <span>

#include "bus/command_line.h"
#include "bus/complain.h"
#include "bus/output.h"
#include "bus/stop.h"

namespace {

// A standard stream that is closed at the start gets a descriptor that can't be used, so that no
// socket takes its place: what is written there fails, and what is read as well.
void holdStandardStreams() {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == 0) continue;
        const int mode = descriptor == 0 ? O_WRONLY : O_RDONLY;
        // The lowest that is free, which is this one.
        [[maybe_unused]] const int opened = open("/dev/null", mode);
    }
}

ExitStatus print(const std::string& text) {
    Output output;
    outputOpen(output);
    output.text = text;
    return outputFlush(output) ? kExitDone : kExitFailed;
}

ExitStatus run(std::span<char* const> arguments) {
    const pelmoStatus installed = stopInstall();
    if (installed != kStatusSuccess) return complain("signals", installed), kExitFailed;
    const CommandLine line = commandLineRead(arguments);
    if (!line.fault.empty()) return complain(line.fault), kExitUsage;
    if (line.command == nullptr) return print(line.answer);
    return line.command->run(line.settings);
}

}  // namespace

int busMain(int argc, char** argv) {
    holdStandardStreams();
    std::span<char* const> arguments(argv, static_cast<size_t>(argc));
    if (!arguments.empty()) arguments = arguments.subspan(1);  // the program's name may be missing
    try {
        return run(arguments);
    } catch (const std::bad_alloc&) {
        complain("pelmobus", kStatusNoMemory);
        return kExitFailed;
    }
}
