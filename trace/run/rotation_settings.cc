#include "trace/run/rotation_settings.h"

#include <cstdint>

#include "lib/base/log.h"
#include "trace/settings.h"

namespace {

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

pelmoStatus validateLogRotation() {
    return validateRotation(kLogFamily);
}

pelmoStatus validateCaptureRotation() {
    return validateRotation(kCaptureFamily);
}
