#include "trace/run/command_line.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

// Arguments as main has them; settings point at them.
struct Arguments {
    explicit Arguments(const Words& given) : words(given) {
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
    }

    Words words;
    std::vector<char*> pointers;
};

template <typename T>
void tell(std::ostringstream& out, const char* name, const T& value, const T& usual) {
    if (value != usual) out << name << "=" << value << " ";
}

void tell(std::ostringstream& out, const char* name, const char* value) {
    if (value != nullptr) out << name << "=" << value << " ";
}

void tell(std::ostringstream& out, const char* name, const std::vector<const char*>& values) {
    for (const char* value : values) {
        tell(out, name, value);
    }
}

// All that differs from the settings of an empty command line.
std::string toldOf(const TraceSettings& s) {
    const TraceSettings usual;
    std::ostringstream out;
    tell(out, "interface", s.interfaceName);
    tell(out, "src", s.srcAddrs);
    tell(out, "dst", s.dstAddrs);
    tell(out, "port", s.ports);
    if (s.filterText != std::string("udp")) tell(out, "filter", s.filterText);
    tell(out, "read", s.readFile);
    tell(out, "live", s.liveCapture, usual.liveCapture);
    tell(out, "write", s.writeFile);
    tell(out, "interval", s.updateInterval, usual.updateInterval);
    tell(out, "rate", s.displayRate, usual.displayRate);
    tell(out, "stats", s.displayStats, usual.displayStats);
    tell(out, "addrinfo", s.displayAddrInfo, usual.displayAddrInfo);
    tell(out, "mcast", s.displayMcast, usual.displayMcast);
    tell(out, "ptp", s.displayPtp, usual.displayPtp);
    tell(out, "subjects", s.displaySubjects, usual.displaySubjects);
    tell(out, "hostmsgs", s.displayHostMsgs, usual.displayHostMsgs);
    tell(out, "complain", s.complain, usual.complain);
    tell(out, "senders", s.countSenders, usual.countSenders);
    tell(out, "foreground", s.foreground, usual.foreground);
    tell(out, "snmp", s.snmp, usual.snmp);
    tell(out, "log", s.logFile);
    tell(out, "logRotate", s.logRotateKB, usual.logRotateKB);
    tell(out, "logSize", s.logMaxSizeKB, usual.logMaxSizeKB);
    tell(out, "logCount", s.logMaxRotations, usual.logMaxRotations);
    tell(out, "wRotate", s.captureRotateMB, usual.captureRotateMB);
    tell(out, "wSize", s.captureMaxSizeMB, usual.captureMaxSizeMB);
    tell(out, "wCount", s.captureMaxRotations, usual.captureMaxRotations);
    tell(out, "seen", s.rotationOptions, usual.rotationOptions);
    return out.str();
}

