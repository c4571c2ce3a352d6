// What a redrawing of "pelmowatch top" costs: watch_top [ROWS]. So many subjects, three senders
// each, all active, with new numbers at each interval; a screen of 200 columns and 60 lines.
//
// Prints the median CPU time of a step, in milliseconds: what an interval brings (its rows merged,
// sorted, filtered and drawn) and what a key brings.

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "watch/top/model.h"
#include "watch/top/view.h"

namespace {

constexpr ScreenSize kSize = {200, 60};
constexpr int kRounds = 41;
constexpr uint32_t kSenders = 3;
constexpr uint32_t kGroups = 4;

double cpuMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Numbers that look random and are the same in each run.
struct Numbers {
    uint64_t state = 1;

    uint64_t next() {
        state = state * 6364136223846793005 + 1442695040888963407;
        return state >> 33;
    }
};

struct Bus {
    std::vector<uint8_t> texts;
    std::vector<SnapSubjectHost> senders;
    std::vector<SnapSubject> subjects;
    SnapNet nets[kGroups] = {};
    SnapPort port = {};
    SnapHeader head = {};
    Numbers numbers;
};

void fill(Bus& bus, uint32_t rows) {
    bus.texts.resize(size_t{rows} * 64 + 8);
    bus.senders.resize(size_t{rows} * kSenders);
    bus.subjects.resize(rows);
    for (uint32_t row = 0; row < rows; ++row) {
        char text[64];
        std::snprintf(text, sizeof text, "MARKET.%02u.PRICES.ISSUE%06u", row % 17, row);
        uint8_t* const packed = &bus.texts[size_t{row} * 64];
        if (subjectFromText(packed, 64, text) < 0) std::abort();
        bus.subjects[row] = {packed, 0, 0, kSenders, &bus.senders[size_t{row} * kSenders]};
    }
    for (uint32_t group = 0; group < kGroups; ++group) {
        bus.nets[group].net = hostOrder32(0xefff0001 + group);
        bus.nets[group].subjects = &bus.subjects[rows / kGroups * group];
        bus.nets[group].subjectCount = rows / kGroups;
    }
    bus.port = {.port = hostOrder16(7500),
                .servicePort = hostOrder16(7500),
                .netCount = kGroups,
                .nets = bus.nets,
                .rlHostCount = 0,
                .rlHosts = nullptr,
                .ptpHostCount = 0,
                .ptpHosts = nullptr};
    bus.head.portCount = 1;
    bus.head.ports = &bus.port;
    snapshotSort(&bus.head);
}

void nextInterval(Bus& bus) {
    bus.head.prevTime = bus.head.thisTime;
    bus.head.thisTime.seconds += 1;
    bus.head.span.elapsedNanoseconds = 1'000'000'000;
    for (SnapSubject& subject : bus.subjects) {
        subject.msgs = subject.bytes = 0;
        for (uint32_t sender = 0; sender < kSenders; ++sender) {
            SnapSubjectHost& host = subject.hosts[sender];
            host = {hostOrder32(0x0a000001 + static_cast<uint32_t>(bus.numbers.next() % 200)),
                    hostOrder16(20000), bus.numbers.next() % 1000, bus.numbers.next() % 100000};
            subject.msgs += host.msgs;
            subject.bytes += host.bytes;
        }
    }
}

struct Step {
    const char* words;
    const char* keys;    // ahead of the rounds
    bool takesInterval;  // is an interval part of it
    const char* again;   // keys of each round
};

constexpr Step kSteps[] = {
    {"an interval: merged, sorted by messages, drawn", "", true, ""},
    {"an interval with a filter of text", "/issue0\r", true, ""},
    {"an interval with a filter of a host's address",
     "/\x15"
     "10.0.0.1\r",
     true, ""},
    {"an interval with a pattern", "/\x15MARKET.*.PRICES.>\r", true, ""},
    {"sorted, filtered and drawn alone", "", false, "i"},
    {"sorted by subject and drawn alone", "/\x15\r<", false, "i"},
    {"the cursor down and drawn", "", false, "j"},
};

double measure(TopModel& model, Bus& bus, const Step& step) {
    const size_t room = viewRoom(kSize);
    Screen screen;
    const auto press = [&](const char* keys) {
        for (; *keys != '\0'; ++keys) {
            topPress(model, static_cast<uint8_t>(*keys), room);
        }
    };
    press(step.keys);
    std::vector<double> times;
    for (int round = 0; round < kRounds; ++round) {
        if (step.takesInterval) nextInterval(bus);
        const double begin = cpuMilliseconds();
        if (step.takesInterval) topTake(model, bus.head);
        press(step.again);
        topArrange(model, room);
        viewDraw(model, kSize, screen);
        times.push_back(cpuMilliseconds() - begin);
    }
    std::ranges::sort(times);
    return times[times.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const auto rows = static_cast<uint32_t>(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20000);
    std::setlocale(LC_CTYPE, "C.UTF-8");
    Bus bus;
    fill(bus, rows);
    TopModel model;
    topInit(model);
    nextInterval(bus);
    topTake(model, bus.head);
    topPress(model, '4', viewRoom(kSize));
    for (const Step& step : kSteps) {
        std::printf("%-50s %6.2f ms\n", step.words, measure(model, bus, step));
    }
    return 0;
}
