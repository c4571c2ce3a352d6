#include "watch/json/json_writer.h"

#include "trace/counts/snapshot_totals.h"
#include "trace/settings.h"
#include "watch/core/fields.h"
#include "watch/core/snapshot_rows.h"
#include "watch/core/text.h"
#include "watch/json/json_parts.h"

namespace {

// The members of one row, of each table.

void writeMulticast(JsonWriter& out,
                    const SnapPort& port,
                    const SnapNet& net,
                    const SnapHost& host) {
    jsonPort(out, "port", port.port);
    jsonAddress(out, "group", net.net);
    jsonAddress(out, "sender", host.host);
    jsonScid(out, host.port);
    jsonFields(out, kMulticastFields, host);
    jsonReal(out, kReliability.name, host.reliability);
}

void writeSenders(JsonWriter& out, const SnapSubject& subject) {
    out.plain("senders");
    out.StartArray();
    for (const SnapSubjectHost& host : sendersOf(subject)) {
        out.StartObject();
        jsonAddress(out, "sender", host.host);
        jsonScid(out, host.port);
        jsonFields(out, kSubjectSenderFields, host);
        out.EndObject();
    }
    out.EndArray();
}

void writeSubject(JsonWriter& out,
                  const SnapPort& port,
                  const SnapNet& net,
                  const SnapSubject& subject) {
    char text[kSafeSubjectBytes];
    jsonPort(out, "port", port.port);
    jsonAddress(out, "group", net.net);
    jsonSafe(out, "subject", subjectSafeText(subject.subject, text));
    jsonFields(out, kSubjectFields, subject);
    if (traceSettings.countSenders) writeSenders(out, subject);
}

// The tables, each as its name and a walk that calls visit(writer of the row's members).
template <typename Visit>
void eachRowOfMulticast(const SnapHeader& snapshot, Visit visit) {
    eachNet(snapshot, [&](const SnapPort& port, const SnapNet& net) {
        for (const SnapHost& host : hostsOf(net)) {
            visit([&](JsonWriter& out) { writeMulticast(out, port, net, host); });
        }
    });
}

template <typename Visit>
void eachRowOfRetransmission(const SnapHeader& snapshot, Visit visit) {
    for (const SnapPort& port : portsOf(snapshot)) {
        for (const SnapRlHost& host : rlHostsOf(port)) {
            visit([&](JsonWriter& out) { jsonRetransmissionRow(out, port, host); });
        }
    }
}

template <typename Visit>
void eachRowOfPointToPoint(const SnapHeader& snapshot, Visit visit) {
    for (const SnapPort& port : portsOf(snapshot)) {
        for (const SnapPtpHost& host : ptpHostsOf(port)) {
            visit([&](JsonWriter& out) { jsonPointToPointRow(out, port, host); });
        }
    }
}

template <typename Visit>
void eachRowOfSubjects(const SnapHeader& snapshot, Visit visit) {
    eachNet(snapshot, [&](const SnapPort& port, const SnapNet& net) {
        for (const SnapSubject& subject : subjectsOf(net)) {
            visit([&](JsonWriter& out) { writeSubject(out, port, net, subject); });
        }
    });
}

// Calls table(name, walk) for each.
template <typename Table>
void eachTable(const SnapHeader& snapshot, Table table) {
    table(kJsonMulticast, [&](auto visit) { eachRowOfMulticast(snapshot, visit); });
    table(kJsonRetransmission, [&](auto visit) { eachRowOfRetransmission(snapshot, visit); });
    table(kJsonPointToPoint, [&](auto visit) { eachRowOfPointToPoint(snapshot, visit); });
    table(kJsonSubjects, [&](auto visit) { eachRowOfSubjects(snapshot, visit); });
}

void writeFaults(JsonWriter& out, const SnapHeader& snapshot) {
    out.plain("faults");
    out.StartObject();
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        const FaultCount& count = snapshot.faults[kind];
        if (count.packets == 0) continue;
        const auto fault = static_cast<Fault>(kind);
        out.plain(faultRow(fault).key);
        out.StartObject();
        jsonFault(out, fault, count);
        out.EndObject();
    }
    out.EndObject();
}

constexpr std::string_view kInterval = "interval";
constexpr std::string_view kSinceStart = "since_start";

void writeHead(JsonWriter& out, const SnapHeader& snapshot, std::string_view scope) {
    jsonTime(out, "time", snapshot.thisTime);
    jsonTime(out, "begin_time", snapshot.prevTime);
    jsonSpan(out, snapshot.span);
    jsonFields(out, kSourceFields, snapshot);
    if (traceSettings.liveCapture) {
        jsonFields(out, kLossFields, snapshot.source);
    } else {
        jsonMember(out, "read_bytes", snapshot.source.readBytes);
        jsonMember(out, "file_bytes", snapshot.source.fileBytes);
    }
    jsonNotRead(out, snapshot.source);
    writeFaults(out, snapshot);
    jsonTotals(out, "totals", snapshotAddUp(snapshot));
    if (scope == kSinceStart) jsonTotals(out, "beyond_rows", snapshot.beyond);
}

void writeMembers(JsonWriter& out, const SnapHeader& snapshot, std::string_view scope) {
    writeHead(out, snapshot, scope);
    eachTable(snapshot, [&out](const char* name, auto walk) {
        out.plain(name);
        out.StartArray();
        walk([&out](auto writeRow) {
            out.StartObject();
            writeRow(out);
            out.EndObject();
        });
        out.EndArray();
    });
}

// One line: an object whose first members are the same in each.
template <typename WriteMembers>
void appendLine(JsonBuffer& buffer,
                JsonWriter& out,
                std::string_view scope,
                const char* table,
                WriteMembers writeRest) {
    out.Reset(buffer);
    out.StartObject();
    jsonPlain(out, "table", table);
    jsonPlain(out, "scope", scope);
    writeRest(out);
    out.EndObject();
    buffer.Put('\n');
}

void appendLines(JsonBuffer& buffer,
                 JsonWriter& out,
                 const SnapHeader& snapshot,
                 std::string_view scope) {
    char text[kJsonTimeBytes];
    const std::string_view time = jsonTimeText(snapshot.thisTime, text);
    appendLine(buffer, out, scope, "snapshot",
               [&](JsonWriter& line) { writeHead(line, snapshot, scope); });
    eachTable(snapshot, [&](const char* table, auto walk) {
        walk([&](auto writeRow) {
            appendLine(buffer, out, scope, table, [&](JsonWriter& line) {
                jsonPlain(line, "time", time);
                writeRow(line);
            });
        });
    });
}

}  // namespace

void jsonAppendObject(JsonBuffer& buffer, const SnapHeader& snapshot, const SnapHeader* total) {
    JsonLevels levels;
    JsonWriter out(buffer, levels);
    out.StartObject();
    writeMembers(out, snapshot, kInterval);
    if (total != nullptr) {
        out.plain(kSinceStart);
        out.StartObject();
        writeMembers(out, *total, kSinceStart);
        out.EndObject();
    }
    out.EndObject();
}

void jsonAppendRows(JsonBuffer& buffer, const SnapHeader& snapshot, const SnapHeader* total) {
    JsonLevels levels;
    JsonWriter out(buffer, levels);
    appendLines(buffer, out, snapshot, kInterval);
    if (total != nullptr) appendLines(buffer, out, *total, kSinceStart);
}
