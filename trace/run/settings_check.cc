#include "trace/run/settings_check.h"

#include <sys/stat.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "lib/base/log.h"
#include "lib/base/path.h"
#include "trace/capture/capture_rotation.h"
#include "trace/capture/capture_session.h"
#include "trace/settings.h"

namespace {

namespace fs = std::filesystem;

// libpcap's time grows with the square of a filter's code, and its stack with the code: 10,000
// addresses overflow it. Lists of so many and text of so few bytes are no matter on any machine.
constexpr size_t kFewValues = 100;
constexpr size_t kShortFilterBytes = 1024;
constexpr unsigned kMostCompileSeconds = 2;

constexpr int kMostLinks = 40;  // as many as the system follows

bool listsAreShort() {
    return traceSettings.srcAddrs.size() <= kFewValues &&
           traceSettings.dstAddrs.size() <= kFewValues && traceSettings.ports.size() <= kFewValues;
}

struct NamedFile {
    const char* option;
    const char* path;  // none: not given
    int32_t rotations = 0;
};

// libpcap's name for the standard streams.
const char* streamOr(const char* path, const char* stream) {
    return path != nullptr && std::strcmp(path, "-") == 0 ? stream : path;
}

// The folder that holds the path's last name, without links. None where it can't be looked up.
std::optional<fs::path> folderOf(const fs::path& path) {
    std::error_code error;
    const fs::path whole = fs::absolute(path, error);
    if (error) return std::nullopt;
    fs::path folder = fs::canonical(whole.parent_path(), error);
    if (error) return std::nullopt;
    return folder;
}

// The path without links, also where its last name doesn't exist yet: a link to such a name is
// followed, as opening the file would. None where the look-up fails: opening the file then fails
// too, and says why.
std::optional<fs::path> resolved(fs::path path) {
    for (int links = 0; links < kMostLinks; ++links) {
        const std::optional<fs::path> folder = folderOf(path);
        if (!folder) return std::nullopt;
        path = *folder / path.filename();

        std::error_code error;
        const fs::path target = fs::read_symlink(path, error);
        if (error == std::errc::invalid_argument) return path;  // no link
        if (error == std::errc::no_such_file_or_directory) return path;
        if (error) return std::nullopt;
        path = *folder / target;
    }
    return std::nullopt;
}

// Does the file's rotation sooner or later take the other's name for a numbered file? Only the name
// counts: a file that has another one is not lost with it.
bool takesTheName(const NamedFile& file, const char* other) {
    const std::optional<fs::path> folder = folderOf(file.path);
    const std::optional<fs::path> otherPath = resolved(other);
    if (!folder || !otherPath) return false;
    const std::string own = *folder / fs::path(file.path).filename();
    const std::string name = *otherPath;
    if (!name.starts_with(own)) return false;

    const char* const digits = name.c_str() + own.size();
    const char* const end = name.c_str() + name.size();
    int32_t number = 0;
    const auto [stop, error] = std::from_chars(digits, end, number);
    return *digits != '0' && stop == end && error == std::errc() && number > 0 &&
           number <= file.rotations;
}

pelmoStatus refusePair(const NamedFile& file, const NamedFile& other) {
    if (file.path == nullptr || other.path == nullptr) return kStatusSuccess;
    if (filesAreOne(file.path, other.path)) {
        logPrint("%s and %s must not be the same file.", file.option, other.option);
        return kStatusInvalidArgument;
    }
    if (!takesTheName(file, other.path)) return kStatusSuccess;
    logPrint("%s must not be a numbered file of %s.", other.option, file.option);
    return kStatusInvalidArgument;
}

// By the path as the rotation uses it. One that can't be had is refused where the file is opened.
bool numberedNamesFit() {
    if (traceSettings.writeFile == nullptr || traceSettings.captureLimitBytes == 0) return true;
    if (traceSettings.captureMaxRotations == 0) return true;
    const std::unique_ptr<char, decltype(&std::free)> path(absolutePath(traceSettings.writeFile),
                                                           std::free);
    if (!path) return true;
    const std::string digits = std::to_string(traceSettings.captureMaxRotations);
    return std::strlen(path.get()) + digits.size() < kCaptureNameBytes;
}

using S = TraceSettings;

constexpr int32_t kDefaultRotations = 10;
constexpr uint32_t kDeprecatedFiles = 10;  // these together have the deprecated size

struct RotationFamily {
    uint32_t preferredBit, deprecatedBit;
    uint32_t unitBytes;
    int32_t leastSize, mostSize;  // in units; 0 is always allowed

