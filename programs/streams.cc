#include "programs/streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

void streamsHold() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) >= 0) continue;
        const int mode = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        // The lowest that is free, which is this one.
        [[maybe_unused]] const int opened = open("/dev/null", mode);
    }
}

void streamsOutliveFaults() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    constexpr int kFaults[] = {SIGPIPE, SIGXFSZ};
    for (const int signal : kFaults) {
        sigaction(signal, &action, nullptr);
    }
}
