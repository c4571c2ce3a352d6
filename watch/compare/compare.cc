#include "watch/compare/compare.h"

#include <charconv>
#include <cstring>
#include <new>

#include "lib/base/text_sink.h"
#include "trace/settings.h"
#include "watch/capture/source.h"
#include "watch/core/against.h"
#include "watch/core/form_output.h"
#include "watch/core/totals.h"
#include "watch/report/comparison_json.h"

namespace {

struct CompareForm {
    // Of the command line.
    bool showsAll = false;
    double factor = kUsualFactor;

    Totals before, now;
    FormOutput output = {.what = "the comparison"};
};

CompareForm form;

const char* storeAll(const char* /*none*/) {
    form.showsAll = true;
    return nullptr;
}

const char* storeFactor(const char* value) {
    const char* const end = value + std::strlen(value);
    const auto [rest, error] = std::from_chars(value, end, form.factor);
    const bool isSound = error == std::errc() && rest == end && form.factor > 1;
    return isSound && form.factor < 1e9 ? nullptr : "not a number above 1";
}

constexpr FormOption kOptions[] = {
    kAgainst,
    kAgainstFrom,
    kAgainstTo,
    {{"--factor", "N", "grown or shrunk is what changed by this factor [1.25]"}, storeFactor},
    {{"--all", nullptr, "also what stayed the same"}, storeAll},
};

const char* settle() {
    if (traceSettings.liveCapture) return "compares saved captures: needs -r FILE";
    if (!againstIsAsked()) return "needs --against FILE, or a time by --against-from or -to";
    traceSettings.countSenders = true;
    return againstSettle();
}

bool start() {
    return formOutputOpen(form.output);
}

bool snapshot(SnapHeader& snapshot) {
    totalsAdd(sourceIsAgainst() ? form.before : form.now, snapshot);
    return true;
}

bool drain(std::string_view text) {
    return formOutputWrite(form.output, text);
}

template <typename Write>
void writeLine(JsonBuffer& buffer, const char* table, Write write) {
    JsonLevels levels;
    JsonWriter out(buffer, levels);
    out.StartObject();
    jsonPlain(out, "table", table);
    write(out);
    out.EndObject();
    buffer.Put('\n');
}

void writeLines(JsonBuffer& buffer, const Comparison& comparison) {
    writeLine(buffer, "captures", [&](JsonWriter& out) {
        jsonCompared(out, comparison, againstName(), traceSettings.readFile);
    });
    for (const ComparedTable& table : comparison.tables) {
        for (const ComparedRow& row : table.rows) {
            if (row.change == Change::kSame && !form.showsAll) continue;
            writeLine(buffer, table.name, [&](JsonWriter& out) { jsonComparedRow(out, row); });
        }
    }
}

bool write() {
    const SnapHeader* const before = totalsSnapshot(form.before);
    const SnapHeader* const now = totalsSnapshot(form.now);
    if (before == nullptr || now == nullptr) return formOutputFail(form.output, "out of memory");
    JsonBuffer buffer;
    buffer.drain = drain;
    try {
        writeLines(buffer, compareCaptures(*before, *now, form.factor));
    } catch (const std::bad_alloc&) {
        return formOutputFail(form.output, "out of memory");
    }
    if (buffer.failed) return formOutputFail(form.output, "out of memory");
    return drain(buffer.text());
}

bool end(bool isWhole) {
    const bool isDone = isWhole && write();
    formOutputClose(form.output);
    totalsFree(form.before);
    totalsFree(form.now);
    return isDone;
}

}  // namespace

const Form kCompareForm = {
    .name = "compare",
    .summary = "What came, went, grew and shrank between two captures, as JSON",
    .options = kOptions,
    .settle = settle,
    .prepare = nullptr,
    .start = start,
    .snapshot = snapshot,
    .end = end,
    .showsProgress = true,
    .staysOpen = false,
};
