#include "watch/json/json.h"

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

constexpr OptionRow kOptions[] = {
    {"--rows", nullptr, "each row of each table on a line of its own", storeRows},
    {"--since-start", nullptr, "sums since the start beside those of the interval",
     storeSinceStart},
    {"--senders", nullptr, "count and show the senders of each subject", storeSenders},
};

bool start() {
    const int descriptor = dup(STDOUT_FILENO);
    if (descriptor < 0) {
        logPrint("unable to use the standard output: %s.", std::strerror(errno));
        return false;
    }
    textSinkSet(&json.output, descriptor);
    return true;
}

// A reader that went away knows it.
void tellFailure(const char* reason) {
    json.failed = true;
    if (json.output.error != EPIPE) logPrint("unable to write a snapshot: %s.", reason);
}

bool writeLines() {
    const std::string_view text = json.buffer.text();
    if (json.buffer.failed) {
        tellFailure("out of memory");
    } else if (textSinkWrite(&json.output, text.data(), text.size()) != text.size()) {
        tellFailure(std::strerror(json.output.error));
    }
    json.buffer.clear();
    return !json.failed;
}

bool snapshot(SnapHeader& snapshot) {
    const SnapHeader* total = nullptr;
    if (json.sinceStart) {
        totalsAdd(json.totals, snapshot);
        total = totalsSnapshot(json.totals);
        if (total == nullptr) json.buffer.failed = true;
    }
    if (json.rows) {
        jsonAppendRows(json.buffer, snapshot, total);
    } else {
        jsonAppendObject(json.buffer, snapshot, total);
        json.buffer.Put('\n');
    }
    return writeLines();
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
