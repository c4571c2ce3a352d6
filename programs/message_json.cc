#include "programs/message_json.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "lib/base/bytes.h"
#include "lib/base/timestamp.h"
#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/scalar.h"
#include "lib/msg/wire.h"
#include "programs/field_kind.h"
#include "programs/json.h"
#include "programs/number.h"
#include "programs/text.h"

namespace {

struct Line {
    std::string& out;
    uint32_t depth = 0;  // of messages within messages
};

using Bytes = std::span<const uint8_t>;

// A field of a message's image, and the block that its value may take.
struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};

struct DecodedField {
    pelmoMsgField field;
    std::unique_ptr<void, FreeBlock> block;
};

pelmoStatus addFields(Line& line, Bytes records, const JsonFieldFilter& filter);

void addHexText(std::string& out, const void* bytes, size_t sizeBytes) {
    out += '"';
    hexAdd(out, bytes, sizeBytes);
    out += '"';
}

// `after` is the part from the type on.
void addHead(std::string& out, const pelmoMsgField& field, std::string_view after) {
    if (field.id == 0 && field.name != nullptr) {
        return jsonTextAdd(out, field.name, "{\"name\":", after);
    }
    if (field.name != nullptr) {
        jsonTextAdd(out, field.name, "{\"name\":");
    } else {
        out += '{';
        if (field.id == 0) after.remove_prefix(1);  // its comma
    }
    if (field.id != 0) {
        textAdd(out, field.name != nullptr ? "," : "", "\"id\":", std::to_string(field.id));
    }
    out += after;
}

// More microseconds than a second has are no date. As nanoseconds in 32 bits they may have wrapped:
// these aren't whole microseconds any longer.
pelmoStatus addDate(Line& line, const pelmoMsgDateTime& date) {
    if (!dateTimeFits(date) || date.nanoseconds % 1000 != 0) return kStatusInvalidArgument;
    char text[kTimeStampBytes];
    char* end = text;
    dateTimeToText(date, &end, sizeof text);
    textAdd(line.out, "\"", std::string_view(text, end), "\"");
    return kStatusSuccess;
}

// The text is never longer than the packed form.
void addSubject(Line& line, const pelmoMsgField& field) {
    char text[kSubjectMaxBytes];
    const char* const end = subjectWriteText(text, static_cast<const uint8_t*>(field.data.pointer));
    jsonTextAdd(line.out, std::string_view(text, end));
}

// A text's own NUL at its end isn't shown.
void addBytesText(Line& line, const pelmoMsgField& field) {
    const auto* text = static_cast<const char*>(field.data.pointer);
    size_t sizeBytes = text != nullptr ? field.size : 0;
    if (field.type == FIELD_STRING && sizeBytes != 0 && text[sizeBytes - 1] == '\0') --sizeBytes;
    jsonTextAdd(line.out, std::string_view(sizeBytes != 0 ? text : "", sizeBytes));
}

// The decoder has found a sound head.
pelmoStatus addNested(Line& line, const void* image) {
    const auto* const bytes = static_cast<const uint8_t*>(image);
    const uint32_t sizeBytes = loadBe32At(bytes);
    if (line.depth == kMostNestedMessages) {
        addHexText(line.out, bytes, sizeBytes);
        return kStatusSuccess;
    }
    line.out += '{';
    ++line.depth;
    const pelmoStatus status =
        addFields(line, Bytes(bytes, sizeBytes).subspan(kMessageHeadBytes), {});
    --line.depth;
    line.out += '}';
    return status;
}

