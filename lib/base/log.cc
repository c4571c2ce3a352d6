#include "lib/base/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "lib/base/annotate.h"
#include "lib/base/lock.h"
#include "lib/base/numbered_ring.h"
#include "lib/base/path.h"
#include "lib/base/text.h"
#include "lib/base/text_sink.h"
#include "lib/base/thread.h"
#include "lib/base/timestamp.h"

namespace {

constexpr size_t kNumberedNameBytes = 512;
constexpr size_t kLineBytes = 1024;  // longer ones take memory

// Text can reach the file without passing here, so its size is looked up now and then, but not on
// each line: a look-up costs as much as a line.
constexpr uint32_t kLinesPerLookUp = 32;

struct LogState {
    Lock lock = PELMO_LOCK_READY(LockRank::kLog);

    FILE* stream PELMO_GUARDED_BY(lock) = nullptr;  // where lines go; null until the first

    // The stream of every file that was ever open, made by the first. Never closed: others may be
    // writing to it. It has no buffer and writes to `fileSink`, which discards all after logClose.
    FILE* file PELMO_GUARDED_BY(lock) = nullptr;

    // Taken after `lock`, or alone by callers that write to the stream directly.
    Lock fileLock = PELMO_LOCK_READY(LockRank::kLogFile);
    TextSink fileSink PELMO_GUARDED_BY(fileLock) = {};

    TextSink errorSink PELMO_GUARDED_BY(lock) = {.descriptor = STDERR_FILENO};
    bool isLossReported PELMO_GUARDED_BY(lock) = false;  // that the file can't be written
    bool hasLoss PELMO_GUARDED_BY(lock) = false;         // stays set

    bool redirected PELMO_GUARDED_BY(lock) = false;  // `stream` came from logSetStream

    NumberedRing ring PELMO_GUARDED_BY(lock) = {.path = nullptr};  // owns the path here; null
                                                                   // while no file is open
    char* header PELMO_GUARDED_BY(lock) = nullptr;                 // owned
    uint32_t limitBytes PELMO_GUARDED_BY(lock) = 0;
    uint64_t knownBytes PELMO_GUARDED_BY(lock) = 0;  // size at opening and what lines added since
    uint32_t linesSinceLookUp PELMO_GUARDED_BY(lock) = 0;
    bool rotating PELMO_GUARDED_BY(lock) = false;  // a header is being written or a rotation runs:
                                                   // neither starts another

    LogHook hook PELMO_GUARDED_BY(lock) = nullptr;
    void* hookClosure PELMO_GUARDED_BY(lock) = nullptr;

