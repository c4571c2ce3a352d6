#include "watch/json/json_parts.h"

#include <algorithm>
#include <cmath>

#include "lib/base/bytes.h"
#include "watch/capture/peel.h"
#include "watch/capture/source.h"
#include "watch/core/span.h"
#include "watch/core/text.h"

namespace {

constexpr uint32_t kNanosecondsPerSecond = 1'000'000'000;

}  // namespace

void jsonSafe(JsonWriter& out, std::string_view key, std::string_view text) {
    out.plain(key);
    const bool isPlain = std::ranges::none_of(text, [](char c) { return c == '"' || c == '\\'; });
    if (isPlain) return out.plain(text);
    out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void jsonText(JsonWriter& out, std::string_view key, std::string_view bytes) {
    char text[4096];
    jsonSafe(out, key, safeText(bytes, text, sizeof text));
}

void jsonReal(JsonWriter& out, std::string_view key, double number) {
    out.plain(key);
    if (std::isfinite(number)) {
        out.Double(number);
    } else {
        out.Null();
    }
}

// A packet's stamp may claim a second's worth of nanoseconds and more.
std::string_view jsonTimeText(TimeSpec time, char (&text)[kJsonTimeBytes]) {
    return utcText(int64_t{time.seconds} + time.nanoseconds / kNanosecondsPerSecond,
                   time.nanoseconds % kNanosecondsPerSecond, text);
}

void jsonTime(JsonWriter& out, std::string_view key, TimeSpec time) {
    char text[kJsonTimeBytes];
    jsonPlain(out, key, jsonTimeText(time, text));
}

void jsonSpan(JsonWriter& out, const SnapSpan& span) {
    jsonReal(out, "elapsed_seconds", secondsOf(span.elapsedNanoseconds));
    if (span.skippedNanoseconds != 0) {
        jsonReal(out, "skipped_seconds", secondsOf(span.skippedNanoseconds));
    }
    if (span.stepNanoseconds != 0) {
        jsonReal(out, "clock_step_seconds", secondsOf(span.stepNanoseconds));
    }
}

void jsonAddress(JsonWriter& out, std::string_view key, uint32_t address) {
    char text[kAddressTextBytes];
    jsonPlain(out, key, addressText(address, text));
}

void jsonPort(JsonWriter& out, std::string_view key, uint16_t port) {
    jsonMember(out, key, uint64_t{hostOrder16(port)});
}

void jsonScid(JsonWriter& out, uint16_t port) {
    out.plain("scid");
    if (port != 0) {
        out.number(hostOrder16(port));
    } else {
        out.Null();
    }
}

void jsonRetransmissionRow(JsonWriter& out, const SnapPort& port, const SnapRlHost& host) {
    jsonPort(out, "port", port.port);
    jsonPort(out, "service_port", port.servicePort);
    jsonAddress(out, "host", host.host);
    jsonScid(out, host.port);
    jsonFields(out, kRetransmissionFields, host.counters);
}

void jsonPointToPointRow(JsonWriter& out, const SnapPort& port, const SnapPtpHost& host) {
    jsonPort(out, "port", port.port);
    jsonAddress(out, "host", host.host);
    jsonScid(out, host.port);
    jsonFields(out, kPointToPointFields, host.counters);
}

void jsonTotals(JsonWriter& out, const char* name, const SnapTotals& totals) {
    SnapSubject subjects{};
    subjects.msgs = totals.subjects.msgs;
    subjects.bytes = totals.subjects.bytes;
    const auto writeTable = [&out](const char* table, const auto& fields, const auto& record) {
        out.plain(table);
        out.StartObject();
        jsonFields(out, fields, record);
        out.EndObject();
    };
    out.plain(name);
    out.StartObject();
    writeTable(kJsonMulticast, kMulticastFields, totals.multicast);
    writeTable(kJsonRetransmission, kRetransmissionFields, totals.retransmission);
    writeTable(kJsonPointToPoint, kPointToPointFields, totals.pointToPoint);
    writeTable(kJsonSubjects, kSubjectFields, subjects);
    out.EndObject();
}

void jsonFiles(JsonWriter& out) {
    constexpr size_t kMostNames = 100;
    out.plain("files");
    out.StartArray();
    for (uint32_t file = 0; file < std::min(sourceFiles(), kMostNames); ++file) {
        char text[4096];
        const std::string_view safe = safeText(sourceFileName(file), text, sizeof text);
        out.String(safe.data(), static_cast<rapidjson::SizeType>(safe.size()));
    }
    out.EndArray();
    jsonMember(out, "file_count", sourceFiles());
}

void jsonNotRead(JsonWriter& out, const SnapSource& source) {
    out.plain("not_read");
    out.StartObject();
    for (size_t reason = 0; reason < kNotReadKinds; ++reason) {
        if (source.notRead[reason] == 0) continue;
        jsonMember(out, notReadRow(static_cast<NotRead>(reason)).key, source.notRead[reason]);
    }
    out.EndObject();
}

namespace {

void writeFaulty(JsonWriter& out,
                 const FaultyPacket& packet,
                 const char* time,
                 const char* number,
                 const char* file) {
    jsonTime(out, time, packet.time);
    if (packet.place.number == 0) return;
    jsonMember(out, number, packet.place.number);
    if (sourceFiles() < 2) return;
    jsonText(out, file, sourceFileName(packet.place.file));
}

}  // namespace

void jsonFault(JsonWriter& out, Fault fault, const FaultCount& count) {
    jsonPlain(out, "words", faultRow(fault).words);
    jsonMember(out, kFaults.name, count.packets);
    writeFaulty(out, count.first, "first_time", "first_frame", "first_file");
    writeFaulty(out, count.last, "last_time", "last_frame", "last_file");
    if (count.lastSender != 0) return jsonAddress(out, "last_sender", count.lastSender);
    out.plain("last_sender");
    out.Null();
}
