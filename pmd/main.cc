// pmd: a bus daemon for one machine, for trying, testing and demonstrating.
//
// Exit status: 0 at its end by itself or by SIGINT or SIGTERM, 1 if it can't start, 2 for a bad
// command line.

#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "lib/base/huge_heap.h"
#include "lib/base/log.h"
#include "pmd/options.h"
#include "pmd/server.h"
#include "pmd/stand_in.h"
#include "programs/option_table.h"
#include "programs/streams.h"

namespace {

constexpr int kFailed = 1;
constexpr int kBadCommandLine = 2;

// Blocked in all threads, so that the main thread alone takes them.
sigset_t stopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

// The end by itself is one more reason to stop in order.
void onEnded() {
    kill(getpid(), SIGTERM);
}

// For a service manager, which may ask as root before it starts the daemon as another user.
int askStandIn(const PmdOptions& options) {
    if (standInAsk(options.port) != HandOver::kRefused) return 0;
    std::fputs("pmd: the stand-in keeps its port\n", stderr);
    return kFailed;
}

int run(const PmdOptions& options) {
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // Neither a log without a reader nor one that is closed holds up or ends the clients.
    logBoundWaits(0);
    streamsOutliveFaults();
    std::string error;
    if (!serverStart(options, onEnded, error)) {
        std::fprintf(stderr, "pmd: %s\n", error.c_str());
        return kFailed;
    }
    int number = 0;
    while (sigwait(&signals, &number) != 0) {
    }
    serverStop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    streamsHold();
    // One heap: the daemon works on one thread at a time, and only the main heap gives its end
    // back.
    mallopt(M_ARENA_MAX, 1);
    hugeHeapPrefer();
    logSetProgramName("pmd");
    PmdOptions options{};
    std::string error;
    const std::span<char* const> words(argv, static_cast<size_t>(argc));
    switch (pmdOptionsRead(words.subspan(words.empty() ? 0 : 1), options, error)) {
        case PmdParse::kHelp:
            std::fputs(pmdOptionsHelp().c_str(), stdout);
            return 0;
        case PmdParse::kVersion:
            std::fputs(versionText("pmd").c_str(), stdout);
            return 0;
        case PmdParse::kWrong:
            std::fprintf(stderr, "pmd: %s; --help lists the options\n", error.c_str());
            return kBadCommandLine;
        case PmdParse::kRun:
            return options.onlyAsks ? askStandIn(options) : run(options);
    }
}
