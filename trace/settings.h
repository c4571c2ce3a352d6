// The settings of a run: filled once from the command line, read everywhere, never changed after
// start-up. Two are changed during start-up: the rotation settings become a limit and a count, and
// "-no-display" clears the display switches.
//
// Ownership: texts are the argument strings themselves, which last as long as the process; only
// `filterText`, when it is built from the lists, and a resolved `writeFile` belong to the settings.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

constexpr const char* kProgramName = "pelmoscope";  // in log lines and the usage text

// Which rotation options were seen.
enum RotationOption : uint32_t {
    kLogRotateSeen = 1,      // deprecated: -log-rotate
    kLogMaxSeen = 2,         // preferred: -log-max-size, -log-max-rotations
    kCaptureRotateSeen = 4,  // deprecated: -w-rotate
    kCaptureMaxSeen = 8,     // preferred: -w-max-size, -w-max-rotations
};

struct TraceSettings {
    // What to capture.
    const char* interfaceName = nullptr;  // null: the default device
    std::vector<const char*> srcAddrs;    // source addresses of the filter, as typed
    std::vector<const char*> dstAddrs;
    std::vector<const char*> ports;
    const char* filterText = nullptr;  // given, or built from the lists
    std::string builtFilter;           // what `filterText` points to when it was built
    const char* readFile = nullptr;
    bool liveCapture = true;
    const char* writeFile = nullptr;
    std::string resolvedWriteFile;  // what `writeFile` points to once it was resolved

    // What to show.
    uint32_t updateInterval = 10;  // seconds
    bool displayRate = false;
    bool displayStats = true;
    bool displayAddrInfo = false;
    bool displayMcast = true;
    bool displayPtp = false;
    bool displaySubjects = true;
    bool displayHostMsgs = false;
    bool complain = false;     // log each fault of a packet
    bool logCutFrames = true;  // log each frame too small for its headers

    // Whether to count the senders of each subject. Output that reads them from Snapshots must set
    // it, as "-addrinfo" does.
    bool countSenders = false;

    // How to run.
    bool foreground = false;
    bool snmp = false;  // accepted without effect

    // Where the log goes, and when it and the capture file rotate.
    const char* logFile = nullptr;
    int32_t logRotateKB = 0;
    int32_t logMaxSizeKB = 0;
    int32_t logMaxRotations = 10;
    int32_t captureRotateMB = 0;
    int32_t captureMaxSizeMB = 0;
    int32_t captureMaxRotations = 10;
    uint32_t rotationOptions = 0;    // RotationOption bits
    uint32_t logLimitBytes = 0;      // 0: never
    uint32_t captureLimitBytes = 0;  // 0: never
};

extern TraceSettings traceSettings;