// The value, or an element of one, whose data `field` holds.
pelmoStatus addOne(Line& line, const FieldKind& type, const pelmoMsgField& field) {
    if (type.print != nullptr) return type.print(line.out, field.data), kStatusSuccess;
    switch (type.code) {
        case FIELD_MSG:
            return addNested(line, field.data.pointer);
        case FIELD_DATETIME:
            return addDate(line, field.data.dateTime);
        case FIELD_SUBJECT:
            addSubject(line, field);
            return kStatusSuccess;
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

// An element as a field of its own. Numbers lie one after the other, the rest is found by pointers.
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

// By the number of its type, with its bytes unchanged.
void addBytes(Line& line, const pelmoMsgField& field) {
    addHead(line.out, field, ",\"type\":\"" + std::to_string(field.type) + "\",\"value\":");
    addHexText(line.out, field.data.pointer, field.data.pointer != nullptr ? field.size : 0);
    line.out += '}';
}

pelmoStatus addField(Line& line, const pelmoMsgField& field) {
    const FieldKind* type = fieldKindByCode(field.type);
    if (type == nullptr) return addBytes(line, field), kStatusSuccess;
    const bool isArray = field.type != type->code;
    addHead(line.out, field, isArray ? type->arrayMember : type->member);
    const pelmoStatus status = isArray ? addArray(line, *type, field) : addOne(line, *type, field);
    line.out += '}';
    return status;
}

pelmoStatus decode(const uint8_t* type, const uint8_t* end, DecodedField& out) {
    pelmoDisposition disposition = kDataByValue;
    const pelmoStatus status = msgDecodeValue(type, end, out.field, disposition);
    if (status != kStatusSuccess) return status;
    const uint8_t code = out.field.type;
    const bool isList = code == FIELD_STRINGARRAY || code == FIELD_MSGARRAY;
    if (disposition == kDataOwnedBlock || (disposition == kDataInImage && isList)) {
        out.block.reset(const_cast<void*>(out.field.data.pointer));
    }
    return kStatusSuccess;
}

// What doesn't decode is shown as its bytes.
pelmoStatus addRecord(Line& line, const uint8_t* record, const WireRecord& head, Bytes value) {
    const size_t before = line.out.size();
    DecodedField read;
    if (head.nameSize != 0) read.field.name = reinterpret_cast<const char*>(record + 1);
    read.field.id = head.id;
    const uint8_t* const type = value.data();
    const uint8_t* const end = type + value.size();
    pelmoStatus status = decode(type, end, read);
    if (status == kStatusSuccess) status = addField(line, read.field);
    if (status == kStatusSuccess || status == kStatusNoMemory) return status;
    line.out.resize(before);
    const Bytes bytes = wireValueBytes(type, end);
    read.field.type = *type;
    read.field.size = static_cast<uint32_t>(bytes.size());
    read.field.data.pointer = bytes.data();
    addBytes(line, read.field);
    return kStatusSuccess;
}

// On failure the line has some of the fields.
pelmoStatus addFields(Line& line, Bytes records, const JsonFieldFilter& filter) {
    const uint8_t* const end = records.data() + records.size();
    line.out += "\"fields\":[";
    bool isFirst = true;
    for (const uint8_t* at = records.data(); at < end;) {
        WireRecord head;
        const uint8_t* const next = wireRecordRead(at, end, head);
        if (next == nullptr) return kStatusCorruptMessage;
        const uint8_t* const type = at + 1 + head.nameAreaSize;
        if (filter.wants == nullptr || filter.wants(filter.context, wireName(at, head))) {
            if (!isFirst) line.out += ',';
            isFirst = false;
            const pelmoStatus status = addRecord(line, at, head, Bytes(type, next));
            if (status != kStatusSuccess) return status;
        }
        at = next;
    }
    line.out += ']';
    return kStatusSuccess;
}

}  // namespace

pelmoStatus jsonWriteFields(Bytes records, const JsonFieldFilter& filter, std::string& out) {
    const size_t before = out.size();
    Line line{out};
    const pelmoStatus status = addFields(line, records, filter);
    out += '}';
    if (status != kStatusSuccess) out.resize(before);
    return status;
}

pelmoStatus jsonWriteMessage(pelmoMsg* msg, std::string_view time, std::string& out) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    const size_t before = out.size();
    const char* subject = nullptr;
    const char* reply = nullptr;
    out += '{';
    if (!time.empty()) {
        out += "\"time\":\"";
        out += time;
        out += "\",";
    }
    if (pelmoMsg_GetSendSubject(msg, &subject) == kStatusSuccess) {
        jsonTextAdd(out, subject, "\"subject\":", ",");
    }
    if (pelmoMsg_GetReplySubject(msg, &reply) == kStatusSuccess) {
        jsonTextAdd(out, reply, "\"reply\":", ",");
    }
    const pelmoStatus status = jsonWriteFields(msgRecords(msg), {}, out);
    if (status != kStatusSuccess) out.resize(before);
    return status;
}

void jsonAcceptOwnTypes() {
    for (unsigned type = kFirstApplicationType; type <= 255; ++type) {
        pelmoMsg_SetOpaqueHandlers(static_cast<uint8_t>(type));
    }
}

