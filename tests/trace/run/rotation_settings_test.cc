#include "trace/run/rotation_settings.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/trace_run.h"
#include "trace/run/command_line.h"

namespace {

constexpr uint32_t kMost = 2147483648;
constexpr uint32_t kUnset = 77;  // what a refused family leaves in place

struct Settled {
    pelmoStatus status;
    uint32_t limitBytes;
    int32_t count;
    Lines logged;

    bool operator==(const Settled&) const = default;
};

void PrintTo(const Settled& settled, std::ostream* out) {
    *out << settled.status << " " << settled.limitBytes << " x " << settled.count;
    for (const std::string& line : settled.logged) {
        *out << "\n    " << line;
    }
}

struct Family {
    pelmoStatus (*validate)();
    uint32_t TraceSettings::*limitBytes;
    int32_t TraceSettings::*count;
};

constexpr Family kLog = {validateLogRotation, &TraceSettings::logLimitBytes,
                         &TraceSettings::logMaxRotations};
constexpr Family kCapture = {validateCaptureRotation, &TraceSettings::captureLimitBytes,
                             &TraceSettings::captureMaxRotations};

Settled settle(const Family& family, const std::string& options) {
    std::istringstream text(options);
    std::vector<std::string> words;
    for (std::string word; text >> word;) {
        words.push_back(word);
    }
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }

    TraceRun run;
    traceSettings = {};
    EXPECT_TRUE(readArguments(arguments, traceSettings));
    traceSettings.*family.limitBytes = kUnset;
    const pelmoStatus status = family.validate();
    const Settled settled = {status, traceSettings.*family.limitBytes, traceSettings.*family.count,
                             run.logged()};
    traceSettings = {};
    return settled;
}

const std::string kLogOff = "trace log does not rotate.";
const std::string kLogRaised = "setting trace log size to the minimum allowed (100KB).";
const std::string kLogLowered = "setting trace log size to the maximum allowed (~2GB).";
const std::string kLogConflict =
    "log-rotate (deprecated) and log-max-rotations|log-max-size (preferred) are incompatible. "
    "Using preferred options.";

std::string logRotates(const std::string& limit) {
    return "trace log rotates every ~" + limit + " bytes, for 10 rotations.";
}

const std::string kCaptureOff = "capture file does not rotate.";
const std::string kCaptureLowered = "setting capture file size to the maximum allowed (~2GB).";
std::string captureRotates(const std::string& limit) {
    return "capture file rotates every ~" + limit + " bytes for 10 rotations.";
}

TEST(RotationSettings, TakeEachOptionIntoItsLimits) {
    const struct {
        const Family& family;
        std::string options;
        Settled settled;
    } cases[] = {
        {kLog, "", {0, 0, 10, {}}},
        {kLog, "-log-max-size 99 -logfile x", {0, 102400, 10, {kLogRaised, logRotates("102400")}}},
        {kLog, "-log-max-size 100 -logfile x", {0, 102400, 10, {logRotates("102400")}}},
        {kLog, "-log-max-size 2097152 -logfile x", {0, kMost, 10, {logRotates("2147483648")}}},
        {kLog,
         "-log-max-size 2097153 -logfile x",
         {0, kMost, 10, {kLogLowered, logRotates("2147483648")}}},
        {kLog,
         "-log-max-size 200 -log-max-rotations -1 -logfile x",
         {3, kUnset, -1, {"-log-max-rotations must be a positive value."}}},
        {kLog, "-log-rotate 1 -logfile x", {0, 102, 10, {logRotates("102")}}},
        {kLog, "-log-rotate -1 -logfile x", {0, 429496627, 10, {logRotates("429496627")}}},
        {kLog, "-log-rotate 4194304 -logfile x", {0, 0, 10, {kLogOff}}},
        {kLog,
         "-log-rotate 1000 -log-max-rotations 3 -logfile x",
         {0, 0, 3, {kLogConflict, kLogOff}}},
        {kLog, "-w-max-size 5 -logfile x", {0, 0, 10, {kLogOff}}},
        {kCapture, "", {0, 0, 10, {}}},
        {kCapture, "-w-max-size 2048 -w x", {0, kMost, 10, {captureRotates("2147483648")}}},
        {kCapture,
         "-w-max-size 2049 -w x",
         {0, kMost, 10, {kCaptureLowered, captureRotates("2147483648")}}},
        {kCapture,
         "-w-max-rotations -3",
         {3, kUnset, -3, {"-w-max-rotations must be a positive value."}}},
        {kCapture, "-w-rotate 4097 -w x", {0, 104857, 10, {captureRotates("104857")}}},
        {kCapture, "-w-rotate 4096 -w x", {0, 0, 10, {kCaptureOff}}},
        {kCapture, "-log-max-size 5 -w x", {0, 0, 10, {kCaptureOff}}},
    };
    for (const auto& [family, options, settled] : cases) {
        SCOPED_TRACE(options);
        EXPECT_EQ(settle(family, options), settled);
    }
}

}  // namespace
