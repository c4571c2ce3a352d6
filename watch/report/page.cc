#include "watch/report/page.h"

#include <algorithm>
#include <new>
#include <span>
#include <string>

#include "lib/base/bytes.h"
#include "trace/counts/snapshot_totals.h"
#include "watch/core/fields.h"
#include "watch/core/options.h"
#include "watch/core/span.h"
#include "watch/core/text.h"
#include "watch/json/json_parts.h"
#include "watch/report/comparison.h"
#include "watch/report/comparison_json.h"
#include "watch/report/largest.h"
#include "watch/report/tables.h"

namespace {

// Of the sums of groups and senders; a sum of hosts has no state.
template <typename Row>
void writeSums(JsonWriter& out, const Row& row) {
    jsonMember(out, "messages", row.messages);
    jsonMember(out, "message_bytes", row.messageBytes);
    jsonFields(out, kMulticastFields, row.sum);
}

void writeText(JsonWriter& out, std::string_view key, const char* text) {
    const std::string_view bytes(text);
    std::string safe(4 * bytes.size() + 1, '\0');
    jsonSafe(out, key, safeText(bytes, safe.data(), safe.size()));
}

// The capture

void writeFiles(JsonWriter& out, const char* file) {
    out.plain("files");
    out.StartArray();
    jsonFileName(out, file);
    out.EndArray();
}

void writeFilter(JsonWriter& out, const char* filter) {
    if (filter != nullptr) return writeText(out, "filter", filter);
    out.plain("filter");
    out.Null();
}

void writeCapture(JsonWriter& out, const ReportInput& input, const ReportTables& tables) {
    const SnapHeader& sum = *input.sum;
    const SnapSource& source = sum.source;
    out.plain("capture");
    out.StartObject();
    writeFiles(out, input.file);
    writeFilter(out, input.filter);
    jsonTime(out, "begin_time", sum.prevTime);
    jsonTime(out, "end_time", sum.thisTime);
    jsonSpan(out, sum.span);
    jsonFields(out, kSourceFields, sum);
    jsonMember(out, "read_bytes", source.readBytes);
    jsonMember(out, "file_bytes", source.fileBytes);
    jsonNotRead(out, source);
    out.plain("is_whole");
    out.Bool(source.fileBytes == 0 || source.readBytes >= source.fileBytes);
    jsonMember(out, "ports", uint64_t{sum.portCount});
    jsonMember(out, "groups", tables.groups.size());
    jsonMember(out, "senders", tables.senders.size());
    jsonMember(out, "subjects", tables.subjects.size());
    out.EndObject();
}

void writeFaults(JsonWriter& out, const SnapHeader& sum) {
    out.plain("faults");
    out.StartObject();
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        if (sum.faults[kind].packets == 0) continue;
        const auto fault = static_cast<Fault>(kind);
        out.plain(faultRow(fault).key);
        out.StartObject();
        jsonFault(out, fault, sum.faults[kind]);
        out.EndObject();
    }
    out.EndObject();
}

// The timeline

template <typename Value>
void writeSeries(JsonWriter& out, const char* name, const Timeline& timeline, Value value) {
    out.plain(name);
    out.StartArray();
    for (const TimelinePoint& point : std::span(timeline.points, timeline.count)) {
        out.number(value(point));
    }
    out.EndArray();
}

template <typename Record, size_t kCount, typename Sum>
void writeAllSeries(JsonWriter& out,
                    const char* table,
                    const Field<Record> (&fields)[kCount],
                    const Timeline& timeline,
                    Sum sum) {
    out.plain(table);
    out.StartObject();
    for (const Field<Record>& field : fields) {
        writeSeries(out, field.name, timeline,
                    [&](const TimelinePoint& point) { return sum(point.totals).*field.value; });
    }
    out.EndObject();
}

// `value` takes a point's number.
template <typename Value>
void writeReals(JsonWriter& out, const char* name, const Timeline& timeline, Value value) {
    out.plain(name);
    out.StartArray();
    for (uint32_t point = 0; point < timeline.count; ++point) {
        out.Double(secondsOf(value(timeline, point)));
    }
    out.EndArray();
}

