// The pieces that JSON of this program is made of: the writer, and the members that several shapes
// have. Keys and units are those of watch/core/fields.h, texts are safe (watch/core/text.h). What
// no JSON number can hold is null.
//
// Failure: JsonBuffer::failed.
//
// Threads: any; no state.

#pragma once

#include <rapidjson/writer.h>

#include <charconv>
#include <cstdint>
#include <string_view>

#include "programs/text.h"
#include "trace/counts/snapshot.h"
#include "watch/core/fields.h"
#include "watch/json/json_buffer.h"

// The writer keeps one small record a level of nesting.
struct JsonLevels {
    static constexpr bool kNeedFree = false;
    static constexpr size_t kBytes = 512;

    void* Malloc(size_t sizeBytes) { return sizeBytes <= kBytes ? bytes : nullptr; }
    void* Realloc(void*, size_t, size_t sizeBytes) { return Malloc(sizeBytes); }
    static void Free(void*) {}

    alignas(16) char bytes[kBytes];
};

inline constexpr size_t kJsonLevels = 8;

using JsonSaxWriter =
    rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonLevels>;

// What has nothing to escape goes into the buffer in one piece: nearly all that there is.
struct JsonWriter : JsonSaxWriter {
    using Base = JsonSaxWriter;
    explicit JsonWriter(JsonBuffer& buffer, JsonLevels& levels)
        : Base(buffer, &levels, kJsonLevels) {}

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

// Members

inline void jsonMember(JsonWriter& out, std::string_view key, uint64_t number) {
    out.plain(key);
    out.number(number);
}

inline void jsonPlain(JsonWriter& out, std::string_view key, std::string_view text) {
    out.plain(key);
    out.plain(text);
}

// Safe text has no control characters.
void jsonSafe(JsonWriter& out, std::string_view key, std::string_view text);

// Of any bytes from outside, made safe and cut to a length that names of files hardly have.
void jsonText(JsonWriter& out, std::string_view key, std::string_view bytes);

void jsonReal(JsonWriter& out, std::string_view key, double number);

// RFC 3339, in UTC.
inline constexpr size_t kJsonTimeBytes = kUtcTextBytes;
std::string_view jsonTimeText(TimeSpec time, char (&text)[kJsonTimeBytes]);
void jsonTime(JsonWriter& out, std::string_view key, TimeSpec time);

// elapsed_seconds, and where they aren't 0 skipped_seconds and clock_step_seconds.
void jsonSpan(JsonWriter& out, const SnapSpan& span);

// Addresses and ports are words in network order. An SCid of 0 is null.
void jsonAddress(JsonWriter& out, std::string_view key, uint32_t address);
void jsonPort(JsonWriter& out, std::string_view key, uint16_t port);
void jsonScid(JsonWriter& out, uint16_t scid);

template <typename Record, size_t kCount>
void jsonFields(JsonWriter& out, const Field<Record> (&fields)[kCount], const Record& record) {
    for (const Field<Record>& field : fields) {
        jsonMember(out, field.name, record.*field.value);
    }
}

// The tables' names.
inline constexpr const char* kJsonMulticast = "multicast";
inline constexpr const char* kJsonRetransmission = "retransmission";
inline constexpr const char* kJsonPointToPoint = "point_to_point";
inline constexpr const char* kJsonSubjects = "subjects";

// The members of a row.
void jsonRetransmissionRow(JsonWriter& out, const SnapPort& port, const SnapRlHost& host);
void jsonPointToPointRow(JsonWriter& out, const SnapPort& port, const SnapPtpHost& host);

// An object with the sums of each table.
void jsonTotals(JsonWriter& out, const char* name, const SnapTotals& totals);

// The names of the saved captures, a hundred at most.
void jsonFiles(JsonWriter& out);

// An object with the frames of each reason for which some weren't read.
void jsonNotRead(JsonWriter& out, const SnapSource& source);

// The members of a fault's object; there was one at least.
void jsonFault(JsonWriter& out, Fault fault, const FaultCount& count);