    const char* programName PELMO_GUARDED_BY(lock) = "PM";
    bool utcStamp PELMO_GUARDED_BY(lock) = false;
};

constinit LogState state;

constinit std::atomic<bool> socketLines{false};

// Callers read errno after they logged a failure.
struct ErrnoGuard {
    ErrnoGuard() = default;
    ~ErrnoGuard() { errno = kept; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

    const int kept = errno;
};

// Callers that write to a stream of logSetStream directly see each line as one step.
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

// Returns how many bytes were written.
size_t writeTextLocked(const char* text, size_t sizeBytes) PELMO_REQUIRES(state.lock) {
    FILE* const stream = streamLocked();
    if (stream == stderr) return textSinkWrite(&state.errorSink, text, sizeBytes);
    if (stream == state.file) {
        const LockGuard guard(state.fileLock);
        return textSinkWrite(&state.fileSink, text, sizeBytes);
    }
    const StreamGuard guard(stream);
    const size_t written = std::fwrite(text, 1, sizeBytes, stream);
    std::fflush(stream);
    return written;
}

// A line of usual length needs no memory. Without memory for a longer one, the line is cut. Returns
// whether all of it was written.
[[gnu::format(printf, 2, 0)]] bool writeLineLocked(const char* module,
                                                   const char* format,
                                                   va_list arguments) PELMO_REQUIRES(state.lock) {
    char line[kLineBytes];
    const size_t prefixBytes = formatPrefixLocked(line, sizeof line, module);
    const size_t roomBytes = sizeof line - prefixBytes;
    va_list again;
    va_copy(again, arguments);
    const int result = std::vsnprintf(line + prefixBytes, roomBytes, format, arguments);
    size_t textBytes = result > 0 ? static_cast<size_t>(result) : 0;

    char* whole = line;
    std::unique_ptr<char, decltype(&std::free)> longer(nullptr, std::free);
    if (textBytes >= roomBytes) {
        longer.reset(static_cast<char*>(std::malloc(prefixBytes + textBytes + 1)));
        if (longer) {
            whole = static_cast<char*>(std::memcpy(longer.get(), line, prefixBytes));
            (void)std::vsnprintf(whole + prefixBytes, textBytes + 1, format, again);
        } else {
            textBytes = roomBytes - 1;
        }
    }
    va_end(again);
    if (state.hook != nullptr) {
        state.hook(whole + prefixBytes, state.hookClosure);
        return true;
    }
    const size_t lineBytes = prefixBytes + textBytes + 1;
    whole[lineBytes - 1] = '\n';
    const size_t written = writeTextLocked(whole, lineBytes);
    state.knownBytes += written;
    return written == lineBytes;
}

[[gnu::format(printf, 1, 2)]] bool printLocked(const char* format, ...) PELMO_REQUIRES(state.lock) {
    va_list arguments;
    va_start(arguments, format);
    const bool written = writeLineLocked(nullptr, format, arguments);
    va_end(arguments);
    return written;
}

// Called before each line: reports how many were lost before it, if there is room for that now. A
// count that is lost itself isn't counted.
void reportLostLinesLocked() PELMO_REQUIRES(state.lock) {
    const FILE* const stream = streamLocked();
    if (state.rotating || (stream != state.file && stream != stderr)) return;
    const LockGuard guard(state.fileLock);
    TextSink& sink = stream == state.file ? state.fileSink : state.errorSink;
    const uint64_t lostLines = sink.lostLines;
    if (lostLines == 0) return;
    const bool printed = printLocked("%" PRIu64 " log lines were lost.", lostLines);
    sink.lostLines = printed ? 0 : lostLines;
    if (printed) sink.lossError = 0;
}

// Called before each line, for what others wrote, and after it: reports that text was lost, even if
// shorter text has found room since. The next loss is reported once lines have been written again.
void reportLossLocked() PELMO_REQUIRES(state.lock) {
    if (state.stream == stderr && state.errorSink.lossError != 0) state.hasLoss = true;
    if (state.stream != state.file) return;
    const LockGuard guard(state.fileLock);
    TextSink& sink = state.fileSink;
    const int error = sink.lossError;
    if (sink.error == 0 && sink.lostLines == 0) sink.lossError = 0;
    if (error == 0) state.isLossReported = false;
    if (error == 0) return;
    state.hasLoss = true;
    if (std::exchange(state.isLossReported, true)) return;
    state.stream = stderr;
    (void)printLocked("failed to write log file '%s': %s; lines are lost until it can be written.",
                      state.ring.path, std::strerror(error));
    state.stream = state.file;
}

// The flag keeps the header's own line from starting a rotation.
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
    // Later lines are added to this, so that the next one includes what others wrote without a
    // look-up.
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

ssize_t writeToFile(void*, const char* text, size_t sizeBytes) {
    const LockGuard guard(state.fileLock);
    (void)textSinkWrite(&state.fileSink, text, sizeBytes);
    return static_cast<ssize_t>(sizeBytes);
}

// Takes the descriptor, or -1 for none.
void setDescriptorLocked(int descriptor) PELMO_REQUIRES(state.lock) {
    const LockGuard guard(state.fileLock);
    textSinkSet(&state.fileSink, descriptor);
}

bool makeFileStreamLocked() PELMO_REQUIRES(state.lock) {
    if (state.file != nullptr) return true;
    state.file = fopencookie(
        nullptr, "a", {.read = nullptr, .write = writeToFile, .seek = nullptr, .close = nullptr});
    if (state.file != nullptr) std::setvbuf(state.file, nullptr, _IONBF, 0);
    return state.file != nullptr;
}

bool openFileLocked(const char* path) PELMO_REQUIRES(state.lock) {
    if (!makeFileStreamLocked()) return false;
    const int descriptor = openForWriting(path, O_CREAT);
    if (descriptor < 0) return false;
    setDescriptorLocked(descriptor);
    return true;
}

void closeFileLocked() PELMO_REQUIRES(state.lock) {
    if (state.file == nullptr) return;
    std::free(const_cast<char*>(state.ring.path));
    state.ring.path = nullptr;
    if (state.stream == state.file) state.stream = stderr;
    setDescriptorLocked(-1);
}

// A new file begins: none of it is lost, and its bytes are counted from now on. Only a regular file
// can be full; a device must not be moved aside.
void measureFileLocked() PELMO_REQUIRES(state.lock) {
    const LockGuard guard(state.fileLock);
    state.isLossReported = false;
    state.fileSink.lostLines = 0;
    state.fileSink.lossError = 0;
    if (!state.fileSink.isFile) state.limitBytes = 0;
    const uint64_t sizeBytes = fileSize64(state.ring.path);
    if (sizeBytes != kFileSizeUnknown64) state.knownBytes = sizeBytes;
}

void rotateLocked() PELMO_REQUIRES(state.lock) {
    const LockGuard guard(state.fileLock);  // so that no other text comes before the header
    state.rotating = true;
    state.stream = stderr;  // failures are reported there
    state.knownBytes = 0;

    char numberedName[kNumberedNameBytes];
    if (numberedRingMoveAside(state.ring, numberedName) == RotationResult::kRenameFailed) {
        logPrint("failed to rename '%s' to '%s' during log rotation.", state.ring.path,
                 numberedName);
    }
    const int descriptor = openForWriting(state.ring.path, O_CREAT | O_TRUNC);
    if (descriptor >= 0) {
        setDescriptorLocked(descriptor);
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
        reportLossLocked();
        reportLostLinesLocked();
        (void)writeLineLocked(module, format, arguments);
        reportLossLocked();
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

void logSetHook(LogHook hook, void* closure) {
    const LockGuard guard(state.lock);
    state.hook = hook;
    state.hookClosure = closure;
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
    reportLossLocked();
    reportLostLinesLocked();
    reportLossLocked();
    if (isFullLocked(true)) rotateLocked();
}

void logBoundWaits(double seconds) {
    textSinksBoundWaits(seconds);
}

bool logHasLoss() {
    const LockGuard guard(state.lock);
    return state.hasLoss;
}

void logSetUtcStamp(bool utc) {
    const LockGuard guard(state.lock);
    state.utcStamp = utc;
}

void logSetSocketLines(bool on) {
    socketLines.store(on, std::memory_order_relaxed);
}

bool logWantsSocketLines() {
    return socketLines.load(std::memory_order_relaxed);
}
