#include "watch/json/json.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/base/log.h"
#include "lib/base/text_sink.h"
#include "trace/settings.h"
#include "watch/core/totals.h"
#include "watch/json/json_writer.h"

namespace {

struct JsonForm {
    // Of the command line.
    bool rows = false;
    bool sinceStart = false;

    // Of the thread that hands on Snapshots.
    Totals totals;
    JsonBuffer buffer;
    TextSink output;
    uint64_t drainedBytes = 0;  // of the Snapshot under way
    bool failed = false;
};

JsonForm json;

const char* storeRows(const char*) {
    json.rows = true;
    return nullptr;
}

const char* storeSinceStart(const char*) {
    json.sinceStart = true;
    return nullptr;
}

const char* storeSenders(const char*) {
    traceSettings.countSenders = true;
    return nullptr;
}

constexpr FormOption kOptions[] = {
    {{"--rows", nullptr, "each row of each table on a line of its own"}, storeRows},
    {{"--since-start", nullptr, "sums since the start beside those of the interval"},
     storeSinceStart},
    {{"--senders", nullptr, "count and show the senders of each subject"}, storeSenders},
};

// A reader that went away knows it.
void tellFailure(const char* reason) {
    json.failed = true;
    if (json.output.error != EPIPE) logPrint("unable to write a snapshot: %s.", reason);
}

bool drain(std::string_view text) {
    if (textSinkWrite(&json.output, text.data(), text.size()) == text.size()) {
        json.drainedBytes += text.size();
        return true;
    }
    tellFailure(std::strerror(json.output.error));
    return false;
}

uint64_t fileBytes() {
    struct stat status = {};
    if (!json.output.isFile || fstat(json.output.descriptor, &status) != 0) return 0;
    return static_cast<uint64_t>(status.st_size);
}

// What a file has of a Snapshot that isn't whole is taken off again, unless another process has
// added to the file.
void takeBack(uint64_t beginBytes) {
    const bool isOurs = json.output.isFile && fileBytes() == beginBytes + json.drainedBytes;
    if (isOurs && ftruncate(json.output.descriptor, static_cast<off_t>(beginBytes)) != 0) return;
}

bool start() {
    const int descriptor = dup(STDOUT_FILENO);
    if (descriptor < 0) {
        logPrint("unable to use the standard output: %s.", std::strerror(errno));
        return false;
    }
    textSinkSet(&json.output, descriptor);
    json.buffer.drain = drain;
    return true;
}

bool snapshot(SnapHeader& snapshot) {
    const SnapHeader* total = nullptr;
    if (json.sinceStart) {
        totalsAdd(json.totals, snapshot);
        total = totalsSnapshot(json.totals);
        if (total == nullptr) {
            tellFailure("out of memory");
            return false;
        }
    }
    const uint64_t beginBytes = fileBytes();
    json.drainedBytes = 0;
    json.buffer.clear();
    if (json.rows) {
        jsonAppendRows(json.buffer, snapshot, total);
    } else {
        jsonAppendObject(json.buffer, snapshot, total);
        json.buffer.Put('\n');
    }
    if (!json.buffer.failed && drain(json.buffer.text())) return true;
    if (!json.failed) tellFailure("out of memory");
    takeBack(beginBytes);
    return false;
}

bool end(bool) {
    textSinkSet(&json.output, -1);
    totalsFree(json.totals);
    return !json.failed;
}

}  // namespace

const Form kJsonForm = {
    .name = "json",
    .summary = "Snapshots as JSON, a line each",
    .options = kOptions,
    .settle = nullptr,
    .prepare = nullptr,
    .start = start,
    .snapshot = snapshot,
    .end = end,
    .showsProgress = true,
    .staysOpen = false,
};
