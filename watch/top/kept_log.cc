#include "watch/top/kept_log.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/base/text_sink.h"
#include "watch/core/text.h"

namespace {

constexpr size_t kKeptBytes = 16 << 10;

struct KeptLog {
    // Of the thread that begins and ends.
    FILE* stream = nullptr;  // never closed: others may be writing to it
    bool isOn = false;

    // Constant from the beginning on.
    void (*wake)() = nullptr;

    // The stream is the log's file for now, and written to with the log's own lock held.
    Lock lock = PELMO_LOCK_READY(LockRank::kLogFile);
    char text[kKeptBytes] PELMO_GUARDED_BY(lock);
    size_t bytes PELMO_GUARDED_BY(lock) = 0;
    size_t lostLines PELMO_GUARDED_BY(lock) = 0;
    char latest[kKeptLineBytes] PELMO_GUARDED_BY(lock);
    size_t latestBytes PELMO_GUARDED_BY(lock) = 0;
};

KeptLog kept;

// Of the stream: a line of the log.
ssize_t keep(void*, const char* text, size_t sizeBytes) {
    const LockGuard guard(kept.lock);
    if (sizeBytes <= kKeptBytes - kept.bytes) {
        std::memcpy(kept.text + kept.bytes, text, sizeBytes);
        kept.bytes += sizeBytes;
    } else {
        ++kept.lostLines;
    }
    const size_t lineBytes = std::min(sizeBytes, kKeptLineBytes);
    std::memcpy(kept.latest, text, lineBytes);
    kept.latestBytes = lineBytes;
    kept.wake();
    return static_cast<ssize_t>(sizeBytes);
}

bool makeStream() {
    if (kept.stream != nullptr) return true;
    cookie_io_functions_t functions = {};
    functions.write = keep;
    kept.stream = fopencookie(nullptr, "w", functions);
    return kept.stream != nullptr;
}

}  // namespace

bool keptLogBegin(void (*wake)()) {
    if (isatty(STDERR_FILENO) == 0) return true;
    kept.wake = wake;
    if (!makeStream() || std::atexit(keptLogEnd) != 0) return false;
    kept.isOn = true;
    logSetStream(kept.stream);
    return true;
}

std::string_view keptLogLatest(char (&line)[kKeptLineBytes]) {
    if (!kept.isOn) return {};
    const LockGuard guard(kept.lock);
    std::string_view latest(kept.latest, kept.latestBytes);
    kept.latestBytes = 0;
    if (latest.ends_with('\n')) latest.remove_suffix(1);
    return safeText(latest, line, sizeof line);
}

void keptLogEnd() {
    if (!kept.isOn) return;
    kept.isOn = false;
    logSetStream(nullptr);
    size_t lostLines = 0;
    {
        const LockGuard guard(kept.lock);
        TextSink sink = {.descriptor = STDERR_FILENO};
        textSinkWrite(&sink, kept.text, kept.bytes);
        lostLines = std::exchange(kept.lostLines, 0);
        kept.bytes = 0;
    }
    if (lostLines != 0) logPrint("%zu further lines weren't kept.", lostLines);
}
