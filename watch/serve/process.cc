#include "watch/serve/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

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

// The fields behind the program's name, which may hold anything (proc(5)).
void fillFromStat(ProcessUsage& usage) {
    char text[kStatBytes];
    readStat(text);
    const char* const name = std::strrchr(text, ')');
    unsigned long long startTicks = 0;
    unsigned long long virtualBytes = 0;
    unsigned long long residentPages = 0;
    if (name == nullptr || std::sscanf(name + 1,
                                       " %*c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s"
                                       " %*s %*s %*s %*s %*s %llu %llu %llu",
                                       &startTicks, &virtualBytes, &residentPages) != 3) {
        return;
    }
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    const double bootSeconds = clockSecondsOf(CLOCK_REALTIME) - clockSecondsOf(CLOCK_BOOTTIME);
    usage.startTimeSeconds = bootSeconds + static_cast<double>(startTicks) / ticks;
    usage.virtualBytes = virtualBytes;
    usage.residentBytes = residentPages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// Without the one that counts.
uint64_t countDescriptors() {
    DIR* const folder = opendir("/proc/self/fd");
    if (folder == nullptr) return 0;
    uint64_t count = 0;
    while (const dirent* entry = readdir(folder)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(folder);
    return count - 1;
}

}  // namespace

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