namespace {

constexpr uint32_t kAbsent = UINT32_MAX;
constexpr size_t kHeadBytes = 8;  // of a message's image

bool readFields(JsonReader& reader, uint32_t array, pelmoMsg* msg);

bool fail(JsonReader& reader, uint32_t node, std::string_view what) {
    const size_t column = reader.tape.nodes[node].begin + 1;
    reader.fault = "column " + std::to_string(column) + ": ";
    reader.fault += what;
    return false;
}

bool failStatus(JsonReader& reader, uint32_t node, pelmoStatus status) {
    return fail(reader, node, pelmoStatus_GetText(status) + (" (" + std::to_string(status) + ")"));
}

JsonKind kindOf(const JsonReader& reader, uint32_t node) {
    return reader.tape.nodes[node].kind;
}

// Calls visit(node) for each element, as long as it answers true.
template <typename Visit>
bool forEach(JsonReader& reader, uint32_t array, Visit visit) {
    const uint32_t end = reader.tape.nodes[array].next;
    for (uint32_t node = array + 1; node < end; node = reader.tape.nodes[node].next) {
        if (!visit(node)) return false;
    }
    return true;
}

struct Key {
    const char* name;
    uint32_t value = kAbsent;
};

// Finds the values of the keys, which are all that the object may have.
bool readObject(JsonReader& reader, uint32_t object, std::span<Key> keys) {
    if (kindOf(reader, object) != JsonKind::kObject) return fail(reader, object, "not an object");
    const uint32_t end = reader.tape.nodes[object].next;
    for (uint32_t node = object + 1; node < end;) {
        const uint32_t value = reader.tape.nodes[node].next;
        jsonTapeString(reader.tape, node, reader.words);
        Key* found = nullptr;
        for (Key& key : keys) {
            if (reader.words == key.name) found = &key;
        }
        if (found == nullptr) return fail(reader, node, "no such key here");
        if (found->value != kAbsent) return fail(reader, node, "the key was there already");
        found->value = value;
        node = reader.tape.nodes[value].next;
    }
    return true;
}

// A text that the library takes as a C text. An absent one leaves `out` empty.
bool readText(JsonReader& reader, uint32_t node, std::string& out) {
    if (node == kAbsent) return true;
    if (kindOf(reader, node) != JsonKind::kString) return fail(reader, node, "not a string");
    jsonTapeString(reader.tape, node, out);
    return out.find('\0') == std::string::npos || fail(reader, node, "a NUL can't be here");
}

// Messages as values

bool readNested(JsonReader& reader, uint32_t node, OwnedMessage& out) {
    Key keys[] = {{"fields"}};
    if (!readObject(reader, node, keys)) return false;
    if (keys[0].value == kAbsent) return fail(reader, node, "\"fields\" is missing");
    out = messageMake();
    if (out == nullptr) return failStatus(reader, node, kStatusNoMemory);
    return readFields(reader, keys[0].value, out.get());
}

// The bytes begin with their own length, which the library uses.
bool readImage(JsonReader& reader, uint32_t node, OwnedMessage& out) {
    std::string bytes;
    jsonTapeString(reader.tape, node, reader.words);
    if (!hexParse(reader.words, bytes)) return fail(reader, node, "not hexadecimal digits");
    uint32_t length = 0;
    for (size_t i = 0; i < 4 && bytes.size() >= kHeadBytes; ++i) {
        length = length << 8 | static_cast<uint8_t>(bytes[i]);
    }
    if (bytes.size() < kHeadBytes || length != bytes.size()) {
        return fail(reader, node, "not the bytes of one message");
    }
    pelmoMsg* msg = nullptr;
    const pelmoStatus status = pelmoMsg_CreateFromBytes(&msg, bytes.data());
    out.reset(status == kStatusSuccess ? msg : nullptr);
    return status == kStatusSuccess || failStatus(reader, node, status);
}

bool readMessageValue(JsonReader& reader, uint32_t node, OwnedMessage& out) {
    return kindOf(reader, node) == JsonKind::kString ? readImage(reader, node, out)
                                                     : readNested(reader, node, out);
}

// Values

bool formFits(FieldForm form, JsonKind kind) {
    switch (form) {
        case FieldForm::kNumber:
            return kind == JsonKind::kNumber;
        case FieldForm::kReal:
            return kind == JsonKind::kNumber || kind == JsonKind::kString;
        case FieldForm::kTruth:
            return kind == JsonKind::kTrue || kind == JsonKind::kFalse;
        case FieldForm::kText:
            return kind == JsonKind::kString;
        case FieldForm::kMessage:
            return kind == JsonKind::kObject || kind == JsonKind::kString;
        case FieldForm::kNothing:
            return kind == JsonKind::kNull;
    }
    return false;
}

bool readValue(JsonReader& reader, const FieldKind& type, uint32_t node, FieldValue& out) {
    const JsonKind kind = kindOf(reader, node);
    const bool fits = formFits(type.form, kind);
    if (!fits) return fail(reader, node, std::string("not the value of a ").append(type.name));
    if (type.parse == nullptr) return true;
    const char* fault = nullptr;
    if (kind != JsonKind::kString) {
        fault = type.parse(jsonTapeToken(reader.tape, node), out);
    } else {
        jsonTapeString(reader.tape, node, reader.words);
        const bool isQuoted = type.form == FieldForm::kReal &&
                              reader.words.find_first_of("0123456789") != std::string::npos;
        fault = isQuoted ? "a number in quotes" : type.parse(reader.words, out);
    }
    return fault == nullptr || fail(reader, node, fault);
}

// The head of a field as read, to which its value is added.
struct Field {
    pelmoMsgField field;
    std::string name;
    uint32_t node = 0;
    uint32_t value = kAbsent;
};

bool addField(JsonReader& reader, Field& head, pelmoMsg* msg) {
    const pelmoStatus status = pelmoMsg_AddField(msg, &head.field);
    return status == kStatusSuccess || failStatus(reader, head.node, status);
}

bool addNumbers(JsonReader& reader, const FieldKind& type, Field& head, pelmoMsg* msg) {
    std::string packed;
    FieldValue element;
    const bool all = forEach(reader, head.value, [&](uint32_t node) {
        if (!readValue(reader, type, node, element)) return false;
        packed.append(reinterpret_cast<const char*>(&element.data), type.sizeBytes);
        return true;
    });
    if (!all) return false;
    head.field.size = type.sizeBytes;
    head.field.count = static_cast<uint32_t>(packed.size() / type.sizeBytes);
    head.field.data.pointer = packed.data();
    return addField(reader, head, msg);
}

bool addTexts(JsonReader& reader, Field& head, pelmoMsg* msg) {
    std::vector<std::string> texts;
    const bool all = forEach(reader, head.value, [&](uint32_t node) {
        return readText(reader, node, texts.emplace_back());
    });
    if (!all) return false;
    std::vector<const char*> pointers;
    pointers.reserve(texts.size());
    for (const std::string& text : texts) {
        pointers.push_back(text.c_str());
    }
    head.field.count = static_cast<uint32_t>(pointers.size());
    head.field.data.pointer = pointers.data();
    return addField(reader, head, msg);
}

bool addMessages(JsonReader& reader, Field& head, pelmoMsg* msg) {
    std::vector<OwnedMessage> messages;
    std::vector<pelmoMsg*> pointers;
    const bool all = forEach(reader, head.value, [&](uint32_t node) {
        if (!readMessageValue(reader, node, messages.emplace_back())) return false;
        pointers.push_back(messages.back().get());
        return true;
    });
    if (!all) return false;
    head.field.count = static_cast<uint32_t>(pointers.size());
    head.field.data.pointer = pointers.data();
    return addField(reader, head, msg);
}

bool addArray(JsonReader& reader, const FieldKind& type, Field& head, pelmoMsg* msg) {
    if (kindOf(reader, head.value) != JsonKind::kArray) {
        return fail(reader, head.value, "not an array");
    }
    if (reader.tape.nodes[head.value].next == head.value + 1) {
        return fail(reader, head.value, "an array without elements can't be sent");
    }
    head.field.type = type.arrayCode;
    if (type.code == FIELD_MSG) return addMessages(reader, head, msg);
    return type.code == FIELD_STRING ? addTexts(reader, head, msg)
                                     : addNumbers(reader, type, head, msg);
}

bool addSingle(JsonReader& reader, const FieldKind& type, Field& head, pelmoMsg* msg) {
    head.field.type = type.code;
    if (type.form == FieldForm::kMessage) {
        OwnedMessage value;
        if (!readMessageValue(reader, head.value, value)) return false;
        head.field.data.pointer = value.get();
        return addField(reader, head, msg);
    }
    FieldValue value;
    if (!readValue(reader, type, head.value, value)) return false;
    const pelmoStatus status = fieldAdd(msg, type, head.field.name, head.field.id, value);
    return status == kStatusSuccess || failStatus(reader, head.node, status);
}

// A type of the application's own: bytes.
bool addOwn(JsonReader& reader, std::string_view type, Field& head, pelmoMsg* msg) {
    const char* fault = numberParse(type, head.field.type);
    if (fault != nullptr || head.field.type < kFirstApplicationType) {
        return fail(reader, head.node, "no type that can be sent: " + std::string(type));
    }
    FieldValue value;
    if (!readValue(reader, *fieldKindByCode(FIELD_OPAQUE), head.value, value)) return false;
    head.field.size = static_cast<uint32_t>(value.bytes.size());
    head.field.data.pointer = value.bytes.data();
    return addField(reader, head, msg);
}

bool addByType(JsonReader& reader, const std::string& typeName, Field& head, pelmoMsg* msg) {
    std::string_view name = typeName;
    const bool isArray = name.ends_with("[]");
    if (isArray) name.remove_suffix(2);
    const FieldKind* type = fieldKindByName(name);
    const bool isKnown = type != nullptr && (!isArray || type->arrayCode != 0);
    if (head.value == kAbsent) {
        if (isKnown && type->form == FieldForm::kNothing) return addField(reader, head, msg);
        return fail(reader, head.node, "\"value\" is missing");
    }
    if (!isKnown) return addOwn(reader, typeName, head, msg);
    return isArray ? addArray(reader, *type, head, msg) : addSingle(reader, *type, head, msg);
}

bool readField(JsonReader& reader, uint32_t node, pelmoMsg* msg) {
    Key keys[] = {{"name"}, {"id"}, {"type"}, {"value"}};
    if (!readObject(reader, node, keys)) return false;
    const auto& [name, id, type, value] = keys;
    Field head;
    head.node = node;
    head.value = value.value;
    head.field.type = FIELD_NONE;

    if (name.value != kAbsent && kindOf(reader, name.value) != JsonKind::kNull) {
        if (!readText(reader, name.value, head.name)) return false;
        head.field.name = head.name.c_str();
    }
    if (id.value != kAbsent) {
        if (kindOf(reader, id.value) != JsonKind::kNumber)
            return fail(reader, id.value, "no number");
        const char* fault = numberParse(jsonTapeToken(reader.tape, id.value), head.field.id);
        if (fault != nullptr) return fail(reader, id.value, fault);
    }
    std::string typeName;
    if (type.value == kAbsent) return fail(reader, node, "\"type\" is missing");
    return readText(reader, type.value, typeName) && addByType(reader, typeName, head, msg);
}

bool readFields(JsonReader& reader, uint32_t array, pelmoMsg* msg) {
    if (kindOf(reader, array) != JsonKind::kArray) return fail(reader, array, "not an array");
    return forEach(reader, array, [&](uint32_t node) { return readField(reader, node, msg); });
}

}  // namespace

