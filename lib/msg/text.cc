#include "lib/msg/text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/base/text.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/text_builder.h"
#include "lib/msg/trace_ops.h"

namespace {

constexpr const char* kNoDecoder = "[NO DECODER AVAILABLE]";
constexpr const char* kNoConverter = "[NO CONVERTER AVAILABLE]";
constexpr size_t kIdTextBytes = 10;

thread_local uint32_t depth = 0;  // nesting depth of the rendering in progress

struct DepthGuard {
    DepthGuard() { ++depth; }
    ~DepthGuard() { --depth; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;
};

bool addLeftSide(TextBuilder& out, const pelmoMsgField& field) {
    if (field.name == nullptr) return out.add("NULL=");
    if (!out.add(field.name)) return false;
    if (field.id != 0) {
        char id[kIdTextBytes];
        boundedFormat(id, sizeof id, "[%u]", field.id);
        if (!out.add(id)) return false;
    }
    return out.add("=");
}

// Adds the characters of a value that may have no NUL at its end.
bool addBounded(TextBuilder& out, const void* data, size_t sizeBytes) {
    const auto* text = static_cast<const char*>(data);
    return text == nullptr || out.add(text, strnlen(text, sizeBytes));
}

bool addQuoted(TextBuilder& out, const pelmoMsgField& field) {
    return out.add("\"") && addBounded(out, field.data.pointer, field.size) && out.add("\"");
}

bool nestsTooDeep(const pelmoMsgField& field) {
    return depth >= kMostTextDepth && (field.type == FIELD_MSG || field.type == FIELD_MSGARRAY);
}

// A placeholder shows a value that has no text. Without memory there is no text at all.
bool addPlaceholder(TextBuilder& out, const char* placeholder, pelmoStatus status) {
    return status != kStatusNoMemory && out.add(placeholder);
}

// Converts the field to text. kStatusConversionFailed if there is no conversion.
pelmoStatus becomeText(pelmoMsgField& field, pelmoDisposition& disposition) {
    const pelmoFieldConverter convert = fieldConverters[field.type];
    if (convert == nullptr || nestsTooDeep(field)) return kStatusConversionFailed;
    return convert(&field, FIELD_STRING, &disposition);
}

bool addConverted(TextBuilder& out, pelmoMsgField field) {
    const bool isSubject = field.type == FIELD_SUBJECT;
    pelmoDisposition disposition = kDataByValue;
    const pelmoStatus status = becomeText(field, disposition);
    if (status != kStatusSuccess) return addPlaceholder(out, kNoConverter, status);

    bool added = !isSubject || out.add("[");
    added = added && addBounded(out, field.data.pointer, field.size);
    added = added && (!isSubject || out.add("]"));
    if (disposition == kDataOwnedBlock) std::free(const_cast<void*>(field.data.pointer));
    return added;
}

// Adds the text of the message at `image`. Its object and text are released at once: a field may
// hold millions of messages, and the bound on returned objects doesn't apply here.
pelmoStatus addNested(TextBuilder& out, const pelmoMsg* msg, const void* image) {
    const auto offset = static_cast<const uint8_t*>(image) - msg->buffer->data;
    pelmoMsg* made = nullptr;
    pelmoStatus status = msgCreateOverBuffer(&made, msg->buffer, static_cast<uint32_t>(offset));
    const HeldMessage nested(made);
    const char* text = nullptr;
    if (status == kStatusSuccess) status = pelmoMsg_ConvertToString(made, &text);
    if (status != kStatusSuccess) return status;
    return out.add(text) ? kStatusSuccess : kStatusNoMemory;
}

pelmoStatus addElements(TextBuilder& out, const pelmoMsg* msg, const pelmoMsgField& list) {
    if (!out.add("[")) return kStatusNoMemory;
    const auto* elements = static_cast<const void* const*>(list.data.pointer);
    for (uint32_t i = 0; i < list.count; ++i) {
        if (i != 0 && !out.add(" ")) return kStatusNoMemory;
        const pelmoStatus status = addNested(out, msg, elements[i]);
        if (status != kStatusSuccess) return status;
    }
    return out.add("]") ? kStatusSuccess : kStatusNoMemory;
}

// A message, or an array of them. They are read here rather than by the message, which would keep
// an object for each.
bool addMessages(TextBuilder& out, const pelmoMsg* msg, uint32_t position) {
    pelmoMsgField field;
    pelmoDisposition disposition = kDataByValue;
    pelmoStatus status = msgDecodeField(msg, position, field, disposition);
    if (status != kStatusSuccess) return addPlaceholder(out, kNoDecoder, status);

    const size_t begin = out.sizeBytes();
    const bool isArray = field.type == FIELD_MSGARRAY;
    if (nestsTooDeep(field)) {
        status = kStatusConversionFailed;
    } else {
        status = isArray ? addElements(out, msg, field) : addNested(out, msg, field.data.pointer);
    }
    if (isArray) std::free(const_cast<void*>(field.data.pointer));
    if (status == kStatusSuccess) return true;
    out.cutTo(begin);
    return addPlaceholder(out, kNoConverter, status);
}

// The name is shown even if the value can't be read.
bool addField(TextBuilder& out, pelmoMsg* msg, uint32_t position) {
    const FieldIndexEntry& entry = msg->index[position];
    const char* image = reinterpret_cast<const char*>(msgImage(msg));
    pelmoMsgField head;
    head.name = entry.nameSize != 0 ? image + entry.nameOffset : nullptr;
    head.id = entry.id;
    if (!addLeftSide(out, head)) return false;
    const uint8_t wireType = msgImage(msg)[fieldTypeOffset(entry)];
    if (wireType == FIELD_MSG || wireType == FIELD_MSGARRAY) return addMessages(out, msg, position);

    pelmoMsgField field;
    const pelmoStatus status = msgReadField(msg, position, field, NameWanted::kNo);
    if (status != kStatusSuccess) return addPlaceholder(out, kNoDecoder, status);
    return field.type == FIELD_STRING ? addQuoted(out, field) : addConverted(out, field);
}

// Each field adds a blank after it; the last blank becomes the closing bracket. What was read for a
// field is released after it, so that millions of nested messages don't add up.
bool addAll(TextBuilder& out, pelmoMsg* msg) {
    if (!out.add("{")) return false;
    const ReferenceMark mark = msgMark(msg);
    for (uint32_t i = 0; i < msg->fieldCount; ++i) {
        const bool added = addField(out, msg, i) && out.add(" ");
        msgCutBack(msg, mark);
        if (!added) return false;
    }
    if (msg->fieldCount == 0) return out.add("}", 2);
    out.replaceLast('}');
    return out.add("", 1);
}

pelmoStatus textOf(pelmoMsg* msg, const char** out, size_t* outLength) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr || outLength == nullptr) return kStatusInvalidArgument;
    const pelmoStatus parsed = msgParse(msg);
    if (parsed != kStatusSuccess) return parsed;

