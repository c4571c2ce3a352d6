#include "watch/top/kept_log.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/base/log.h"
#include "lib/base/text_sink.h"
#include "watch/core/text.h"

namespace {

constexpr size_t kKeptBytes = 16 << 10;

struct KeptLog {
    // Of the thread that begins and ends.
    FILE* stream = nullptr;  // never closed: others may be writing to it
    bool isOn = false;

    // Guarded by the stream's own lock (flockfile).
    char text[kKeptBytes];
    size_t bytes = 0;
    size_t lostLines = 0;
    char latest[kKeptLineBytes];
    size_t latestBytes = 0;
    void (*wake)() = nullptr;
};

KeptLog kept;

class StreamHeld {
  public:
    StreamHeld() { flockfile(kept.stream); }
    ~StreamHeld() { funlockfile(kept.stream); }
    StreamHeld(const StreamHeld&) = delete;
    StreamHeld& operator=(const StreamHeld&) = delete;
};

// Of the stream: a line of the log.
ssize_t keep(void*, const char* text, size_t sizeBytes) {
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
    const StreamHeld held;
    std::string_view latest(kept.latest, kept.latestBytes);
    kept.latestBytes = 0;
    if (latest.ends_with('\n')) latest.remove_suffix(1);
    return safeText(latest, line, sizeof line);
}

void keptLogEnd() {
    if (!kept.isOn) return;
    kept.isOn = false;
    logSetStream(nullptr);  // nobody is left in the stream
    TextSink sink = {.descriptor = STDERR_FILENO};
    textSinkWrite(&sink, kept.text, kept.bytes);
    if (kept.lostLines != 0) logPrint("%zu further lines aren't kept.", kept.lostLines);
    kept.bytes = kept.lostLines = 0;
}