void writeTimeline(JsonWriter& out, const Timeline& timeline, double intervalSeconds) {
    out.plain("timeline");
    out.StartObject();
    jsonReal(out, "interval_seconds",
             timeline.count > 0 ? secondsOf(timeline.slot) : intervalSeconds);
    writeReals(out, "times", timeline, timelineEnd);
    writeReals(out, "elapsed_seconds", timeline, timelineLength);
    out.plain("series");
    out.StartObject();
    writeAllSeries(out, kJsonMulticast, kMulticastFields, timeline,
                   [](const SnapTotals& totals) { return totals.multicast; });
    writeAllSeries(out, kJsonRetransmission, kRetransmissionFields, timeline,
                   [](const SnapTotals& totals) { return totals.retransmission; });
    writeAllSeries(out, kJsonPointToPoint, kPointToPointFields, timeline,
                   [](const SnapTotals& totals) { return totals.pointToPoint; });
    writeAllSeries(out, kJsonSubjects, kSubjectSenderFields, timeline,
                   [](const SnapTotals& totals) { return totals.subjects; });
    out.plain("faults");
    out.StartObject();
    writeSeries(out, kFaults.name, timeline,
                [](const TimelinePoint& point) { return point.faults; });
    out.EndObject();
    out.EndObject();
    out.EndObject();
}

// The tables. Each is its rows, two measures by which a row may be large, the writer of a row, and
// the writer of the sums.

template <typename Row, typename WriteRow, typename WriteSum>
void writeListed(JsonWriter& out,
                 const char* name,
                 const std::vector<Row>& rows,
                 std::span<const uint32_t> listed,
                 WriteRow writeRow,
                 WriteSum writeSum) {
    out.plain(name);
    out.StartObject();
    jsonMember(out, "row_count", rows.size());
    out.plain("sums");
    out.StartObject();
    writeSum();
    out.EndObject();
    out.plain("rows");
    out.StartArray();
    for (const uint32_t number : listed) {
        out.StartObject();
        writeRow(rows[number]);
        out.EndObject();
    }
    out.EndArray();
    out.EndObject();
}

// Returns the numbers of the rows that are listed.
template <typename Row, typename First, typename Second, typename WriteRow, typename WriteSum>
std::vector<uint32_t> writeTable(JsonWriter& out,
                                 const char* name,
                                 const std::vector<Row>& rows,
                                 First first,
                                 Second second,
                                 WriteRow writeRow,
                                 WriteSum writeSum) {
    std::vector<uint32_t> listed = largestRows(std::span(rows), kLargestRows, first, second);
    writeListed(out, name, rows, listed, writeRow, writeSum);
    return listed;
}

template <typename Row>
void writeSubjectPlace(JsonWriter& out, const Row& row) {
    char text[kSafeSubjectBytes];
    jsonPort(out, "port", row.port->port);
    jsonAddress(out, "group", row.net->net);
    jsonSafe(out, "subject", subjectSafeText(row.subject->subject, text));
}

std::vector<uint32_t> writeSubjects(JsonWriter& out,
                                    const std::vector<ReportSubject>& rows,
                                    const SnapTotals& all) {
    const auto bytes = [](const ReportSubject& row) { return row.subject->bytes; };
    const auto messages = [](const ReportSubject& row) { return row.subject->msgs; };
    const auto writeRow = [&out](const ReportSubject& row) {
        writeSubjectPlace(out, row);
        jsonFields(out, kSubjectFields, *row.subject);
    };
    return writeTable(out, kJsonSubjects, rows, bytes, messages, writeRow,
                      [&] { jsonFields(out, kSubjectSenderFields, all.subjects); });
}

std::vector<uint32_t> writeSenders(JsonWriter& out,
                                   const std::vector<ReportSender>& rows,
                                   const ReportSender& all) {
    const auto bytes = [](const ReportSender& row) { return row.sum.bytes; };
    const auto messages = [](const ReportSender& row) { return row.messages; };
    const auto writeRow = [&out](const ReportSender& row) {
        jsonAddress(out, "sender", row.sum.host);
        jsonScid(out, row.sum.port);
        writeSums(out, row);
    };
    return writeTable(out, "senders", rows, bytes, messages, writeRow,
                      [&] { writeSums(out, all); });
}

void writePairs(JsonWriter& out,
                const ReportTables& tables,
                std::span<const uint32_t> listed,
                const SnapTotals& all) {
    const auto writeRow = [&out](const ReportPair& row) {
        writeSubjectPlace(out, row);
        jsonAddress(out, "sender", row.sender->host);
        jsonScid(out, row.sender->port);
        jsonFields(out, kSubjectSenderFields, *row.sender);
    };
    writeListed(out, "subject_senders", tables.pairs, listed, writeRow,
                [&] { jsonFields(out, kSubjectSenderFields, all.subjects); });
}

void writeGroups(JsonWriter& out, const std::vector<ReportGroup>& rows, const ReportSender& all) {
    const auto bytes = [](const ReportGroup& row) { return row.sum.bytes; };
    const auto messages = [](const ReportGroup& row) { return row.messages; };
    const auto writeRow = [&out](const ReportGroup& row) {
        jsonPort(out, "port", row.port->port);
        jsonAddress(out, "group", row.net->net);
        jsonMember(out, "senders", uint64_t{row.net->hostCount});
        writeSums(out, row);
    };
    (void)writeTable(out, "groups", rows, bytes, messages, writeRow, [&] { writeSums(out, all); });
}

