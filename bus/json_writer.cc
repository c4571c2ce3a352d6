#include "bus/json_writer.h"

#include <algorithm>
#include <cstring>

#include "bus/field_kind.h"
#include "bus/json_tape.h"
#include "bus/json_text.h"
#include "programs/text.h"

namespace {

struct Line {
    std::string& out;
    pelmoMsg* scratch;
    uint32_t depth = 0;  // of messages within messages
};

pelmoStatus addFields(Line& line, pelmoMsg* msg);

void addHexText(std::string& out, const void* bytes, size_t sizeBytes) {
    out += '"';
    hexAdd(out, bytes, sizeBytes);
    out += '"';
}

void addHead(std::string& out, const char* name, uint16_t id, std::string_view type) {
    out += '{';
    if (name != nullptr) {
        out += "\"name\":";
        jsonTextAdd(out, name);
        out += ',';
    }
    if (id != 0) out += "\"id\":" + std::to_string(id) + ',';
    out += "\"type\":\"";
    out += type;
    out += "\",\"value\":";
}

// The library's own text of a date-time or a subject.
pelmoStatus addLibraryText(Line& line, const pelmoMsgField& field) {
    pelmoMsgField bare = field;
    bare.name = nullptr;
    bare.id = 0;
    pelmoMsg_Reset(line.scratch);
    const char* text = nullptr;
    pelmoStatus status = pelmoMsg_AddField(line.scratch, &bare);
    if (status == kStatusSuccess) status = pelmoMsg_GetString(line.scratch, nullptr, &text, 0);
    if (status == kStatusSuccess) jsonTextAdd(line.out, text != nullptr ? text : "");
    return status;
}

// A text's own NUL at its end isn't shown.
void addBytesText(Line& line, const pelmoMsgField& field) {
    const auto* text = static_cast<const char*>(field.data.pointer);
    size_t sizeBytes = text != nullptr ? field.size : 0;
    if (field.type == FIELD_STRING && sizeBytes != 0 && text[sizeBytes - 1] == '\0') --sizeBytes;
    jsonTextAdd(line.out, std::string_view(sizeBytes != 0 ? text : "", sizeBytes));
}

pelmoStatus addImage(Line& line, pelmoMsg* msg) {
    const void* bytes = nullptr;
    uint32_t sizeBytes = 0;
    pelmoStatus status = pelmoMsg_GetAsBytes(msg, &bytes);
    if (status == kStatusSuccess) status = pelmoMsg_GetByteSize(msg, &sizeBytes);
    if (status == kStatusSuccess) addHexText(line.out, bytes, sizeBytes);
    return status;
}

pelmoStatus addNested(Line& line, pelmoMsg* msg) {
    if (line.depth == kMostNestedMessages) return addImage(line, msg);
    line.out += '{';
    ++line.depth;
    const pelmoStatus status = addFields(line, msg);
    --line.depth;
    line.out += '}';
    return status;
}

pelmoMsg* asMessage(const void* data) {
    return static_cast<pelmoMsg*>(const_cast<void*>(data));
}

// The value, or an element of one, whose data `field` holds.
pelmoStatus addOne(Line& line, const FieldKind& type, const pelmoMsgField& field) {
    if (type.print != nullptr) return type.print(line.out, field.data), kStatusSuccess;
    switch (type.code) {
        case FIELD_MSG:
            return addNested(line, asMessage(field.data.pointer));
        case FIELD_DATETIME:
        case FIELD_SUBJECT:
            return addLibraryText(line, field);
        case FIELD_OPAQUE:
            addHexText(line.out, field.data.pointer,
                       field.data.pointer != nullptr ? field.size : 0);
            return kStatusSuccess;
        case FIELD_NONE:
            line.out += "null";
            return kStatusSuccess;
        default:
            addBytesText(line, field);
            return kStatusSuccess;
    }
}

// An element as a field of its own. Numbers stand one behind the other, the rest behind pointers.
pelmoMsgField elementOf(const FieldKind& type, const pelmoMsgField& array, uint32_t number) {
    pelmoMsgField element;
    element.type = type.code;
    if (type.sizeBytes != 0) {
        const auto* first = static_cast<const char*>(array.data.pointer);
        std::memcpy(&element.data, first + size_t{number} * type.sizeBytes, type.sizeBytes);
        return element;
    }
    element.data.pointer = static_cast<const void* const*>(array.data.pointer)[number];
    if (type.code == FIELD_STRING) {
        const size_t length = std::strlen(static_cast<const char*>(element.data.pointer));
        element.size = static_cast<uint32_t>(length + 1);
    }
    return element;
}

pelmoStatus addArray(Line& line, const FieldKind& type, const pelmoMsgField& array) {
    line.out += '[';
    for (uint32_t i = 0; i < array.count && array.data.pointer != nullptr; ++i) {
        if (i != 0) line.out += ',';
        const pelmoStatus status = addOne(line, type, elementOf(type, array, i));
        if (status != kStatusSuccess) return status;
    }
    line.out += ']';
    return kStatusSuccess;
}

// By the number of its type, with its bytes as they stand.
void addBytes(Line& line, const pelmoMsgField& field) {
    addHead(line.out, field.name, field.id, std::to_string(field.type));
    addHexText(line.out, field.data.pointer, field.data.pointer != nullptr ? field.size : 0);
    line.out += '}';
}

pelmoStatus addField(Line& line, const pelmoMsgField& field) {
    const FieldKind* type = fieldKindByCode(field.type);
    if (type == nullptr) return addBytes(line, field), kStatusSuccess;
    const bool isArray = field.type != type->code;
    addHead(line.out, field.name, field.id, std::string(type->name) + (isArray ? "[]" : ""));
    const pelmoStatus status = isArray ? addArray(line, *type, field) : addOne(line, *type, field);
    line.out += '}';
    return status;
}

// What doesn't decode is shown as it stands.
pelmoStatus addNumbered(Line& line, pelmoMsg* msg, uint32_t number) {
    const size_t before = line.out.size();
    pelmoMsgField field;
    pelmoStatus status = pelmoMsg_GetFieldByIndex(msg, &field, number);
    if (status == kStatusSuccess) status = addField(line, field);
    if (status == kStatusSuccess || status == kStatusNoMemory) return status;
    line.out.resize(before);
    status = pelmoMsg_GetFieldBytes(msg, &field, number);
    if (status == kStatusSuccess) addBytes(line, field);
    return status;
}

pelmoStatus addFields(Line& line, pelmoMsg* msg) {
    uint32_t count = 0;
    pelmoStatus status = pelmoMsg_GetNumFields(msg, &count);
    line.out += "\"fields\":[";
    for (uint32_t i = 0; i < count && status == kStatusSuccess; ++i) {
        if (i != 0) line.out += ',';
        status = addNumbered(line, msg, i);
    }
    line.out += ']';
    return status;
}

}  // namespace

pelmoStatus jsonWriteMessage(JsonWriter& writer, pelmoMsg* msg, std::string& out) {
    if (writer.scratch == nullptr) writer.scratch = messageMake();
    if (writer.scratch == nullptr) return kStatusNoMemory;
    const size_t before = out.size();
    Line line{out, writer.scratch.get()};

    const char* subject = nullptr;
    const char* reply = nullptr;
    out += '{';
    if (pelmoMsg_GetSendSubject(msg, &subject) == kStatusSuccess) {
        out += "\"subject\":";
        jsonTextAdd(out, subject);
        out += ',';
    }
    if (pelmoMsg_GetReplySubject(msg, &reply) == kStatusSuccess) {
        out += "\"reply\":";
        jsonTextAdd(out, reply);
        out += ',';
    }
    const pelmoStatus status = addFields(line, msg);
    out += '}';
    if (status != kStatusSuccess) out.resize(before);
    return status;
}

void jsonAcceptOwnTypes() {
    for (unsigned type = kFirstApplicationType; type <= 255; ++type) {
        pelmoMsg_SetOpaqueHandlers(static_cast<uint8_t>(type));
    }
}
