#include "watch/json/json_writer.h"

#include <rapidjson/writer.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <span>

#include "lib/base/bytes.h"
#include "trace/counts/snapshot_totals.h"
#include "trace/settings.h"
#include "watch/core/fields.h"
#include "watch/core/text.h"

namespace {

// The writer keeps one small record a level of nesting.
struct LevelMemory {
    static constexpr bool kNeedFree = false;
    static constexpr size_t kBytes = 512;

    void* Malloc(size_t sizeBytes) { return sizeBytes <= kBytes ? bytes : nullptr; }
    void* Realloc(void*, size_t, size_t sizeBytes) { return Malloc(sizeBytes); }
    static void Free(void*) {}

    alignas(16) char bytes[kBytes];
};

constexpr size_t kLevels = 8;

using Writer = rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, LevelMemory>;

void writeText(Writer& out, std::string_view text) {
    out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeKey(Writer& out, std::string_view key) {
    out.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

void writeMember(Writer& out, std::string_view key, uint64_t number) {
    writeKey(out, key);
    out.Uint64(number);
}

void writeMember(Writer& out, std::string_view key, std::string_view text) {
    writeKey(out, key);
    writeText(out, text);
}

void writeReal(Writer& out, std::string_view key, double number) {
    writeKey(out, key);
    if (std::isfinite(number)) {
        out.Double(number);
    } else {
        out.Null();
    }
}

template <typename Record, size_t kCount>
void writeFields(Writer& out, const Field<Record> (&fields)[kCount], const Record& record) {
    for (const Field<Record>& field : fields) {
        writeMember(out, field.name, record.*field.value);
    }
}

constexpr uint32_t kNanosecondsPerSecond = 1'000'000'000;

// RFC 3339, in UTC. A packet's stamp may claim a second's worth of nanoseconds and more.
void writeTime(Writer& out, std::string_view key, TimeSpec time) {
    const time_t seconds = time_t{time.seconds} + time.nanoseconds / kNanosecondsPerSecond;
    tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    const int length =
        std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%09uZ", utc.tm_year + 1900,
                      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                      time.nanoseconds % kNanosecondsPerSecond);
    writeMember(out, key, std::string_view(text, static_cast<size_t>(length)));
}

double secondsOf(TimeSpec time) {
    return time.seconds + time.nanoseconds / 1e9;
}

void writeAddress(Writer& out, std::string_view key, uint32_t address) {
    char text[kAddressTextBytes];
    writeMember(out, key, addressText(address, text));
}

void writePort(Writer& out, std::string_view key, uint16_t port) {
    writeMember(out, key, uint64_t{hostOrder16(port)});
}

void writeScid(Writer& out, uint16_t port) {
    writeKey(out, "scid");
    if (port != 0) {
        out.Uint(hostOrder16(port));
    } else {
        out.Null();
    }
}

// The members of one row, of each table.

struct Place {
    const SnapPort& port;
    const SnapNet* net;  // null in tables of a port
};

void writeMulticast(Writer& out, const Place& place, const SnapHost& host) {
    writePort(out, "port", place.port.port);
    writeAddress(out, "group", place.net->net);
    writeAddress(out, "sender", host.host);
    writeScid(out, host.port);
    writeFields(out, kMulticastFields, host);
    writeReal(out, kReliability.name, host.reliability);
}

void writeRetransmission(Writer& out, const Place& place, const SnapRlHost& host) {
    writePort(out, "port", place.port.port);
    writePort(out, "service_port", place.port.servicePort);
    writeAddress(out, "host", host.host);
    writeScid(out, host.port);
    writeFields(out, kRetransmissionFields, host.counters);
}

void writePointToPoint(Writer& out, const Place& place, const SnapPtpHost& host) {
    writePort(out, "port", place.port.port);
    writeAddress(out, "host", host.host);
    writeScid(out, host.port);
    writeFields(out, kPointToPointFields, host.counters);
}

void writeSenders(Writer& out, const SnapSubject& subject) {
    writeKey(out, "senders");
    out.StartArray();
    for (const SnapSubjectHost& host : std::span(subject.hosts, subject.hostCount)) {
        out.StartObject();
        writeAddress(out, "sender", host.host);
        writeScid(out, host.port);
        writeFields(out, kSubjectSenderFields, host);
        out.EndObject();
    }
    out.EndArray();
}

void writeSubject(Writer& out, const Place& place, const SnapSubject& subject) {
    char text[kSafeSubjectBytes];
    writePort(out, "port", place.port.port);
    writeAddress(out, "group", place.net->net);
    writeMember(out, "subject", subjectSafeText(subject.subject, text));
    writeFields(out, kSubjectFields, subject);
    if (traceSettings.countSenders) writeSenders(out, subject);
}

template <typename Visit>
void eachPort(const SnapHeader& snapshot, Visit visit) {
    for (const SnapPort& port : std::span(snapshot.ports, snapshot.portCount)) {
        visit(port);
    }
}

template <typename Visit>
void eachNet(const SnapHeader& snapshot, Visit visit) {
    eachPort(snapshot, [&](const SnapPort& port) {
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            visit(Place{port, &net});
        }
    });
}

// The tables, each as its name and a walk that calls visit(writer of the row's members).
template <typename Visit>
void eachRowOfMulticast(const SnapHeader& snapshot, Visit visit) {
    eachNet(snapshot, [&](const Place& place) {
        for (const SnapHost& host : std::span(place.net->hosts, place.net->hostCount)) {
            visit([&](Writer& out) { writeMulticast(out, place, host); });
        }
    });
}

template <typename Visit>
void eachRowOfRetransmission(const SnapHeader& snapshot, Visit visit) {
    eachPort(snapshot, [&](const SnapPort& port) {
        for (const SnapRlHost& host : std::span(port.rlHosts, port.rlHostCount)) {
            visit([&](Writer& out) { writeRetransmission(out, {port, nullptr}, host); });
        }
    });
}

template <typename Visit>
void eachRowOfPointToPoint(const SnapHeader& snapshot, Visit visit) {
    eachPort(snapshot, [&](const SnapPort& port) {
        for (const SnapPtpHost& host : std::span(port.ptpHosts, port.ptpHostCount)) {
            visit([&](Writer& out) { writePointToPoint(out, {port, nullptr}, host); });
        }
    });
}

template <typename Visit>
void eachRowOfSubjects(const SnapHeader& snapshot, Visit visit) {
    eachNet(snapshot, [&](const Place& place) {
        for (const SnapSubject& subject : std::span(place.net->subjects, place.net->subjectCount)) {
            visit([&](Writer& out) { writeSubject(out, place, subject); });
        }
    });
}

constexpr const char* kMulticast = "multicast";
constexpr const char* kRetransmission = "retransmission";
constexpr const char* kPointToPoint = "point_to_point";
constexpr const char* kSubjects = "subjects";

// Calls table(name, walk) for each.
template <typename Table>
void eachTable(const SnapHeader& snapshot, Table table) {
    table(kMulticast, [&](auto visit) { eachRowOfMulticast(snapshot, visit); });
    table(kRetransmission, [&](auto visit) { eachRowOfRetransmission(snapshot, visit); });
    table(kPointToPoint, [&](auto visit) { eachRowOfPointToPoint(snapshot, visit); });
    table(kSubjects, [&](auto visit) { eachRowOfSubjects(snapshot, visit); });
}

void writeFaults(Writer& out, const SnapHeader& snapshot) {
    writeKey(out, "faults");
    out.StartObject();
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        const FaultCount& count = snapshot.faults[kind];
        if (count.packets == 0) continue;
        writeKey(out, faultRow(static_cast<Fault>(kind)).key);
        out.StartObject();
        writeMember(out, kFaults.name, count.packets);
        writeTime(out, "first_time", count.first);
        writeTime(out, "last_time", count.last);
        out.EndObject();
    }
    out.EndObject();
}

