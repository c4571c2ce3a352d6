#include "trace/run/command_line.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <span>

#include "trace/capture/capture_session.h"

namespace {

constexpr int kUsageExitStatus = 2;

// How options store their values. A switch is handed a null one.

template <auto kMember>
void setTrue(TraceSettings& settings, const char*) {
    settings.*kMember = true;
}

template <auto kMember>
void setFalse(TraceSettings& settings, const char*) {
    settings.*kMember = false;
}

template <auto kMember>
void setText(TraceSettings& settings, const char* value) {
    settings.*kMember = value;
}

template <auto... kMembers>
void append(TraceSettings& settings, const char* value) {
    ((settings.*kMembers).push_back(value), ...);
}

int64_t readNumber(const char* text, int64_t least, int64_t most) {
    return std::clamp<int64_t>(std::strtoll(text, nullptr, 10), least, most);
}

template <auto kMember>
void setUnsigned(TraceSettings& settings, const char* value) {
    constexpr int64_t kMost = std::numeric_limits<uint32_t>::max();
    settings.*kMember = static_cast<uint32_t>(readNumber(value, -kMost, kMost));
}

template <auto kMember, RotationOption kSeen>
void setRotation(TraceSettings& settings, const char* value) {
    settings.*kMember = static_cast<int32_t>(readNumber(value, INT32_MIN, INT32_MAX));
    settings.rotationOptions |= kSeen;
}

void setReadFile(TraceSettings& settings, const char* value) {
    settings.readFile = value;
    settings.liveCapture = false;
}

struct Option {
    const char* name;
    const char* valueWord;  // null for a switch
    const char* usage;      // null for an option that the usage text leaves out
    void (*store)(TraceSettings& settings, const char* value);
};

using S = TraceSettings;

constexpr auto kStoreAddr = append<&S::srcAddrs, &S::dstAddrs>;
constexpr auto kStoreLogRotate = setRotation<&S::logRotateKB, kLogRotateSeen>;
constexpr auto kStoreLogSize = setRotation<&S::logMaxSizeKB, kLogMaxSeen>;
constexpr auto kStoreLogCount = setRotation<&S::logMaxRotations, kLogMaxSeen>;
constexpr auto kStoreRotate = setRotation<&S::captureRotateMB, kCaptureRotateSeen>;
constexpr auto kStoreSize = setRotation<&S::captureMaxSizeMB, kCaptureMaxSeen>;
constexpr auto kStoreCount = setRotation<&S::captureMaxRotations, kCaptureMaxSeen>;

constexpr const char* kNoMcastUsage = "Do not display mcast packet information";
constexpr const char* kPtpUsage = "Display ptp packet information information";
constexpr const char* kNoSubjectsUsage = "Do not display subject information";
constexpr const char* kLogRotateUsage = "Rotate log file within KB size limit (deprecated)";
constexpr const char* kRotateUsage = "Rotate raw data file within MB size limit (deprecated)";
constexpr const char* kSizeUsage = "Maximum (-w) raw data file MB size limit";

// In the order of the usage text.
constexpr Option kOptions[] = {
    {"-i", "interface", "Network interface name", setText<&S::interfaceName>},
    {"-addr", "addr", "Src or Dst address filter", kStoreAddr},
    {"-src", "addr", "Src address filter", append<&S::srcAddrs>},
    {"-dst", "addr", "Dst address filter", append<&S::dstAddrs>},
    {"-port", "port", "Port filter", append<&S::ports>},
    {"-filter", "filter", "Explicit filter", setText<&S::filterText>},
    {"-u", "interval", "Update interval (seconds)", setUnsigned<&S::updateInterval>},
    {"-r", "file", "Read from raw data file", setReadFile},
    {"-w", "file", "Write to raw data file", setText<&S::writeFile>},
    {"-logfile", "file", "Write log to file", setText<&S::logFile>},
    {"-addrinfo", nullptr, "Display addr information", setTrue<&S::displayAddrInfo>},
    {"-no-mcast", nullptr, kNoMcastUsage, setFalse<&S::displayMcast>},
    {"-ptp", nullptr, kPtpUsage, setTrue<&S::displayPtp>},
    {"-no-subjects", nullptr, kNoSubjectsUsage, setFalse<&S::displaySubjects>},
    {"-hostmsgs", nullptr, "Display host message information", setTrue<&S::displayHostMsgs>},
    {"-rate", nullptr, "Display as rates", setTrue<&S::displayRate>},
    {"-foreground", nullptr, "Run pelmoscope in foreground", setTrue<&S::foreground>},
    {"-log-rotate", "size", kLogRotateUsage, kStoreLogRotate},
    {"-w-rotate", "size", kRotateUsage, kStoreRotate},
    {"-no-display", nullptr, "Do not display statistics", setFalse<&S::displayStats>},
    {"-snmp", nullptr, "Start SNMP agent", setTrue<&S::snmp>},
    {"-log-max-size", "nKB", "Maximum (-logfile) log size", kStoreLogSize},
    {"-log-max-rotations", "n", "(-logfile) log rotations", kStoreLogCount},
    {"-w-max-size", "nMB", kSizeUsage, kStoreSize},
    {"-w-max-rotations", "n", "(-w) raw data file rotations", kStoreCount},
    {"-complain", nullptr, nullptr, setTrue<&S::complain>},
};

const Option* findOption(const char* name) {
    const auto* found = std::ranges::find_if(
        kOptions, [name](const Option& option) { return std::strcmp(option.name, name) == 0; });
    return found != std::end(kOptions) ? found : nullptr;
}

void settleFilter(TraceSettings& settings) {
    if (settings.filterText != nullptr) return;
    settings.builtFilter = buildFilter(settings.srcAddrs, settings.dstAddrs, settings.ports);
    settings.filterText = settings.builtFilter.c_str();
}

// "-no-display" wins over the switches of single tables.
void settleDisplay(TraceSettings& settings) {
    if (!settings.displayStats) {
        settings.displayMcast = settings.displayPtp = false;
        settings.displaySubjects = settings.displayHostMsgs = false;
    }
    settings.countSenders |= settings.displayAddrInfo && settings.displaySubjects;
}

// False for a bad command line.
bool readArguments(std::span<char* const> arguments, TraceSettings& settings) {
    for (size_t at = 0; at < arguments.size(); ++at) {
        const Option* const option = findOption(arguments[at]);
        if (option == nullptr) return false;

        const char* value = nullptr;
        if (option->valueWord != nullptr) {
            if (++at == arguments.size()) return false;
            value = arguments[at];
        }
        option->store(settings, value);
    }
    settleFilter(settings);
    settleDisplay(settings);
    return true;
}

}  // namespace

void parseArguments(int argc, char* const* argv) {
    std::span<char* const> arguments(argv, static_cast<size_t>(argc));
    if (!arguments.empty()) arguments = arguments.subspan(1);  // the program's name may be missing
    if (!readArguments(arguments, traceSettings)) printUsage();
}

void printUsage() {
    std::fprintf(stderr, "usage: %s [options ...]\n\n Available options are:\n", kProgramName);
    for (const Option& option : kOptions) {
        if (option.usage == nullptr) continue;
        const char* const valueWord = option.valueWord != nullptr ? option.valueWord : "";
        std::fprintf(stderr, "   %-22s%-11s%s\n", option.name, valueWord, option.usage);
    }
    std::exit(kUsageExitStatus);
}