    TextBuilder builder;
    bool whole;
    {
        const DepthGuard guard;
        whole = addAll(builder, msg);
    }
    if (!whole) return kStatusNoMemory;

    const size_t length = builder.sizeBytes() - 1;
    char* text = builder.release();
    const pelmoStatus kept = msgKeepBlock(msg, text);
    if (kept != kStatusSuccess) return kept;
    *out = text;
    *outLength = length;
    return kStatusSuccess;
}

}  // namespace

pelmoStatus pelmoMsg_ConvertToString(const pelmoMsg* msg, const char** out) {
    traceLine(kTraceMsgDetail, "pelmoMsg_ConvertToString(%p, %p)", tracePointer(msg),
              tracePointer(out));
    size_t length = 0;
    return textOf(msgForReading(msg), out, &length);
}

pelmoStatus pelmoMsg_ConvertToStringN(const pelmoMsg* msg, const char** out, size_t* outLength) {
    traceLine(kTraceMsgDetail, "pelmoMsg_ConvertToStringN(%p, %p)", tracePointer(msg),
              tracePointer(out));
    return textOf(msgForReading(msg), out, outLength);
}

pelmoStatus pelmoMsg_Print(const pelmoMsg* constMsg) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_Print(%p)", tracePointer(msg));
    const char* text = nullptr;
    const pelmoStatus status = pelmoMsg_ConvertToString(msg, &text);
    if (status == kStatusSuccess) std::fprintf(stderr, "%s\n", text);
    return status;
}
