#include "watch/report/report.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "lib/base/log.h"
#include "trace/counts/snapshot_totals.h"
#include "trace/run/settings_check.h"
#include "trace/settings.h"
#include "watch/capture/source.h"
#include "watch/core/against.h"
#include "watch/core/span.h"
#include "watch/core/totals.h"
#include "watch/report/page.h"
#include "watch/report/placement.h"
#include "watch/report/timeline.h"
#include "watch/web/assets.h"

namespace {

constexpr uint32_t kIntervalSeconds = 1;
constexpr mode_t kFileMode = 0666;  // less what the user masks

struct ReportForm {
    // Of the command line.
    const char* path = nullptr;
    bool showsPairs = false;

    // Of the start: the file beside its place, so that a place that can't be written is reported
    // before a long run. Until it is whole it has no name, where the file system knows such files:
    // whatever ends the process, nothing is left.
    std::string besidePath;
    int descriptor = -1;
    bool isNamed = false;

    // Of the thread that hands on Snapshots.
    Totals totals, before;  // `before` of the capture that is compared with
    Timeline timeline;
    bool failed = false;
};

ReportForm report;

const char* storeOutput(const char* value) {
    if (value[0] == 0) return "needs the name of a file";
    report.path = value;
    return nullptr;
}

const char* storeSenders(const char* /*none*/) {
    report.showsPairs = true;
    return nullptr;
}

constexpr FormOption kOptions[] = {
    kAgainst,
    kAgainstFrom,
    kAgainstTo,
    {{"--senders", nullptr, "also which senders each subject has, and which subjects each sender"},
     storeSenders},
    {{"-o,--output", "FILE", "the page to write"}, storeOutput},
};

bool isOneOf(const std::vector<std::string>& files) {
    return std::ranges::any_of(files, [](const std::string& name) {
        return filesAreOne(report.path, name == "-" ? "/dev/stdin" : name.c_str());
    });
}

const char* settle() {
    if (report.path == nullptr) return "needs -o FILE";
    if (traceSettings.liveCapture) return "reads a saved capture: needs -r FILE";
    if (isOneOf(sourceSettings.files) || isOneOf(sourceSettings.against)) {
        return "must not write its page over the capture: -o and -r are the same file";
    }
    traceSettings.countSenders = true;  // whose messages are shown
    return againstSettle();
}

bool fail(const char* what, const char* reason) {
    report.failed = true;
    logPrint("unable to %s '%s': %s.", what, report.path, reason);
    return false;
}

// A directory or a device isn't replaced by a page.
bool isPlace() {
    struct stat status = {};
    return stat(report.path, &status) != 0 || S_ISREG(status.st_mode);
}

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// The way to the file while it has no name.
std::string descriptorPath() {
    return "/proc/self/fd/" + std::to_string(report.descriptor);
}

bool openNameless() {
    const std::string folder = folderOf(report.path);
    report.descriptor = open(folder.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, kFileMode);
    if (report.descriptor < 0) return false;
    if (access(descriptorPath().c_str(), F_OK) == 0) return true;
    close(report.descriptor);
    return false;
}

// With the rights that the program was started with (placement.h).
void removeFile() {
    if (report.isNamed) unlink(report.besidePath.c_str());
}

int placeFile(bool isWhole) {
    if (isWhole) {
        report.isNamed =
            report.isNamed || linkat(AT_FDCWD, descriptorPath().c_str(), AT_FDCWD,
                                     report.besidePath.c_str(), AT_SYMLINK_FOLLOW) == 0;
        if (report.isNamed && rename(report.besidePath.c_str(), report.path) == 0) return 0;
    }
    const int error = errno;
    removeFile();
    return isWhole ? error : 0;
}

bool openFile() {
    if (!isPlace()) return fail("write", "isn't a regular file");
    report.besidePath = std::string(report.path) + "." + std::to_string(getpid()) + ".part";
    report.isNamed = !openNameless();
    if (!report.isNamed) return true;
    report.descriptor =
        open(report.besidePath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
    return report.descriptor >= 0 || fail("write", std::strerror(errno));
}

bool openOutput() {
    if (!openFile()) return false;
    if (placementStart(placeFile)) return true;
    fail("write", std::strerror(errno));
    removeFile();
    return false;
}

bool snapshot(SnapHeader& snapshot) {
    if (sourceIsAgainst()) {
        totalsAdd(report.before, snapshot);
        return true;
    }
    totalsAdd(report.totals, snapshot);
    const int64_t slot = traceSettings.updateInterval * kNanosecondsOfSecond;
    if (timelineAdd(report.timeline, snapshot, snapshotAddUp(snapshot), slot)) return true;
    return fail("make", "out of memory");
}

bool writeAll(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(report.descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return fail("write", std::strerror(errno));
        text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

bool writePage() {
    const SnapHeader* const sum = totalsSnapshot(report.totals);
    const SnapHeader* const before = againstIsAsked() ? totalsSnapshot(report.before) : nullptr;
    if (againstIsAsked() && before == nullptr) return fail("make", "out of memory");
    JsonBuffer data;
    const ReportInput input = {.sum = sum,
                               .timeline = &report.timeline,
                               .intervalSeconds = static_cast<double>(traceSettings.updateInterval),
                               .file = traceSettings.readFile,
                               .filter = traceSettings.filterText,
                               .showsPairs = report.showsPairs,
                               .before = before,
                               .beforeFile = againstName()};
    if (sum == nullptr || !pageAppendData(data, input)) return fail("make", "out of memory");
    const WebReportFrame frame = webReportFrame();
    return writeAll(frame.head) && writeAll(data.text()) && writeAll(frame.tail);
}

// The page has to be on the disk before its name is.
bool moveToPlace() {
    if (fsync(report.descriptor) != 0 && errno != EINVAL && errno != EROFS) {
        return fail("write", std::strerror(errno));
    }
    const int error = placementAsk(true);
    return error == 0 || fail("write", std::strerror(error));
}

bool end(bool isWhole) {
    const bool isDone = !report.failed && isWhole && writePage() && moveToPlace();
    if (!isDone) (void)placementAsk(false);
    close(report.descriptor);
    totalsFree(report.totals);
    totalsFree(report.before);
    timelineFree(report.timeline);
    return isDone;
}

}  // namespace

const Form kReportForm = {
    .name = "report",
    .summary = "A saved capture as one page with charts and tables",
    .options = kOptions,
    .settle = settle,
    .prepare = nullptr,
    .openOutput = openOutput,
    .start = nullptr,
    .snapshot = snapshot,
    .end = end,
    .intervalSeconds = kIntervalSeconds,
    .showsProgress = true,
    .staysOpen = false,
};