TEST(CommandLine, SetsWhatTheOptionsSayAndNothingElse) {
    const struct {
        Words arguments;
        std::string told;
    } cases[] = {
        {{}, ""},
        {{"-i", "eth0"}, "interface=eth0 "},
        {{"-src", "A"}, "src=A filter=udp and (src (A)) "},
        {{"-dst", "A"}, "dst=A filter=udp and (dst (A)) "},
        {{"-port", "1"}, "port=1 filter=udp and (port (1)) "},
        {{"-addr", "A"}, "src=A dst=A filter=udp and (src (A) or dst (A)) "},
        {{"-filter", "tcp"}, "filter=tcp "},
        {{"-u", "5"}, "interval=5 "},
        {{"-r", "in"}, "read=in live=0 "},
        {{"-w", "out"}, "write=out "},
        {{"-rate"}, "rate=1 "},
        {{"-addrinfo"}, "addrinfo=1 senders=1 "},
        {{"-addrinfo", "-no-subjects"}, "addrinfo=1 subjects=0 "},
        {{"-no-mcast"}, "mcast=0 "},
        {{"-ptp"}, "ptp=1 "},
        {{"-no-subjects"}, "subjects=0 "},
        {{"-hostmsgs"}, "hostmsgs=1 "},
        {{"-complain"}, "complain=1 "},
        {{"-logfile", "log"}, "log=log "},
        {{"-log-rotate", "7"}, "logRotate=7 seen=1 "},
        {{"-log-max-size", "7"}, "logSize=7 seen=2 "},
        {{"-log-max-rotations", "7"}, "logCount=7 seen=2 "},
        {{"-w-rotate", "7"}, "wRotate=7 seen=4 "},
        {{"-w-max-size", "7"}, "wSize=7 seen=8 "},
        {{"-w-max-rotations", "7"}, "wCount=7 seen=8 "},
        {{"-foreground"}, "foreground=1 "},
        {{"-no-display", "-addrinfo", "-ptp", "-hostmsgs"},
         "stats=0 addrinfo=1 mcast=0 subjects=0 "},
        {{"-snmp"}, "snmp=1 "},
        {{"-i", "-rate", "-w", "-r"}, "interface=-rate write=-r "},
        {{"-addr", "A", "-src", "B"},
         "src=A src=B dst=A filter=udp and (src (A or B) or dst (A)) "},
        {{"-filter", "tcp", "-port", "1"}, "port=1 filter=tcp "},
        {{"-port", "1", "-filter", "tcp"}, "port=1 filter=tcp "},
        {{"-log-rotate", "1", "-log-max-size", "2", "-w-rotate", "3", "-w-max-rotations", "4"},
         "logRotate=1 logSize=2 wRotate=3 wCount=4 seen=15 "},
    };
    for (const auto& [words, told] : cases) {
        SCOPED_TRACE(told);
        Arguments arguments(words);
        TraceSettings settings;
        EXPECT_TRUE(readArguments(arguments.pointers, settings));
        EXPECT_EQ(toldOf(settings), told);
    }
}

TEST(CommandLine, RefusesWhatItDoesNotKnowAndOptionsWithoutTheirValue) {
    const Words cases[] = {
        {"-x"}, {""}, {"-no-m"}, {"-u=5"}, {"-i"}, {"-u", "5", "5"}, {"-rate", "-w-max-rotations"},
    };
    for (const Words& words : cases) {
        SCOPED_TRACE(words.back());
        Arguments arguments(words);
        TraceSettings settings;
        EXPECT_FALSE(readArguments(arguments.pointers, settings));
    }
}

TEST(CommandLine, ReadsNumbersWithoutACheck) {
    const struct {
        const char* text;
        uint32_t interval;
        int32_t size;
    } cases[] = {
        {"abc", 0, 0},
        {"", 0, 0},
        {"12abc", 12, 12},
        {"-3", 4294967293, -3},
        {"2147483648", 2147483648, 2147483647},
        {"-2147483649", 2147483647, -2147483647 - 1},
        {"4294967296", 4294967295, 2147483647},
        {"99999999999999999999", 4294967295, 2147483647},
    };
    for (const auto& [text, interval, size] : cases) {
        SCOPED_TRACE(text);
        Arguments arguments({"-u", text, "-w-max-size", text});
        TraceSettings settings;
        EXPECT_TRUE(readArguments(arguments.pointers, settings));
        EXPECT_EQ(settings.updateInterval, interval);
        EXPECT_EQ(settings.captureMaxSizeMB, size);
    }
}

TEST(CommandLine, TheProgramsNameIsNoOptionAndMayBeMissing) {
    Arguments arguments({"-x", "-rate"});
    parseArguments(2, arguments.pointers.data());
    EXPECT_EQ(toldOf(traceSettings), "rate=1 ");
    traceSettings = {};
    parseArguments(0, arguments.pointers.data());
    EXPECT_EQ(toldOf(traceSettings), "");
    traceSettings = {};
}

}  // namespace
