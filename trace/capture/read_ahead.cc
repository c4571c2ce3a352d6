#include "trace/capture/read_ahead.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr int kLookMilliseconds = 250;

// Waits until there is something to read, or until the reading was stopped. A regular file is
// always ready. The very signal that asks for the stop may interrupt the wait.
void awaitBytes(const ReadAhead& source) {
    pollfd wait = {.fd = source.descriptor, .events = POLLIN, .revents = 0};
    while (!readAheadIsStopped(source)) {
        const int ready = poll(&wait, 1, kLookMilliseconds);
        if (ready > 0 || (ready < 0 && errno != EINTR)) return;
    }
}

ssize_t readDescriptor(const ReadAhead& source, uint8_t* window) {
    ssize_t got;
    do {
        awaitBytes(source);
        if (readAheadIsStopped(source)) return 0;
        got = read(source.descriptor, window, kReadAheadWindowBytes);
    } while (got < 0 && errno == EINTR);
    return got;
}

// Moves the rest to before the window and fills the window again. Returns what read(2) does.
ssize_t step(ReadAhead& source) {
    uint8_t* const window = source.bytes + kReadAheadMostHeldBytes;
    const size_t restBytes = readAheadHeld(source);
    std::memmove(window - restBytes, source.begin, restBytes);
    source.begin = window - restBytes;
    source.end = window;

    const ssize_t got = source.readBytes != nullptr
                            ? source.readBytes(source.context, window, kReadAheadWindowBytes)
                            : readDescriptor(source, window);
    if (got > 0) source.end += got;
    return got;
}

ssize_t readStream(void* cookie, char* buffer, size_t sizeBytes) {
    ReadAhead& source = *static_cast<ReadAhead*>(cookie);
    if (source.begin == source.end) {
        const ssize_t got = step(source);
        if (got <= 0) return got;
    }
    const size_t taken = std::min(sizeBytes, readAheadHeld(source));
    std::memcpy(buffer, source.begin, taken);
    source.begin += taken;
    return static_cast<ssize_t>(taken);
}

int closeStream(void* cookie) {
    return close(static_cast<ReadAhead*>(cookie)->descriptor);
}

FILE* openStream(ReadAhead& source) {
    const cookie_io_functions_t calls = {
        .read = readStream, .write = nullptr, .seek = nullptr, .close = closeStream};
    return fopencookie(&source, "rb", calls);
}

bool setBack(const ReadAhead& source) {
    return lseek(source.descriptor, -static_cast<off_t>(readAheadHeld(source)), SEEK_CUR) >= 0;
}

}  // namespace

void readAheadBegin(ReadAhead& source, int descriptor) {
    source.descriptor = descriptor;
    source.readBytes = nullptr;
    source.context = nullptr;
    source.ownStopped = false;
    source.stopped = &source.ownStopped;
    source.begin = source.end = source.bytes + kReadAheadMostHeldBytes;
}

void readAheadBeginWith(ReadAhead& source, ReadAheadFunction readBytes, void* context) {
    readAheadBegin(source, -1);
    source.readBytes = readBytes;
    source.context = context;
}

void readAheadStop(ReadAhead& source) {
    if (source.stopped != nullptr) source.stopped->store(true, std::memory_order_relaxed);
}

bool readAheadIsStopped(const ReadAhead& source) {
    return source.stopped != nullptr && source.stopped->load(std::memory_order_relaxed);
}

bool readAheadFill(ReadAhead& source, size_t sizeBytes) {
    while (readAheadHeld(source) < sizeBytes) {
        if (step(source) <= 0) return false;
    }
    return true;
}

bool readAheadDrop(ReadAhead& source, uint64_t sizeBytes) {
    while (sizeBytes > readAheadHeld(source)) {
        sizeBytes -= readAheadHeld(source);
        source.begin = source.end;
        if (step(source) <= 0) return false;
    }
    source.begin += sizeBytes;
    return true;
}

FILE* readAheadShare(ReadAhead& source) {
    FILE* const stream = openStream(source);
    if (stream != nullptr) (void)std::setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

FILE* readAheadHandOver(ReadAhead& source) {
    if (!setBack(source)) return openStream(source);
    FILE* const stream = fdopen(source.descriptor, "rb");
    auto* const buffer = reinterpret_cast<char*>(source.bytes);
    if (stream != nullptr) (void)std::setvbuf(stream, buffer, _IOFBF, kReadAheadWindowBytes);
    return stream;
}