void writeRetransmission(JsonWriter& out,
                         const std::vector<ReportHost>& rows,
                         const SnapTotals& all) {
    const auto packets = [](const ReportHost& row) {
        const RlCounters& counters = row.retransmission->counters;
        return counters.rreqSent + counters.rreqRecv + counters.rrejSent + counters.rrejRecv;
    };
    const auto asked = [](const ReportHost& row) {
        const RlCounters& counters = row.retransmission->counters;
        return counters.rseqSent + counters.rseqRecv;
    };
    (void)writeTable(
        out, kJsonRetransmission, rows, packets, asked,
        [&out](const ReportHost& row) {
            jsonRetransmissionRow(out, *row.port, *row.retransmission);
        },
        [&] { jsonFields(out, kRetransmissionFields, all.retransmission); });
}

void writePointToPoint(JsonWriter& out,
                       const std::vector<ReportHost>& rows,
                       const SnapTotals& all) {
    const auto bytes = [](const ReportHost& row) {
        const PtpCounters& counters = row.pointToPoint->counters;
        return counters.bytesSent + counters.bytesRecv;
    };
    const auto packets = [](const ReportHost& row) {
        const PtpCounters& counters = row.pointToPoint->counters;
        return counters.dataSent + counters.dataRecv;
    };
    (void)writeTable(
        out, kJsonPointToPoint, rows, bytes, packets,
        [&out](const ReportHost& row) { jsonPointToPointRow(out, *row.port, *row.pointToPoint); },
        [&] { jsonFields(out, kPointToPointFields, all.pointToPoint); });
}

void writeTables(JsonWriter& out,
                 const ReportTables& tables,
                 const SnapTotals& all,
                 bool showsPairs) {
    // What senders and groups add up to is the same.
    const ReportSender sums = {
        .sum = all.multicast, .messages = all.subjects.msgs, .messageBytes = all.subjects.bytes};
    out.plain("tables");
    out.StartObject();
    const std::vector<uint32_t> subjects = writeSubjects(out, tables.subjects, all);
    const std::vector<uint32_t> senders = writeSenders(out, tables.senders, sums);
    if (showsPairs) writePairs(out, tables, listedPairs(tables, subjects, senders), all);
    writeGroups(out, tables.groups, sums);
    writeRetransmission(out, tables.retransmission, all);
    writePointToPoint(out, tables.pointToPoint, all);
    out.EndObject();
}

// Of each table the rows whose numbers differ most.
void writeComparison(JsonWriter& out, const ReportInput& input) {
    const Comparison comparison = compareCaptures(*input.before, *input.sum, kUsualFactor);
    out.plain("comparison");
    out.StartObject();
    jsonCompared(out, comparison, input.beforeFile, input.file);
    for (const ComparedTable& table : comparison.tables) {
        const auto listed =
            largestRows(std::span(table.rows), kLargestRows, comparedBytes, comparedMessages);
        out.plain(table.name);
        out.StartArray();
        for (const uint32_t number : listed) {
            out.StartObject();
            jsonComparedRow(out, table.rows[number]);
            out.EndObject();
        }
        out.EndArray();
    }
    out.EndObject();
}

void writeData(JsonWriter& out, const ReportInput& input) {
    const ReportTables tables = reportTables(*input.sum, input.showsPairs);
    const SnapTotals all = snapshotAddUp(*input.sum);
    out.StartObject();
    jsonPlain(out, "program", std::string(kWatchName) + " " + PELMO_TREE_VERSION);
    writeCapture(out, input, tables);
    jsonTotals(out, "totals", all);
    writeFaults(out, *input.sum);
    writeTimeline(out, *input.timeline, input.intervalSeconds);
    writeTables(out, tables, all, input.showsPairs);
    if (input.before != nullptr) writeComparison(out, input);
    out.EndObject();
}

// In JSON a "<" occurs within texts only.
void appendEscaped(JsonBuffer& buffer, std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('<', at), text.size());
        buffer.append(text.substr(at, end - at));
        if (end < text.size()) buffer.append("\\u003c");
        at = end + 1;
    }
}

}  // namespace

bool pageAppendData(JsonBuffer& buffer, const ReportInput& input) {
    JsonBuffer data;
    try {
        JsonLevels levels;
        JsonWriter out(data, levels);
        writeData(out, input);
    } catch (const std::bad_alloc&) {
        return false;
    }
    appendEscaped(buffer, data.text());
    return !data.failed && !buffer.failed;
}
