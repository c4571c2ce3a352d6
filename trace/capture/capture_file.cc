#include "trace/capture/capture_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/statistics.h"
#include "trace/settings.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kBufferBytes = 64 << 10;
constexpr size_t kFileHeadBytes = 24;
constexpr double kRetrySeconds = 0.2;  // between two tries: a file system may take long to refuse

// In the machine's byte order, as libpcap writes it.
struct RecordHead {
    int32_t seconds;
    int32_t microseconds;
    uint32_t capturedBytes;
    uint32_t wireBytes;
};
static_assert(sizeof(RecordHead) == 16);

// A capture file is a row of units: the file's head, then the frames, each after its record head.
// The buffer begins with the rest of a unit where the file ends within one: at first that is the
// whole of the file's head, later only what a pipe didn't take of a frame. Whole frames follow.
struct CaptureFile {
    uint8_t head[kFileHeadBytes] = {};

    int descriptor = -1;
    bool regular = false;
    uint64_t fileBytes = 0;

    std::unique_ptr<uint8_t, decltype(&std::free)> buffer{nullptr, std::free};
    size_t capacityBytes = 0;
    size_t usedBytes = 0;
    size_t restBytes = 0;  // what the buffer has of the unit that the file ends within

    bool failing = false;  // the last write failed, and that was logged
    double retryTime = 0;  // steady seconds
    uint64_t lostFrames = 0;
    bool complete = true;
    bool refused = false;  // a new file couldn't be begun: what comes is lost
};

CaptureFile file;

// Only while the buffer holds nothing.
bool makeBuffer(size_t sizeBytes) {
    auto* const block = static_cast<uint8_t*>(std::malloc(sizeBytes));
    if (block == nullptr) return false;
    file.buffer.reset(block);
    file.capacityBytes = sizeBytes;
    return true;
}

void put(const void* bytes, size_t sizeBytes) {
    std::memcpy(file.buffer.get() + file.usedBytes, bytes, sizeBytes);
    file.usedBytes += sizeBytes;
}

size_t frameBytesAt(size_t at) {
    RecordHead head;
    std::memcpy(&head, file.buffer.get() + at, sizeof head);
    return sizeof head + head.capturedBytes;
}

// Where the unit ends that begins at `at`, which is below usedBytes.
size_t unitEnd(size_t at) {
    return at == 0 && file.restBytes != 0 ? file.restBytes : at + frameBytesAt(at);
}

// Every loss comes by here.
void noteLoss(uint64_t frames) {
    file.lostFrames += frames;
    file.complete = false;
}

void logFailing(int error) {
    file.retryTime = clockSteadySeconds() + kRetrySeconds;
    if (std::exchange(file.failing, true)) return;
    logPrint("failed to write save file '%s': %s; frames are lost until it can be written again.",
             traceSettings.writeFile, std::strerror(error));
}

void logWorking() {
    if (!std::exchange(file.failing, false)) return;
    logPrint("save file '%s' can be written again; %" PRIu64 " frames were lost.",
             traceSettings.writeFile, std::exchange(file.lostFrames, 0));
}

// How many of the buffer's bytes the system took; errno says why it didn't take all.
size_t writeBuffer() {
    size_t doneBytes = 0;
    while (doneBytes < file.usedBytes) {
        const ssize_t wrote =
            write(file.descriptor, file.buffer.get() + doneBytes, file.usedBytes - doneBytes);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) break;
        doneBytes += static_cast<size_t>(wrote);
    }
    return doneBytes;
}

bool cutFileBackTo(uint64_t sizeBytes) {
    const auto size = static_cast<off_t>(sizeBytes);
    return file.regular && ftruncate(file.descriptor, size) == 0 &&
           lseek(file.descriptor, size, SEEK_SET) == size;
}

// The file took the first `doneBytes` of the buffer, but not all of it. The piece of a frame that
// it took is cut off again, if that can be, and the buffer keeps what the file doesn't have.
void keepRest(size_t doneBytes) {
    size_t begin = 0;
    size_t end = unitEnd(0);
    while (end <= doneBytes) {
        begin = end;
        end = unitEnd(begin);
    }
    const bool inUnit = doneBytes > begin;
    if (inUnit && cutFileBackTo(file.fileBytes + begin)) doneBytes = begin;
    if (doneBytes > 0) file.restBytes = doneBytes > begin ? end - doneBytes : 0;

    file.fileBytes += doneBytes;
    file.usedBytes -= doneBytes;
    std::memmove(file.buffer.get(), file.buffer.get() + doneBytes, file.usedBytes);
}

void writeOut() {
    if (file.usedBytes == 0) return;
    const size_t doneBytes = writeBuffer();
    if (doneBytes < file.usedBytes) {
        const int error = errno;
        keepRest(doneBytes);
        logFailing(error);
        return;
    }
    file.fileBytes += doneBytes;
    file.usedBytes = 0;
    file.restBytes = 0;
    logWorking();
}

