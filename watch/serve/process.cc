#include "watch/serve/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>

namespace {

constexpr size_t kStatBytes = 1024;

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double clockSecondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Of /proc/self/stat; empty where it can't be read.
void readStat(char (&text)[kStatBytes]) {
    *text = '\0';
    const int descriptor = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return;
    const ssize_t length = read(descriptor, text, sizeof text - 1);
    close(descriptor);
    text[length > 0 ? length : 0] = '\0';
}

// Numbers behind as many words; false where there are none.
bool readNumbers(const char* at, int words, std::span<uint64_t> out) {
    for (; words > 0; --words) {
        at += std::strspn(at, " ");
        at += std::strcspn(at, " ");
    }
    for (uint64_t& number : out) {
        char* end = nullptr;
        number = std::strtoull(at, &end, 10);
        if (end == at) return false;
        at = end;
    }
    return true;
}

// The fields behind the program's name, which may hold anything (proc(5)).
void fillFromStat(ProcessUsage& usage) {
    char text[kStatBytes];
    readStat(text);
    const char* const name = std::strrchr(text, ')');
    constexpr int kAheadOfStart = 19;
    uint64_t numbers[3];
    if (name == nullptr || !readNumbers(name + 1, kAheadOfStart, numbers)) return;
    const auto [startTicks, virtualBytes, residentPages] = numbers;
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    const double bootSeconds = clockSecondsOf(CLOCK_REALTIME) - clockSecondsOf(CLOCK_BOOTTIME);
    usage.startTimeSeconds = bootSeconds + static_cast<double>(startTicks) / ticks;
    usage.virtualBytes = virtualBytes;
    usage.residentBytes = residentPages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// A program that is root no longer may not open its own list of descriptors.
DIR* descriptors = nullptr;

// Without the one that counts.
uint64_t countDescriptors() {
    if (descriptors == nullptr) return 0;
    rewinddir(descriptors);
    uint64_t count = 0;
    while (const dirent* entry = readdir(descriptors)) {
        if (entry->d_name[0] != '.') ++count;
    }
    return count - 1;
}

}  // namespace

void processUsageStart() {
    if (descriptors == nullptr) descriptors = opendir("/proc/self/fd");
}

ProcessUsage processUsage() {
    ProcessUsage usage{};
    rusage times{};
    if (getrusage(RUSAGE_SELF, &times) == 0) {
        usage.cpuSeconds = secondsOf(times.ru_utime) + secondsOf(times.ru_stime);
    }
    fillFromStat(usage);
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) usage.mostDescriptors = limit.rlim_cur;
    usage.openDescriptors = countDescriptors();
    return usage;
}
