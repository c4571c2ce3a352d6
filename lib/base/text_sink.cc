#include "lib/base/text_sink.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <limits>
#include <string_view>
#include <utility>

#include "lib/base/clock.h"

namespace {

// How often a wait checks whether it has become bounded.
constexpr double kLookSeconds = 0.1;

// On the steady clock. It orders no other data: a wait that reads the old value looks again.
constinit std::atomic<double> giveUpSeconds = std::numeric_limits<double>::infinity();

static_assert(std::atomic<double>::is_always_lock_free);

// False where waits are bounded and the time is up.
bool awaitRoom(int descriptor) {
    for (;;) {
        const double left = giveUpSeconds.load(std::memory_order_relaxed) - clockSteadySeconds();
        const double wait = std::clamp(left, 0.0, kLookSeconds);
        pollfd entry{.fd = descriptor, .events = POLLOUT, .revents = 0};
        if (poll(&entry, 1, static_cast<int>(wait * 1000)) > 0) return true;
        if (left <= 0) return false;
    }
}

// One write that doesn't wait: EAGAIN where there is no room. The descriptor may be shared with
// other processes, which O_NONBLOCK would affect.
ssize_t writeNow(int descriptor, std::string_view text) {
    const iovec piece{.iov_base = const_cast<char*>(text.data()), .iov_len = text.size()};
    const ssize_t count = pwritev2(descriptor, &piece, 1, -1, RWF_NOWAIT);
    if (count >= 0 || errno == EINTR) return count;

    // Not available for a terminal, on older systems not for a pipe, and some file systems refuse
    // what would start the disk. A descriptor that reports itself ready takes this much at once, or
    // returns the real error.
    pollfd entry{.fd = descriptor, .events = POLLOUT, .revents = 0};
    if (poll(&entry, 1, 0) > 0) {
        return write(descriptor, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
    }
    errno = EAGAIN;
    return -1;
}

// Returns how many bytes went out. If that isn't all of them, `error` says why.
size_t writeAll(TextSink& sink, std::string_view text) {
    size_t written = 0;
    sink.error = 0;
    while (written < text.size()) {
        const std::string_view rest = text.substr(written);
        const ssize_t count = sink.isFile ? write(sink.descriptor, rest.data(), rest.size())
                                          : writeNow(sink.descriptor, rest);
        if (count > 0) written += static_cast<size_t>(count);
        if (count >= 0 || errno == EINTR) continue;
        if (errno == EAGAIN && awaitRoom(sink.descriptor)) continue;
        sink.error = errno == EAGAIN ? ETIME : errno;
        break;
    }
    return written;
}

// Cuts this many bytes off the file's end, unless another process has added to it meanwhile.
bool takeBack(int descriptor, size_t sizeBytes) {
    const off_t end = lseek(descriptor, 0, SEEK_CUR);
    struct stat status = {};
    if (end < 0 || fstat(descriptor, &status) != 0 || status.st_size != end) return false;
    return ftruncate(descriptor, end - static_cast<off_t>(sizeBytes)) == 0;
}

}  // namespace

void textSinkSet(TextSink* sink, int descriptor) {
    const int former = std::exchange(sink->descriptor, descriptor);
    if (former >= 0) close(former);
    struct stat status = {};
    sink->isFile = descriptor >= 0 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    sink->isInsideLine = false;
}

size_t textSinkWrite(TextSink* sink, const char* text, size_t sizeBytes) {
    if (sink->descriptor < 0) return sizeBytes;
    const std::string_view all(text, sizeBytes);
    const bool isTorn = sink->isInsideLine && sink->error != 0;
    size_t kept = isTorn && writeAll(*sink, "\n") != 1 ? 0 : writeAll(*sink, all);
    if (kept < sizeBytes) {
        sink->lossError = sink->error;
        const size_t linesEnd = all.substr(0, kept).rfind('\n') + 1;  // 0 where there is none
        if (sink->isFile && kept > linesEnd && takeBack(sink->descriptor, kept - linesEnd)) {
            kept = linesEnd;
        }
        sink->lostLines += static_cast<uint64_t>(std::ranges::count(all.substr(kept), '\n'));
    }
    if (kept > 0) sink->isInsideLine = text[kept - 1] != '\n';
    return kept;
}

void textSinksBoundWaits(double seconds) {
    giveUpSeconds.store(clockSteadySeconds() + seconds, std::memory_order_relaxed);
}