// Room for a unit, by way of the disk if need be. A frame larger than the buffer gets a larger one.
bool makeRoom(size_t sizeBytes) {
    if (sizeBytes <= file.capacityBytes - file.usedBytes) return true;
    if (file.failing && clockSteadySeconds() < file.retryTime) return false;
    writeOut();
    if (sizeBytes <= file.capacityBytes - file.usedBytes) return true;
    if (file.usedBytes != 0) return false;
    if (makeBuffer(sizeBytes)) return true;
    logFailing(ENOMEM);
    return false;
}

// What still waits at the close is lost.
void dropBuffer() {
    if (file.usedBytes == 0) return;
    uint64_t frames = 0;
    for (size_t at = file.restBytes; at < file.usedBytes; at = unitEnd(at))
        ++frames;
    noteLoss(frames);
    file.usedBytes = 0;
    file.restBytes = 0;
}

// libpcap's own head for files of the source; its words where it has none.
bool takeHead(pcap_t* source) {
    uint8_t text[kFileHeadBytes + 1];  // and the NUL that a stream in memory ends with
    FILE* const stream = fmemopen(text, sizeof text, "w");
    if (stream == nullptr) {
        logPrint("pcap_dump_open: %s", std::strerror(errno));
        return false;
    }
    if (pcap_dump_fopen(source, stream) == nullptr) {  // which may have closed the stream
        logPrint("pcap_dump_open: %s", pcap_geterr(source));
        return false;
    }
    std::fclose(stream);
    std::memcpy(file.head, text, sizeof file.head);
    return true;
}

int openPath(const char* path) {
    if (std::strcmp(path, "-") == 0) return fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
}

// The names of open streams: "-", and links of the system such as /dev/stdout.
bool isStreamName(const char* path) {
    if (std::strcmp(path, "-") == 0) return true;
    struct stat status;
    if (lstat(path, &status) != 0 || !S_ISLNK(status.st_mode)) return false;
    std::error_code error;
    const fs::path folder = fs::canonical(fs::absolute(path, error).parent_path(), error);
    return !error && (folder == "/dev" || folder.string().starts_with("/proc/"));
}

bool beginFile(const char* path) {
    file.descriptor = openPath(path);
    if (file.descriptor < 0) {
        logPrint("pcap_dump_open: %s: %s", path, std::strerror(errno));
        return false;
    }
    struct stat status;
    // The standard output may be appended to, and its end lies elsewhere than is known here.
    file.regular =
        !isStreamName(path) && fstat(file.descriptor, &status) == 0 && S_ISREG(status.st_mode);
    file.fileBytes = 0;
    put(file.head, sizeof file.head);
    file.restBytes = sizeof file.head;
    writeOut();
    return true;
}

}  // namespace

bool captureFileOpen(pcap_t* source, const char* path) {
    file = {};
    if (!takeHead(source)) return false;
    if (!makeBuffer(kBufferBytes)) {
        logPrint("pcap_dump_open: %s", std::strerror(ENOMEM));
        return false;
    }
    return beginFile(path);
}

bool captureFileIsOpen() {
    return file.descriptor >= 0;
}

bool captureFileIsRegular() {
    return file.regular;
}

uint64_t captureFileBytes() {
    return file.regular ? file.fileBytes + file.usedBytes : 0;
}

void captureFileSave(const pcap_pkthdr& header, const u_char* bytes) {
    if (!captureFileIsOpen()) {
        if (file.refused) noteLoss(1);
        return;
    }
    const RecordHead head = {static_cast<int32_t>(header.ts.tv_sec),
                             static_cast<int32_t>(header.ts.tv_usec), header.caplen, header.len};
    if (!makeRoom(sizeof head + header.caplen)) {
        noteLoss(1);
        return;
    }
    put(&head, sizeof head);
    put(bytes, header.caplen);
}

void captureFileFlush() {
    if (!captureState.savingFrames) return;
    const LockGuard guard(statsLock);
    if (captureFileIsOpen()) writeOut();
}

bool captureFileReopen(const char* path) {
    captureFileClose();
    file.refused = !beginFile(path);
    if (file.refused) noteLoss(0);
    return !file.refused;
}

void captureFileClose() {
    if (std::exchange(file.refused, false) && file.lostFrames != 0) {
        logPrint("%" PRIu64 " frames were not saved in '%s'.", std::exchange(file.lostFrames, 0),
                 traceSettings.writeFile);
    }
    if (!captureFileIsOpen()) return;
    writeOut();
    dropBuffer();
    if (close(std::exchange(file.descriptor, -1)) == 0 || errno == EINTR) return;
    noteLoss(0);
    logFailing(errno);
}

bool captureFileIsComplete() {
    return file.complete;
}
