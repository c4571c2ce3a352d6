#include "watch/capture/capture_set.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <tuple>

#include "lib/base/log.h"

namespace {

// Interfaces that are captured together hand on their frames with small differences of order. A
// file's reading ends where a frame lies later than this beyond the span.
constexpr int64_t kOrderSeconds = 10;

// Shorter files are read as fast as their last bytes are looked through.
constexpr uint64_t kLeastSkippedBytes = 1 << 20;

// Looking up how far the files were read takes a system call for each.
constexpr uint32_t kFramesPerLook = 4096;

// Earlier than any frame: of a pipe that is pending with its first frame unread.
constexpr int64_t kUnreadSeconds = INT64_MIN;

// One of the files. It is pending until its first frame's time has come, and has a reader then; a
// pipe has its reader, and may have its first frame, from the wait on.
struct File {
    ~File() {
        if (descriptor >= 0) close(descriptor);
    }

    std::string name;
    uint32_t number = 0;  // of its name in CaptureSet::names
    uint64_t frames = 0;  // that were read
    int descriptor = -1;
    bool isRegular = false;
    bool hasFrames = false;
    uint64_t fileBytes = 0;
    std::optional<CaptureClock> clock;  // of a regular file

    OwnedCaptureReader reader;
    // The next one. Without bytes only its time is known.
    CaptureFrame frame = {};
};

using OwnedFile = std::unique_ptr<File>;

}  // namespace

struct CaptureSet {
    std::vector<OwnedFile> pending;  // the last is the next to be read
    std::vector<OwnedFile> active;   // a heap, the file with the earliest frame on top
    CaptureSpan span;
    bool handedOn = false;  // the top's frame was the last result
    size_t files = 0, faults = 0;
    uint32_t snapshotBytes = 0;
    uint32_t framesSinceLook = 0;
    uint64_t endedBytes = 0;  // of the files that were read to their end

    // Constant after the opening: the files' names, the size of the regular files, and whether all
    // files are regular.
    uint64_t fileBytes = 0;
    bool isSized = true;
    std::vector<std::string> names;

    std::atomic<uint64_t> readBytes = 0;
    std::atomic<bool> stopped = false;
};

namespace {

auto timeOf(const File& file) {
    return std::tie(file.frame.seconds, file.frame.nanoseconds);
}

// For a heap with the earliest on top, and files of equal times in the order of their names.
bool comesAfter(const OwnedFile& one, const OwnedFile& other) {
    if (timeOf(*one) != timeOf(*other)) return timeOf(*one) > timeOf(*other);
    return one->name > other->name;
}

void logFault(const std::string& name, const std::string& fault, const char* extent = "") {
    logPrint("unable to read %s'%s': %s.", extent, name.c_str(), fault.c_str());
}

void report(CaptureSet& set, const std::string& name, const std::string& fault) {
    ++set.faults;
    logFault(name, fault);
}

void reportErrno(CaptureSet& set, const std::string& name) {
    report(set, name, std::string("it can't be opened (") + std::strerror(errno) + ")");
}

void add(CaptureSet& set, const std::string& name, int descriptor) {
    auto file = std::make_unique<File>();
    struct stat status = {};
    file->name = name;
    file->number = static_cast<uint32_t>(set.names.size());
    set.names.push_back(name);
    file->descriptor = descriptor;
    file->frame.seconds = kUnreadSeconds;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        file->isRegular = true;
        file->fileBytes = static_cast<uint64_t>(status.st_size);
        set.fileBytes += file->fileBytes;
    } else {
        set.isSized = false;
    }
    set.pending.push_back(std::move(file));
}

// The opening doesn't wait for a pipe's writer, but the reading does.
int openWithoutWait(const char* name) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY;
    const int descriptor = open(name, kFlags | O_NONBLOCK);
    if (descriptor >= 0) (void)fcntl(descriptor, F_SETFL, O_RDONLY);
    return descriptor;
}

void openFile(CaptureSet& set, const std::string& name) {
    ++set.files;
    const int descriptor =
        name == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3) : openWithoutWait(name.c_str());
    if (descriptor < 0) return reportErrno(set, name);
    add(set, name, descriptor);
}

