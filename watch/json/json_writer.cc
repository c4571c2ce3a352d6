#include "watch/json/json_writer.h"

#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
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

using SaxWriter = rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, LevelMemory>;

// What has nothing to escape goes into the buffer in one piece: nearly all that there is.
struct Writer : SaxWriter {
    using SaxWriter::SaxWriter;

    void plain(std::string_view text) {
        Prefix(rapidjson::kStringType);
        if (!os_->reserve(text.size() + 2)) return;
        char* at = os_->bytes + os_->usedBytes;
        *at++ = '"';
        at += text.copy(at, text.size());
        *at++ = '"';
        os_->usedBytes = static_cast<size_t>(at - os_->bytes);
    }

    void number(uint64_t number) {
        constexpr size_t kDigitsMost = 20;
        Prefix(rapidjson::kNumberType);
        if (!os_->reserve(kDigitsMost)) return;
        char* const at = os_->bytes + os_->usedBytes;
        os_->usedBytes += static_cast<size_t>(std::to_chars(at, at + kDigitsMost, number).ptr - at);
    }
};

void writeMember(Writer& out, std::string_view key, uint64_t number) {
    out.plain(key);
    out.number(number);
}

void writePlain(Writer& out, std::string_view key, std::string_view text) {
    out.plain(key);
    out.plain(text);
}

// Safe text has no control characters.
void writeSafe(Writer& out, std::string_view key, std::string_view text) {
    out.plain(key);
    const bool isPlain = std::ranges::none_of(text, [](char c) { return c == '"' || c == '\\'; });
    if (isPlain) return out.plain(text);
    out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeReal(Writer& out, std::string_view key, double number) {
    out.plain(key);
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

constexpr size_t kTimeBytes = 64;

// RFC 3339, in UTC. A packet's stamp may claim a second's worth of nanoseconds and more.
std::string_view timeText(TimeSpec time, char (&text)[kTimeBytes]) {
    const time_t seconds = time_t{time.seconds} + time.nanoseconds / kNanosecondsPerSecond;
    tm utc{};
    gmtime_r(&seconds, &utc);
    const int length =
        std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%09uZ", utc.tm_year + 1900,
                      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                      time.nanoseconds % kNanosecondsPerSecond);
    return {text, static_cast<size_t>(length)};
}

void writeTime(Writer& out, std::string_view key, TimeSpec time) {
    char text[kTimeBytes];
    writePlain(out, key, timeText(time, text));
}

double secondsOf(TimeSpec time) {
    return time.seconds + time.nanoseconds / 1e9;
}

void writeAddress(Writer& out, std::string_view key, uint32_t address) {
    char text[kAddressTextBytes];
    writePlain(out, key, addressText(address, text));
}

void writePort(Writer& out, std::string_view key, uint16_t port) {
    writeMember(out, key, uint64_t{hostOrder16(port)});
}

void writeScid(Writer& out, uint16_t port) {
    out.plain("scid");
    if (port != 0) {
        out.number(hostOrder16(port));
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
    out.plain("senders");
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
    writeSafe(out, "subject", subjectSafeText(subject.subject, text));
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
    out.plain("faults");
    out.StartObject();
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        const FaultCount& count = snapshot.faults[kind];
        if (count.packets == 0) continue;
        out.plain(faultRow(static_cast<Fault>(kind)).key);
        out.StartObject();
        writeMember(out, kFaults.name, count.packets);
        writeTime(out, "first_time", count.first);
        writeTime(out, "last_time", count.last);
        out.EndObject();
    }
    out.EndObject();
}

void writeTotals(Writer& out, const char* name, const SnapTotals& totals) {
    SnapSubject subjects{};
    subjects.msgs = totals.subjects.msgs;
    subjects.bytes = totals.subjects.bytes;
    const auto writeTable = [&out](const char* table, const auto& fields, const auto& record) {
        out.plain(table);
        out.StartObject();
        writeFields(out, fields, record);
        out.EndObject();
    };
    out.plain(name);
    out.StartObject();
    writeTable(kMulticast, kMulticastFields, totals.multicast);
    writeTable(kRetransmission, kRetransmissionFields, totals.retransmission);
    writeTable(kPointToPoint, kPointToPointFields, totals.pointToPoint);
    writeTable(kSubjects, kSubjectFields, subjects);
    out.EndObject();
}

constexpr std::string_view kInterval = "interval";
constexpr std::string_view kSinceStart = "since_start";

void writeHead(Writer& out, const SnapHeader& snapshot, std::string_view scope) {
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
    writeTotals(out, "totals", snapshotAddUp(snapshot));
    if (scope == kSinceStart) writeTotals(out, "beyond_rows", snapshot.beyond);
}

void writeMembers(Writer& out, const SnapHeader& snapshot, std::string_view scope) {
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
                Writer& out,
                std::string_view scope,
                const char* table,
                WriteMembers writeRest) {
    out.Reset(buffer);
    out.StartObject();
    writePlain(out, "table", table);
    writePlain(out, "scope", scope);
    writeRest(out);
    out.EndObject();
    buffer.Put('\n');
}

void appendLines(JsonBuffer& buffer,
                 Writer& out,
                 const SnapHeader& snapshot,
                 std::string_view scope) {
    char text[kTimeBytes];
    const std::string_view time = timeText(snapshot.thisTime, text);
    appendLine(buffer, out, scope, "snapshot",
               [&](Writer& line) { writeHead(line, snapshot, scope); });
    eachTable(snapshot, [&](const char* table, auto walk) {
        walk([&](auto writeRow) {
            appendLine(buffer, out, scope, table, [&](Writer& line) {
                writePlain(line, "time", time);
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
    LevelMemory levels;
    Writer out(buffer, &levels, kLevels);
    appendLines(buffer, out, snapshot, kInterval);
    if (total != nullptr) appendLines(buffer, out, *total, kSinceStart);
}