void writeTotals(Writer& out, const SnapHeader& snapshot) {
    const SnapTotals totals = snapshotAddUp(snapshot);
    SnapSubject subjects{};
    subjects.msgs = totals.subjects.msgs;
    subjects.bytes = totals.subjects.bytes;
    const auto writeTable = [&out](const char* name, const auto& fields, const auto& record) {
        writeKey(out, name);
        out.StartObject();
        writeFields(out, fields, record);
        out.EndObject();
    };
    writeKey(out, "totals");
    out.StartObject();
    writeTable(kMulticast, kMulticastFields, totals.multicast);
    writeTable(kRetransmission, kRetransmissionFields, totals.retransmission);
    writeTable(kPointToPoint, kPointToPointFields, totals.pointToPoint);
    writeTable(kSubjects, kSubjectFields, subjects);
    out.EndObject();
}

void writeHead(Writer& out, const SnapHeader& snapshot) {
    writeTime(out, "time", snapshot.thisTime);
    writeTime(out, "begin_time", snapshot.prevTime);
    writeReal(out, "elapsed_seconds", secondsOf(snapshot.thisTime) - secondsOf(snapshot.prevTime));
    writeFields(out, kSourceFields, snapshot);
    if (traceSettings.liveCapture) {
        writeFields(out, kLossFields, snapshot.source);
    } else {
        writeMember(out, "read_bytes", snapshot.source.readBytes);
        writeMember(out, "file_bytes", snapshot.source.fileBytes);
    }
    writeFaults(out, snapshot);
    writeTotals(out, snapshot);
}

void writeMembers(Writer& out, const SnapHeader& snapshot) {
    writeHead(out, snapshot);
    eachTable(snapshot, [&out](const char* name, auto walk) {
        writeKey(out, name);
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
void appendLine(
    JsonBuffer& buffer, Writer& out, const char* scope, const char* table, WriteMembers writeRest) {
    out.Reset(buffer);
    out.StartObject();
    writeMember(out, "table", std::string_view(table));
    writeMember(out, "scope", std::string_view(scope));
    writeRest(out);
    out.EndObject();
    buffer.Put('\n');
}

void appendLines(JsonBuffer& buffer, Writer& out, const SnapHeader& snapshot, const char* scope) {
    appendLine(buffer, out, scope, "snapshot",
               [&snapshot](Writer& line) { writeHead(line, snapshot); });
    eachTable(snapshot, [&](const char* table, auto walk) {
        walk([&](auto writeRow) {
            appendLine(buffer, out, scope, table, [&](Writer& line) {
                writeTime(line, "time", snapshot.thisTime);
                writeRow(line);
            });
        });
    });
}

}  // namespace

void jsonAppendObject(JsonBuffer& buffer, const SnapHeader& snapshot, const SnapHeader* total) {
    LevelMemory levels;
    Writer out(buffer, &levels, kLevels);
    out.StartObject();
    writeMembers(out, snapshot);
    if (total != nullptr) {
        writeKey(out, "since_start");
        out.StartObject();
        writeMembers(out, *total);
        out.EndObject();
    }
    out.EndObject();
}

void jsonAppendRows(JsonBuffer& buffer, const SnapHeader& snapshot, const SnapHeader* total) {
    LevelMemory levels;
    Writer out(buffer, &levels, kLevels);
    appendLines(buffer, out, snapshot, "interval");
    if (total != nullptr) appendLines(buffer, out, *total, "since_start");
}
