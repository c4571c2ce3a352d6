#include "bus/output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "bus/common.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

namespace {

constexpr size_t kFullBytes = size_t{64} << 10;
constexpr int64_t kMoment = 10 * kMillisecond;

// Waits for room; after a signal only for what is left of the last wait.
bool awaitRoom(const Output& output, int64_t& giveUp) {
    if (stopWait(output.descriptor, POLLOUT, kNever) == StopWait::kReady) return true;
    if (giveUp == kNever) giveUp = steadyNow() + kLastWaitSeconds * kSecond;
    for (;;) {
        const int64_t left = (giveUp - steadyNow()) / kMillisecond;
        pollfd entry{output.descriptor, POLLOUT, 0};
        const int ready = poll(&entry, 1, static_cast<int>(std::max<int64_t>(left, 0)));
        if (ready > 0) return true;
        if (ready == 0) return false;
    }
}

// Returns 0 or what is wrong. What has room takes this much without a wait, by its own word.
int writeAll(const Output& output) {
    const std::string& text = output.text;
    int64_t giveUp = kNever;
    for (size_t at = 0; at < text.size();) {
        if (!output.isFile && !awaitRoom(output, giveUp)) return ETIME;
        const size_t most = output.isFile ? text.size() : PIPE_BUF;
        const size_t wanted = std::min(text.size() - at, most);
        const ssize_t count = write(output.descriptor, text.data() + at, wanted);
        if (count >= 0) {
            at += static_cast<size_t>(count);
        } else if (errno != EINTR && errno != EAGAIN) {
            return errno;
        }
    }
    return 0;
}

}  // namespace

void outputOpen(Output& output) {
    struct stat status = {};
    output.isTerminal = isatty(output.descriptor) == 1;
    output.isFile = fstat(output.descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

bool outputLine(Output& output) {
    if (output.isTerminal || output.text.size() >= kFullBytes) return outputFlush(output);
    if (output.since == 0) output.since = steadyNow();
    return !output.failed;
}

int64_t outputDue(const Output& output) {
    return output.text.empty() || output.since == 0 ? kNever : output.since + kMoment;
}

bool outputFlush(Output& output) {
    const int fault = output.failed || output.text.empty() ? 0 : writeAll(output);
    output.text.clear();
    output.since = 0;
    if (fault != 0) {
        output.failed = true;
        const char* words = fault == ETIME ? "its reader takes nothing" : std::strerror(fault);
        complain(std::string("standard output: ") + words, kStatusIoFailed);
    }
    return !output.failed;
}
