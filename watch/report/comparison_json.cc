#include "watch/report/comparison_json.h"

#include <string>

#include "watch/core/text.h"

namespace {

void writeCounts(JsonWriter& out, const ComparedCounts& counts) {
    jsonMember(out, "messages", counts.messages);
    jsonMember(out, "message_bytes", counts.bytes);
    jsonReal(out, "messages_per_second", counts.messagesASecond);
    jsonReal(out, "message_bytes_per_second", counts.bytesASecond);
}

void writeSide(JsonWriter& out, const char* key, const ComparedCounts& counts) {
    out.plain(key);
    if (!counts.isThere) {
        out.Null();
        return;
    }
    out.StartObject();
    writeCounts(out, counts);
    out.EndObject();
}

void writeCapture(JsonWriter& out,
                  const char* key,
                  const ComparedCapture& capture,
                  const char* name) {
    out.plain(key);
    out.StartObject();
    out.plain("files");
    jsonFileName(out, name);
    jsonTime(out, "begin_time", capture.sum->prevTime);
    jsonTime(out, "end_time", capture.sum->thisTime);
    jsonReal(out, "elapsed_seconds", capture.seconds);
    jsonFields(out, kSourceFields, *capture.sum);
    writeCounts(out, capture.all);
    out.EndObject();
}

void writeChanges(JsonWriter& out, const ComparedTable& table) {
    out.plain(table.name);
    out.StartObject();
    for (size_t change = 0; change < kChanges; ++change)
        jsonMember(out, kChangeWords[change], table.changes[change]);
    out.EndObject();
}

}  // namespace

void jsonFileName(JsonWriter& out, const char* name) {
    const std::string_view bytes(name);
    std::string safe(4 * bytes.size() + 1, '\0');
    const std::string_view text = safeText(bytes, safe.data(), safe.size());
    out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void jsonCompared(JsonWriter& out,
                  const Comparison& comparison,
                  const char* beforeName,
                  const char* nowName) {
    jsonReal(out, "factor", comparison.factor);
    out.plain("is_whole");
    out.Bool(comparison.isWhole);
    writeCapture(out, "before", comparison.before, beforeName);
    writeCapture(out, "now", comparison.now, nowName);
    out.plain("changes");
    out.StartObject();
    for (const ComparedTable& table : comparison.tables)
        writeChanges(out, table);
    out.EndObject();
}

void jsonComparedRow(JsonWriter& out, const ComparedRow& row) {
    jsonPlain(out, "change", kChangeWords[static_cast<size_t>(row.change)]);
    if (row.isSender) {
        jsonAddress(out, "sender", row.sender);
        jsonScid(out, row.scid);
    } else {
        jsonPort(out, "port", row.port);
        jsonAddress(out, "group", row.group);
    }
    if (row.subject != nullptr) {
        char text[kSafeSubjectBytes];
        jsonSafe(out, "subject", subjectSafeText(row.subject, text));
    }
    writeSide(out, "before", row.before);
    writeSide(out, "now", row.now);
}