bool isFolder(const std::string& name) {
    struct stat status = {};
    return name != "-" && stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Pipes and sockets in a folder would be waited for, and no capture tool leaves one there.
void openFolder(CaptureSet& set, const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
    if (entries == nullptr) {
        ++set.files;
        return reportErrno(set, folder);
    }
    std::vector<std::string> names;
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string name = folder + (folder.ends_with('/') ? "" : "/") + entry->d_name;
        struct stat status = {};
        const bool isHidden = entry->d_name[0] == '.';
        if (!isHidden && stat(name.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
            names.push_back(name);
        }
    }
    if (names.empty()) {
        ++set.files;
        return report(set, folder, "the folder has no files");
    }
    std::ranges::sort(names);
    for (const std::string& name : names)
        openFile(set, name);
}

// A run may read more files than a shell lets a process open.
void raiseFileLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

bool isBefore(const CaptureFrame& frame, int64_t seconds, uint32_t nanoseconds) {
    return std::tie(frame.seconds, frame.nanoseconds) < std::tie(seconds, nanoseconds);
}

bool isAfter(const CaptureFrame& frame, int64_t seconds, uint32_t nanoseconds) {
    return std::tie(frame.seconds, frame.nanoseconds) > std::tie(seconds, nanoseconds);
}

bool isInSpan(const CaptureSpan& span, const CaptureFrame& frame) {
    return !isBefore(frame, span.fromSeconds, span.fromNanoseconds) &&
           !isAfter(frame, span.toSeconds, span.toNanoseconds);
}

// Logs what is wrong with the file, if anything is. One that ends early may be still written, and
// is no fault.
void note(CaptureSet& set, const File& file, ReadResult result) {
    if (result != ReadResult::kFault && result != ReadResult::kEndsEarly) return;
    if (result == ReadResult::kFault) ++set.faults;
    logFault(file.name, captureReaderFault(*file.reader), file.hasFrames ? "all of " : "");
}

// The file's next frame; false at its end, whatever that was.
bool advance(CaptureSet& set, File& file) {
    const ReadResult result = captureReaderNext(*file.reader, &file.frame);
    note(set, file, result);
    if (result != ReadResult::kFrame) return false;
    file.hasFrames = true;
    file.frame.file = file.number;
    file.frame.number = ++file.frames;
    return true;
}

void noteSnapshotBytes(CaptureSet& set, const File& file) {
    const uint32_t bytes = captureReaderSnapshotBytes(*file.reader);
    if (bytes == 0) return;
    set.snapshotBytes = set.snapshotBytes == 0 ? bytes : std::min(set.snapshotBytes, bytes);
}

bool openReader(CaptureSet& set, File& file) {
    const int descriptor = fcntl(file.descriptor, F_DUPFD_CLOEXEC, 3);
    if (descriptor >= 0) file.reader = captureReaderOpen(descriptor, set.stopped);
    if (file.reader != nullptr) return true;
    report(set, file.name, "descriptors or memory ran out");
    return false;
}

// Reads as far as the first frame. The file is set back and read again when its time comes, so that
// a thousand of them take no more memory than one.
bool probe(CaptureSet& set, File& file) {
    if (!file.isRegular) return true;
    if (!openReader(set, file) || !advance(set, file)) return false;
    noteSnapshotBytes(set, file);
    file.clock = captureReaderClock(*file.reader);
    file.reader = nullptr;
    file.frame.bytes = nullptr;
    file.frames = 0;
    return lseek(file.descriptor, 0, SEEK_SET) == 0;
}

// False where the pipe has nothing to read; one that the stop found still silent isn't such.
bool await(CaptureSet& set, File& file, bool untilFrame) {
    if (file.isRegular) return true;
    if (!openReader(set, file)) return false;
    const ReadResult head = captureReaderBegin(*file.reader);
    note(set, file, head);
    noteSnapshotBytes(set, file);
    if (head != ReadResult::kFrame) return head == ReadResult::kStopped;
    return !untilFrame || advance(set, file) || set.stopped;
}

// Drops the pending files that the check refuses, and sorts the rest.
template <typename Check>
void keepThose(CaptureSet& set, Check check) {
    std::vector<OwnedFile> sound;
    for (OwnedFile& file : set.pending) {
        if (check(*file)) {
            sound.push_back(std::move(file));
        } else {
            set.endedBytes += file->fileBytes;
        }
    }
    set.pending = std::move(sound);
    std::ranges::sort(set.pending, comesAfter);
}

// The difference may be more than the type holds with a sign.
bool isLongBefore(int64_t seconds, int64_t other) {
    const uint64_t difference = static_cast<uint64_t>(other) - static_cast<uint64_t>(seconds);
    return seconds < other && difference > uint64_t{kOrderSeconds};
}

// A file's last frame as its last bytes show it, unless that contradicts its first one.
std::optional<int64_t> lastSeconds(const File& file) {
    std::vector<uint8_t> tail(kCaptureTailBytes);
    const auto tailAt = static_cast<off_t>(file.fileBytes - tail.size());
    const ssize_t got = pread(file.descriptor, tail.data(), tail.size(), tailAt);
    if (got != static_cast<ssize_t>(tail.size())) return {};
    const std::optional<int64_t> last = captureTailSeconds(tail, *file.clock);
    return last && isLongBefore(*last, file.frame.seconds) ? std::nullopt : last;
}

// By its first frame it is, or by its last.
bool isOutside(const CaptureSpan& span, const File& file) {
    if (!file.isRegular) return false;
    if (isLongBefore(span.toSeconds, file.frame.seconds)) return true;
    if (!isLongBefore(file.frame.seconds, span.fromSeconds)) return false;
    if (!file.clock || file.fileBytes < kLeastSkippedBytes) return false;
    const std::optional<int64_t> last = lastSeconds(file);
    return last && isLongBefore(*last, span.fromSeconds);
}

// The file has no further frame that is wanted.
void end(CaptureSet& set, OwnedFile file) {
    set.endedBytes += file->fileBytes;
}

// The file joins those that are read, with its first frame at hand.
void activate(CaptureSet& set, OwnedFile file) {
    if (isOutside(set.span, *file)) return end(set, std::move(file));
    const bool hasReader = file->reader != nullptr || openReader(set, *file);
    const bool hasFrame = hasReader && (file->frame.bytes != nullptr || advance(set, *file));
    if (!hasFrame) return end(set, std::move(file));
    set.active.push_back(std::move(file));
    std::ranges::push_heap(set.active, comesAfter);
}

void activateThoseDue(CaptureSet& set) {
    while (!set.pending.empty() &&
           (set.active.empty() || comesAfter(set.active.front(), set.pending.back()))) {
        OwnedFile file = std::move(set.pending.back());
        set.pending.pop_back();
        activate(set, std::move(file));
    }
}

OwnedFile takeTop(CaptureSet& set) {
    std::ranges::pop_heap(set.active, comesAfter);
    OwnedFile file = std::move(set.active.back());
    set.active.pop_back();
    return file;
}

// The top's frame was handed on: the file takes its next one, and its new place.
void moveOn(CaptureSet& set) {
    set.handedOn = false;
    if (set.active.size() == 1) {
        if (!advance(set, *set.active.front())) end(set, takeTop(set));
        return;
    }
    OwnedFile file = takeTop(set);
    if (!advance(set, *file)) return end(set, std::move(file));
    set.active.push_back(std::move(file));
    std::ranges::push_heap(set.active, comesAfter);
}

}  // namespace

