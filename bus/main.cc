// pelmobus: the bus from a shell. Reads the command line, runs the command, returns the exit
// status.

#include <new>
#include <span>

#include "bus/command_line.h"
#include "bus/common.h"
#include "bus/output.h"
#include "programs/stop.h"
#include "programs/streams.h"

namespace {

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

int main(int argc, char** argv) {
    streamsHold();
    streamsOutliveFaults();
    std::span<char* const> arguments(argv, static_cast<size_t>(argc));
    if (!arguments.empty()) arguments = arguments.subspan(1);  // the program's name may be missing
    try {
        return run(arguments);
    } catch (const std::bad_alloc&) {
        complain("pelmobus", kStatusNoMemory);
        return kExitFailed;
    }
}