bool jsonReadMessage(JsonReader& reader, std::string_view line, pelmoMsg* msg) {
    reader.subject.clear();
    reader.reply.clear();
    reader.time.clear();
    if (!jsonTapeRead(reader.tape, line)) {
        reader.fault = "column " + std::to_string(reader.tape.faultAt + 1) + ": ";
        reader.fault += reader.tape.fault;
        return false;
    }
    Key keys[] = {{"subject"},
                  {"reply"},
                  {"time"},
                  {"fields"},
                  // Why the capture has no whole message:
                  {"incomplete"},
                  {"point_to_point_bytes"},
                  {"fault"},
                  // Where it was found:
                  {"port"},
                  {"group"},
                  {"receiver"},
                  {"sender"},
                  {"scid"},
                  {"sequence"},
                  {"repeated"},
                  {"bytes"},
                  {"message_bytes"}};
    if (!readObject(reader, 0, keys)) return false;
    const uint32_t time = keys[2].value;
    const uint32_t fields = keys[3].value;
    if (!readText(reader, keys[0].value, reader.subject)) return false;
    if (!readText(reader, keys[1].value, reader.reply)) return false;
    if (!readText(reader, time, reader.time)) return false;
    reader.isLacking = std::ranges::any_of(std::span(keys).subspan(4, 3),
                                           [](const Key& key) { return key.value != kAbsent; });
    if (reader.isLacking) return true;
    if (fields == kAbsent) return fail(reader, 0, "\"fields\" is missing");
    return readFields(reader, fields, msg);
}
