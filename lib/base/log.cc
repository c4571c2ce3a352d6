#include "lib/base/log.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lib/base/annotate.h"
#include "lib/base/lock.h"
#include "lib/base/numbered_ring.h"
#include "lib/base/path.h"
#include "lib/base/text.h"
#include "lib/base/thread.h"
#include "lib/base/timestamp.h"

namespace {

constexpr size_t kNumberedNameBytes = 512;
constexpr size_t kLineBytes = 1024;  // longer ones are written in pieces

// Text can reach the file without passing here, so its size is looked up now and then, but not on
// each line: the look-up costs as much as the line.
constexpr uint32_t kLinesPerLookUp = 32;

struct LogState {
    Lock lock = PELMO_LOCK_READY(LockRank::kLog);

    FILE* stream PELMO_GUARDED_BY(lock) = nullptr;  // where lines go; null until the first

    // The stream of all files that ever were open, made by the first. Never closed: others may be
    // writing to it. After logClose it leads to nowhere.
    FILE* file PELMO_GUARDED_BY(lock) = nullptr;
    bool redirected PELMO_GUARDED_BY(lock) = false;  // `stream` came from logSetStream

    NumberedRing ring PELMO_GUARDED_BY(lock) = {.path = nullptr};  // owns the path here; null
                                                                   // while no file is open
    char* header PELMO_GUARDED_BY(lock) = nullptr;                 // owned
    uint32_t limitBytes PELMO_GUARDED_BY(lock) = 0;
    uint64_t knownBytes PELMO_GUARDED_BY(lock) = 0;  // size at opening and what lines added since
    uint32_t linesSinceLookUp PELMO_GUARDED_BY(lock) = 0;
    bool rotating PELMO_GUARDED_BY(lock) = false;  // a header is being written or a rotation runs:
                                                   // neither starts another

    const char* programName PELMO_GUARDED_BY(lock) = "PM";
    bool utcStamp PELMO_GUARDED_BY(lock) = false;
};

constinit LogState state;

// Callers ask errno after they logged what failed.
struct ErrnoGuard {
    ErrnoGuard() = default;
    ~ErrnoGuard() { errno = kept; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

    const int kept = errno;
};

// Those who write to the stream by themselves see each line, and the change of a file, as one step.
struct StreamGuard {
    explicit StreamGuard(FILE* wanted) : stream(wanted) { flockfile(stream); }
    ~StreamGuard() { funlockfile(stream); }
    StreamGuard(const StreamGuard&) = delete;
    StreamGuard& operator=(const StreamGuard&) = delete;

