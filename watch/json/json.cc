#include "watch/json/json.h"

#include <sys/stat.h>
#include <unistd.h>

#include "trace/settings.h"
#include "watch/core/form_output.h"
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
    FormOutput output = {.what = "a snapshot"};
    uint64_t drainedBytes = 0;  // of the Snapshot under way
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

bool drain(std::string_view text) {
    if (!formOutputWrite(json.output, text)) return false;
    json.drainedBytes += text.size();
    return true;
}

uint64_t fileBytes() {
    struct stat status = {};
    const TextSink& sink = json.output.sink;
    if (!sink.isFile || fstat(sink.descriptor, &status) != 0) return 0;
    return static_cast<uint64_t>(status.st_size);
}

// What a file has of a Snapshot that isn't whole is taken off again, unless another process has
// added to the file.
void takeBack(uint64_t beginBytes) {
    const TextSink& sink = json.output.sink;
    const bool isOurs = sink.isFile && fileBytes() == beginBytes + json.drainedBytes;
    if (isOurs && ftruncate(sink.descriptor, static_cast<off_t>(beginBytes)) != 0) return;
}

bool start() {
    json.buffer.drain = drain;
    return formOutputOpen(json.output);
}

bool snapshot(SnapHeader& snapshot) {
    const SnapHeader* total = nullptr;
    if (json.sinceStart) {
        totalsAdd(json.totals, snapshot);
        total = totalsSnapshot(json.totals);
        if (total == nullptr) return formOutputFail(json.output, "out of memory");
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
    takeBack(beginBytes);
    return formOutputFail(json.output, "out of memory");  // unless writing has failed before
}

bool end(bool) {
    formOutputClose(json.output);
    totalsFree(json.totals);
    return !json.output.failed;
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