    // Where the options were stored, and where the result goes.
    int32_t S::*deprecatedSize;
    int32_t S::*size;
    int32_t S::*rotations;
    const char* S::*target;
    uint32_t S::*limitBytes;

    const char* conflict;
    const char* negativeSize;
    const char* raisedSize;
    const char* loweredSize;
    const char* noTarget;
    const char* negativeCount;
    const char* rotates;  // a format, of the limit and the count
    const char* doesNotRotate;
};

constexpr RotationFamily kLogFamily = {
    .preferredBit = kLogMaxSeen,
    .deprecatedBit = kLogRotateSeen,
    .unitBytes = 1024,
    .leastSize = 100,
    .mostSize = 2097152,
    .deprecatedSize = &S::logRotateKB,
    .size = &S::logMaxSizeKB,
    .rotations = &S::logMaxRotations,
    .target = &S::logFile,
    .limitBytes = &S::logLimitBytes,
    .conflict =
        "log-rotate (deprecated) and log-max-rotations|log-max-size (preferred) are "
        "incompatible. Using preferred options.",
    .negativeSize = "-log-max-size must be a positive value.",
    .raisedSize = "setting trace log size to the minimum allowed (100KB).",
    .loweredSize = "setting trace log size to the maximum allowed (~2GB).",
    .noTarget = "-logfile must be specified to rotate trace log.",
    .negativeCount = "-log-max-rotations must be a positive value.",
    .rotates = "trace log rotates every ~%u bytes, for %u rotations.",
    .doesNotRotate = "trace log does not rotate.",
};

constexpr RotationFamily kCaptureFamily = {
    .preferredBit = kCaptureMaxSeen,
    .deprecatedBit = kCaptureRotateSeen,
    .unitBytes = 1048576,
    .leastSize = 1,
    .mostSize = 2048,
    .deprecatedSize = &S::captureRotateMB,
    .size = &S::captureMaxSizeMB,
    .rotations = &S::captureMaxRotations,
    .target = &S::writeFile,
    .limitBytes = &S::captureLimitBytes,
    .conflict =
        "w-rotate (deprecated) and w-max-rotations|w-max-size (preferred) are "
        "incompatible. Using preferred options.",
    .negativeSize = "-w-max-size must be a positive value.",
    .raisedSize = nullptr,  // any size above 0 is a whole MB
    .loweredSize = "setting capture file size to the maximum allowed (~2GB).",
    .noTarget = "a capture file (-w) must be specified to rotate capture file.",
    .negativeCount = "-w-max-rotations must be a positive value.",
    .rotates = "capture file rotates every ~%u bytes for %u rotations.",
    .doesNotRotate = "capture file does not rotate.",
};

struct Rotation {
    uint32_t limitBytes = 0;
    int32_t count = kDefaultRotations;
};

pelmoStatus refuse(const char* reason) {
    logPrint("%s", reason);
    return kStatusInvalidArgument;
}

// Takes a size that isn't negative.
int32_t correctSize(const RotationFamily& family, int32_t size) {
    if (size == 0) return 0;
    if (size < family.leastSize) {
        logPrint("%s", family.raisedSize);
        return family.leastSize;
    }
    if (size > family.mostSize) {
        logPrint("%s", family.loweredSize);
        return family.mostSize;
    }
    return size;
}

pelmoStatus readPreferred(const RotationFamily& family, Rotation& rotation) {
    if (traceSettings.rotationOptions & family.deprecatedBit) logPrint("%s", family.conflict);
    int32_t& size = traceSettings.*family.size;
    if (size < 0) return refuse(family.negativeSize);

    size = correctSize(family, size);
    rotation.limitBytes = static_cast<uint32_t>(size) * family.unitBytes;
    rotation.count = traceSettings.*family.rotations;
    return kStatusSuccess;
}

// The arithmetic is unsigned and has 32 bits: a negative or too large size wraps around.
void readDeprecated(const RotationFamily& family, Rotation& rotation) {
    const auto size = static_cast<uint32_t>(traceSettings.*family.deprecatedSize);
    rotation.limitBytes = size * family.unitBytes / kDeprecatedFiles;
}

pelmoStatus validateRotation(const RotationFamily& family) {
    const bool preferred = (traceSettings.rotationOptions & family.preferredBit) != 0;
    const bool deprecated = (traceSettings.rotationOptions & family.deprecatedBit) != 0;
    const bool hasTarget = traceSettings.*family.target != nullptr;

    Rotation rotation;
    if (preferred) {
        const pelmoStatus status = readPreferred(family, rotation);
        if (status != kStatusSuccess) return status;
    } else if (deprecated) {
        readDeprecated(family, rotation);
    }

    if (rotation.limitBytes != 0 && !hasTarget) return refuse(family.noTarget);
    if (rotation.count < 0) return refuse(family.negativeCount);
    if (rotation.limitBytes != 0) {
        logPrint(family.rotates, rotation.limitBytes, static_cast<uint32_t>(rotation.count));
    } else if (hasTarget) {
        logPrint("%s", family.doesNotRotate);
    }

    traceSettings.*family.limitBytes = rotation.limitBytes;
    traceSettings.*family.rotations = rotation.count;
    return kStatusSuccess;
}

}  // namespace

