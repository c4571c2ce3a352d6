#include "watch/json/json_source.h"

#include "trace/settings.h"
#include "watch/capture/source.h"
#include "watch/core/watched.h"
#include "watch/json/json_parts.h"

namespace {

void writeNull(JsonWriter& out, std::string_view key) {
    out.plain(key);
    out.Null();
}

void writeNames(JsonWriter& out) {
    if (traceSettings.liveCapture) {
        jsonText(out, "interface", traceSettings.interfaceName);
        return writeNull(out, "files");
    }
    writeNull(out, "interface");
    jsonFiles(out);
}

}  // namespace

void jsonAppendSource(JsonBuffer& buffer, double intervalSeconds, bool isPaced) {
    const WatchedState state = watchedState();
    JsonLevels levels;
    JsonWriter out(buffer, levels);
    out.StartObject();
    jsonSafe(out, "host", watched().host);
    writeNames(out);
    if (sourceTakesAll()) {
        writeNull(out, "filter");
    } else {
        jsonText(out, "filter", traceSettings.filterText);
    }
    jsonTime(out, "since_time", watched().since);
    jsonReal(out, "interval_seconds", intervalSeconds);
    out.plain("is_paced");
    out.Bool(isPaced);
    jsonPlain(out, "state", watchStateKey(state.state));
    jsonTime(out, "state_time", state.since);
    jsonSafe(out, "words", watchedWords(state));
    if (state.reason.empty()) {
        writeNull(out, "reason");
    } else {
        jsonSafe(out, "reason", state.reason);
    }
    out.EndObject();
}
