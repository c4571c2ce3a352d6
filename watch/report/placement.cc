#include "watch/report/placement.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

struct Placement {
    PlaceOutput place = nullptr;
    pid_t process = 0;
    int channel = -1;  // to the process; -1 where there is none
};

Placement placement;

ssize_t readThrough(int descriptor, void* out, size_t sizeBytes) {
    ssize_t count = 0;
    do {
        count = read(descriptor, out, sizeBytes);
    } while (count < 0 && errno == EINTR);
    return count;
}

// A signal to the group asks the program to end, which says what is to become of the file.
[[noreturn]] void serve(int channel) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE})
        signal(number, SIG_IGN);
    bool isWhole = false;
    if (readThrough(channel, &isWhole, sizeof isWhole) != sizeof isWhole) isWhole = false;
    const int error = placement.place(isWhole);
    _exit(send(channel, &error, sizeof error, MSG_NOSIGNAL) == sizeof error ? 0 : 1);
}

}  // namespace

bool placementStart(PlaceOutput place) {
    placement.place = place;
    if (geteuid() != 0) return true;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return false;
    const pid_t process = fork();
    if (process == 0) {
        close(ends[0]);
        serve(ends[1]);
    }
    const int error = errno;
    close(ends[1]);
    if (process < 0) {
        close(ends[0]);
        errno = error;
        return false;
    }
    placement.process = process;
    placement.channel = ends[0];
    return true;
}

int placementAsk(bool isWhole) {
    const PlaceOutput place = std::exchange(placement.place, nullptr);
    if (place == nullptr) return 0;
    if (placement.channel < 0) return place(isWhole);
    int error = EPIPE;
    if (send(placement.channel, &isWhole, sizeof isWhole, MSG_NOSIGNAL) != sizeof isWhole ||
        readThrough(placement.channel, &error, sizeof error) != sizeof error) {
        error = EPIPE;
    }
    close(std::exchange(placement.channel, -1));
    while (waitpid(placement.process, nullptr, 0) < 0 && errno == EINTR) {
    }
    return error;
}