// Devices and pipes can't overwrite each other.
bool filesAreOne(const char* path, const char* other) {
    struct stat status;
    struct stat otherStatus;
    if (stat(path, &status) != 0 || stat(other, &otherStatus) != 0) {
        const std::optional<fs::path> name = resolved(path);
        return name && name == resolved(other);
    }
    return S_ISREG(status.st_mode) && status.st_dev == otherStatus.st_dev &&
           status.st_ino == otherStatus.st_ino;
}

pelmoStatus validateFilter() {
    const char* const text = traceSettings.filterText;
    const bool built = text == traceSettings.builtFilter.c_str();
    if ((built && listsAreShort()) || std::strlen(text) < kShortFilterBytes) return kStatusSuccess;
    if (filterCompilesInTime(text, kMostCompileSeconds)) return kStatusSuccess;
    logPrint("%s: too long for libpcap to compile in reasonable time.",
             built ? "the filter of -addr, -src, -dst and -port" : "-filter");
    return kStatusInvalidArgument;
}

pelmoStatus validateFiles() {
    const auto& s = traceSettings;
    if (!numberedNamesFit()) {
        logPrint("-w: the name of its numbered files would be longer than %zu bytes.",
                 kCaptureNameBytes - 1);
        return kStatusInvalidArgument;
    }
    const int32_t logRotations = s.logLimitBytes != 0 ? s.logMaxRotations : 0;
    const int32_t captureRotations = s.captureLimitBytes != 0 ? s.captureMaxRotations : 0;
    const NamedFile files[] = {
        {"-r", streamOr(s.readFile, "/dev/stdin")},
        {"-w", streamOr(s.writeFile, "/dev/stdout"), captureRotations},
        {"-logfile", s.logFile, logRotations},
    };
    for (const NamedFile& file : files) {
        for (const NamedFile& other : files) {
            if (&file == &other) continue;
            const pelmoStatus status = refusePair(file, other);
            if (status != kStatusSuccess) return status;
        }
    }
    return kStatusSuccess;
}

pelmoStatus validateLogRotation() {
    return validateRotation(kLogFamily);
}

pelmoStatus validateCaptureRotation() {
    return validateRotation(kCaptureFamily);
}