    FILE* const stream;
};

FILE* streamLocked() PELMO_REQUIRES(state.lock) {
    if (state.stream == nullptr) state.stream = stderr;
    return state.stream;
}

// "2024-02-29 23:59:59 pelmoscope: [module][71]: ", cut to fit.
size_t formatPrefixLocked(char* line, size_t sizeBytes, const char* module)
    PELMO_REQUIRES(state.lock) {
    char stamp[kTimeStampBytes];
    timeStampTexts(state.utcStamp ? nullptr : stamp, state.utcStamp ? stamp : nullptr);
    const size_t length = boundedFormat(line, sizeBytes, "%s %s: ", stamp, state.programName);
    if (module == nullptr) return length;
    const auto thread = static_cast<unsigned long long>(Thread_Number());
    return length +
           boundedFormat(line + length, sizeBytes - length, "[%s][%llu]: ", module, thread);
}

// Returns how much was written.
[[gnu::format(printf, 3, 0)]] size_t writePieces(FILE* stream,
                                                 const char* prefix,
                                                 const char* format,
                                                 va_list arguments) {
    const int prefixBytes =
        std::fputs(prefix, stream) >= 0 ? static_cast<int>(std::strlen(prefix)) : 0;
    const int textBytes = std::vfprintf(stream, format, arguments);
    const int breakBytes = std::fputc('\n', stream) != EOF ? 1 : 0;
    return static_cast<size_t>(prefixBytes + (textBytes > 0 ? textBytes : 0) + breakBytes);
}

// One write to the stream for a line of usual length, even where the stream has no buffer.
[[gnu::format(printf, 2, 0)]] void writeLineLocked(const char* module,
                                                   const char* format,
                                                   va_list arguments) PELMO_REQUIRES(state.lock) {
    char line[kLineBytes];
    const size_t prefixBytes = formatPrefixLocked(line, sizeof line, module);
    const size_t roomBytes = sizeof line - prefixBytes;

    va_list again;
    va_copy(again, arguments);
    const int textBytes = std::vsnprintf(line + prefixBytes, roomBytes, format, arguments);
    const StreamGuard guard(streamLocked());
    if (textBytes >= 0 && static_cast<size_t>(textBytes) < roomBytes) {
        const size_t lineBytes = prefixBytes + static_cast<size_t>(textBytes);
        line[lineBytes] = '\n';
        state.knownBytes += std::fwrite(line, 1, lineBytes + 1, guard.stream);
    } else {
        line[prefixBytes] = '\0';
        state.knownBytes += writePieces(guard.stream, line, format, again);
    }
    std::fflush(guard.stream);
    va_end(again);
}

// The header stands behind a flag: the line that writes it is no reason to rotate.
void writeHeaderLocked() PELMO_REQUIRES(state.lock) {
    if (state.header == nullptr) return;
    const bool rotating = state.rotating;
    state.rotating = true;
    logPrint("%s", state.header);
    state.rotating = rotating;
}

bool isFullLocked(bool lookUp) PELMO_REQUIRES(state.lock) {
    if (state.rotating || state.redirected) return false;
    if (state.limitBytes == 0 || state.ring.path == nullptr) return false;
    if (state.knownBytes >= state.limitBytes) return true;
    if (!lookUp && ++state.linesSinceLookUp < kLinesPerLookUp) return false;

    state.linesSinceLookUp = 0;
    const uint64_t sizeBytes = fileSize64(state.ring.path);
    if (sizeBytes == kFileSizeUnknown64) return false;
    // Lines count on from here, so that the next one knows of what others wrote without a look-up.
    state.knownBytes = std::max(state.knownBytes, sizeBytes);
    return sizeBytes >= state.limitBytes;
}

int openForWriting(const char* path, int flags) {
    int descriptor;
    do {
        descriptor = open(path, O_WRONLY | O_APPEND | O_CLOEXEC | flags, 0666);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

// Puts the descriptor, which it takes, under the stream. What a full disk kept in the stream's
// buffer belonged to the file before and is dropped.
bool replaceFileLocked(int descriptor) PELMO_REQUIRES(state.lock) {
    const StreamGuard guard(state.file);
    std::fflush(state.file);
    __fpurge(state.file);
    int replaced;
    do {
        replaced = dup3(descriptor, fileno(state.file), O_CLOEXEC);
    } while (replaced < 0 && (errno == EINTR || errno == EBUSY));
    close(descriptor);
    return replaced >= 0;
}

bool openFileLocked(const char* path) PELMO_REQUIRES(state.lock) {
    const int descriptor = openForWriting(path, O_CREAT);
    if (descriptor < 0) return false;
    if (state.file != nullptr) return replaceFileLocked(descriptor);

    state.file = fdopen(descriptor, "a");
    if (state.file == nullptr) close(descriptor);
    return state.file != nullptr;
}

void closeFileLocked() PELMO_REQUIRES(state.lock) {
    if (state.file == nullptr) return;
    std::free(const_cast<char*>(state.ring.path));
    state.ring.path = nullptr;
    if (state.stream == state.file) state.stream = stderr;
    const int nowhere = openForWriting("/dev/null", 0);
    if (nowhere >= 0) replaceFileLocked(nowhere);
}

// Where the log begins to count. What isn't a regular file can't be full, and a device is nothing
// to be moved aside.
void measureFileLocked() PELMO_REQUIRES(state.lock) {
    struct stat status = {};
    const bool known = fstat(fileno(state.file), &status) == 0;
    if (known && S_ISREG(status.st_mode)) {
        state.knownBytes = static_cast<uint64_t>(status.st_size);
    } else {
        state.limitBytes = 0;
    }
}

void rotateLocked() PELMO_REQUIRES(state.lock) {
    const StreamGuard guard(state.file);  // so that nobody's text comes ahead of the header
    state.rotating = true;
    state.stream = stderr;  // what there is to tell is told there
    state.knownBytes = 0;
    std::fflush(state.file);

    char numberedName[kNumberedNameBytes];
    if (numberedRingMoveAside(state.ring, numberedName) == RotationResult::kRenameFailed) {
        logPrint("failed to rename '%s' to '%s' during log rotation.", state.ring.path,
                 numberedName);
    }
    const int descriptor = openForWriting(state.ring.path, O_CREAT | O_TRUNC);
    if (descriptor >= 0 && replaceFileLocked(descriptor)) {
        state.stream = state.file;
        writeHeaderLocked();
    } else {
        logPrint("failed to open log file '%s' during log rotation.", state.ring.path);
    }
    state.rotating = false;
}

[[gnu::format(printf, 2, 0)]] void logLine(const char* module,
                                           const char* format,
                                           va_list arguments) {
    const ErrnoGuard kept;
    {
        const LockGuard guard(state.lock);
        writeLineLocked(module, format, arguments);
    }
    const LockGuard guard(state.lock);
    if (isFullLocked(false)) rotateLocked();
}

}  // namespace

void logPrint(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logLine(nullptr, format, arguments);
    va_end(arguments);
}

void logPrintModule(const char* module, const char* format, va_list arguments) {
    logLine(module, format, arguments);
}

pelmoStatus logOpen(const char* path, uint32_t limitBytes, int32_t rotations, const char* header) {
    const LockGuard guard(state.lock);
    streamLocked();
    state.knownBytes = 0;
    state.limitBytes = limitBytes;
    state.ring.count = rotations;
    state.ring.next = 1;
    if (state.header == nullptr && header != nullptr) state.header = concat2(header, "");
    if (path == nullptr) return kStatusSuccess;

    closeFileLocked();
    if (!openFileLocked(path)) {
        logPrint("failed to open log file '%s'.", path);
        logClose();
        return kStatusInitFailed;
    }
    state.ring.path = absolutePath(path);
    if (state.ring.path == nullptr) {
        logClose();
        logPrint("failed to resolve log file '%s'.", path);
        return kStatusInitFailed;
    }
    state.stream = state.file;
    state.redirected = false;
    measureFileLocked();
    writeHeaderLocked();
    return kStatusSuccess;
}

void logClose() {
    const LockGuard guard(state.lock);
    closeFileLocked();
    std::free(state.header);
    state.header = nullptr;
    state.stream = nullptr;
    state.redirected = false;
    state.limitBytes = 0;
    state.ring.count = 0;
}

void logSetProgramName(const char* name) {
    const LockGuard guard(state.lock);
    state.programName = name;
}

void logSetStream(FILE* stream) {
    const LockGuard guard(state.lock);
    state.stream = stream;
    state.redirected = stream == nullptr || stream != state.file;
}

FILE* logStreamGet() {
    const LockGuard guard(state.lock);
    return state.stream;
}

void logCheckRotation() {
    const ErrnoGuard kept;
    const LockGuard guard(state.lock);
    if (isFullLocked(true)) rotateLocked();
}

void logSetUtcStamp(bool utc) {
    const LockGuard guard(state.lock);
    state.utcStamp = utc;
}
