// pelmobridge: joins a Pelmo message bus and NATS.
//
// Exit status: 0 at its end by a signal, 1 if it can't start or messages were lost at its end, 2
// for a bad command line.

#include <cstdio>
#include <new>
#include <span>

#include "bridge/bridge.h"
#include "bridge/say.h"
#include "programs/stop.h"
#include "programs/streams.h"

namespace {

constexpr int kFailed = 1;
constexpr int kBadCommandLine = 2;

int run(std::span<char* const> arguments) {
    std::string answer, fault;
    const auto options = bridgeOptionsRead(arguments, answer, fault);
    if (!options && fault.empty()) return std::fputs(answer.c_str(), stdout) < 0 ? kFailed : 0;
    if (!options) return bridgeSay(fault), kBadCommandLine;
    if (stopInstall() != kStatusSuccess) return bridgeSay("no signals can be caught"), kFailed;
    return bridgeRun(*options);
}

}  // namespace

int main(int argc, char** argv) {
    streamsHold();
    streamsOutliveFaults();
    std::span<char* const> arguments(argv, static_cast<size_t>(argc));
    if (!arguments.empty()) arguments = arguments.subspan(1);  // the program's name may be missing
    try {
        return run(arguments);
    } catch (const pelmo::Failure& failure) {  // the library can't be opened
        bridgeSay(failure.what());
        return kFailed;
    } catch (const std::bad_alloc&) {
        std::fputs("pelmobridge: no memory\n", stderr);
        return kFailed;
    }
}
