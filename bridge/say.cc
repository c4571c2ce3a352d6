#include "bridge/say.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <mutex>
#include <string_view>

#include "programs/steady_time.h"
#include "programs/text.h"

namespace {

constexpr int64_t kMostFaultPause = 60 * kSecond;
constexpr size_t kMostLineBytes = 4096;  // what a pipe that can be written takes in one piece

std::mutex streamLock;
uint64_t missing = 0;

bool isWritable() {
    pollfd stream = {.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    return poll(&stream, 1, 0) == 1 && (stream.revents & POLLOUT) != 0;
}

// Is it time to log this fault again?
bool isDue(const char* what) {
    struct Said {
        int64_t at = 0;
        int64_t pause = 0;
    };
    static std::mutex lock;
    static std::map<std::string, Said, std::less<>> all;
    const std::lock_guard guard(lock);
    const int64_t now = steadyNow();
    Said& said = all[what];
    if (said.pause != 0 && now < said.at + said.pause) return false;
    const bool lasts = said.pause != 0 && now < said.at + 2 * said.pause;
    said = {.at = now, .pause = lasts ? std::min(2 * said.pause, kMostFaultPause) : kSecond};
    return true;
}

}  // namespace

void bridgeSay(const std::string& text) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    char time[kUtcTextBytes];
    std::string line(utcText(now.tv_sec, static_cast<uint32_t>(now.tv_nsec), time));
    line += " pelmobridge: ";
    const std::lock_guard guard(streamLock);
    if (!isWritable()) {
        ++missing;
        return;
    }
    if (missing != 0) line += "(" + std::to_string(missing) + " lines are missing) ";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        line += byte < 0x20 || byte == 0x7F ? '?' : character;
    }
    line.resize(std::min(line.size(), kMostLineBytes - 1));
    line += '\n';
    missing = write(STDERR_FILENO, line.data(), line.size()) < 0 ? missing + 1 : 0;
}

void bridgeSayFault(uint64_t count, const char* what, const std::string& about) {
    if (!isDue(what)) return;
    std::string text = what;
    if (!about.empty()) text += ": " + about;
    if (count > 1) text += " (" + std::to_string(count) + " so far)";
    bridgeSay(text);
}