void CaptureSetDelete::operator()(CaptureSet* set) const {
    delete set;
}

OwnedCaptureSet captureSetOpen(const std::vector<std::string>& names) {
    raiseFileLimit();
    OwnedCaptureSet set(new CaptureSet);
    for (const std::string& name : names) {
        if (isFolder(name)) {
            openFolder(*set, name);
        } else {
            openFile(*set, name);
        }
    }
    return set;
}

bool captureSetBegin(CaptureSet& set) {
    keepThose(set, [&](File& file) { return probe(set, file); });
    captureSetLook(set);
    return set.faults < set.files;
}

bool captureSetAwait(CaptureSet& set, bool untilFrames) {
    keepThose(set, [&](File& file) { return await(set, file, untilFrames); });
    return set.faults < set.files;
}

int64_t captureSetFirstSeconds(const CaptureSet& set) {
    if (set.pending.empty() || set.pending.back()->frame.seconds == kUnreadSeconds) return 0;
    return set.pending.back()->frame.seconds;
}

void captureSetLimit(CaptureSet& set, const CaptureSpan& span) {
    set.span = span;
}

ReadResult captureSetNext(CaptureSet& set, CaptureFrame* frame) {
    if (++set.framesSinceLook >= kFramesPerLook) captureSetLook(set);
    for (;;) {
        if (set.handedOn) moveOn(set);
        if (set.stopped) return ReadResult::kStopped;
        activateThoseDue(set);
        if (set.active.empty()) {
            captureSetLook(set);
            return ReadResult::kEnd;
        }
        *frame = set.active.front()->frame;
        if (isLongBefore(set.span.toSeconds, frame->seconds)) {
            end(set, takeTop(set));
            continue;
        }
        set.handedOn = true;
        if (isInSpan(set.span, *frame)) return ReadResult::kFrame;
    }
}

const std::string& captureSetFileName(const CaptureSet& set, uint32_t file) {
    return set.names[file];
}

size_t captureSetFiles(const CaptureSet& set) {
    return set.names.size();
}

bool captureSetHasFault(const CaptureSet& set) {
    return set.faults > 0;
}

void captureSetStop(CaptureSet& set) {
    set.stopped = true;
}

CaptureExtent captureSetExtent(const CaptureSet& set) {
    if (!set.isSized) return {};
    return {set.readBytes, set.fileBytes};
}

void captureSetLook(CaptureSet& set) {
    set.framesSinceLook = 0;
    uint64_t readBytes = set.endedBytes;
    for (const OwnedFile& file : set.active)
        readBytes += captureReaderBytesRead(*file->reader);
    set.readBytes = readBytes;
}

uint32_t captureSetSnapshotBytes(const CaptureSet& set) {
    return set.snapshotBytes;
}
