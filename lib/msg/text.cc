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

// Converts the field to text. Returns false if there is no conversion.
bool becomesText(pelmoMsgField& field, Disposition& disposition) {
    const FieldConverter convert = fieldConverters[field.type];
    if (convert == nullptr || nestsTooDeep(field)) return false;
    return convert(field, FIELD_STRING, disposition) == kStatusSuccess;
}

bool addConverted(TextBuilder& out, pelmoMsgField field) {
    const bool isSubject = field.type == FIELD_SUBJECT;
    Disposition disposition = kDataByValue;
    if (!becomesText(field, disposition)) return out.add(kNoConverter);

    bool added = !isSubject || out.add("[");
    added = added && addBounded(out, field.data.pointer, field.size);
    added = added && (!isSubject || out.add("]"));
    if (disposition == kDataOwnedBlock) std::free(const_cast<void*>(field.data.pointer));
    return added;
}

// `shown` is set to whether the message at `image` could be rendered.
bool addElement(TextBuilder& out, const pelmoMsg* msg, const uint8_t* image, bool& shown) {
    const auto offset = static_cast<uint32_t>(image - msg->buffer->data);
    pelmoMsg* element = nullptr;
    const char* text = nullptr;
    shown = msgCreateOverBuffer(&element, msg->buffer, offset) == kStatusSuccess &&
            pelmoMsg_ConvertToString(element, &text) == kStatusSuccess;
    const bool added = !shown || out.add(text);
    msgRelease(element);
    return added;
}

// Makes an object and a text for one element at a time. An element can be as short as eight bytes,
// so an object for each of millions would exhaust memory.
bool addElements(TextBuilder& out, const pelmoMsg* msg, const pelmoMsgField& list) {
    if (nestsTooDeep(list)) return out.add(kNoConverter);
    const size_t begin = out.sizeBytes();
    if (!out.add("[")) return false;
    const auto* elements = static_cast<const uint8_t* const*>(list.data.pointer);
    for (uint32_t i = 0; i < list.count; ++i) {
        bool shown = true;
        if (i != 0 && !out.add(" ")) return false;
        if (!addElement(out, msg, elements[i], shown)) return false;
        if (shown) continue;
        out.cutTo(begin);
        return out.add(kNoConverter);
    }
    return out.add("]");
}

bool addMessageArray(TextBuilder& out, const pelmoMsg* msg, uint32_t position) {
    pelmoMsgField list;
    Disposition disposition = kDataByValue;
    if (msgDecodeField(msg, position, list, disposition) != kStatusSuccess) {
        return out.add(kNoDecoder);
    }
    const bool added = addElements(out, msg, list);
    std::free(const_cast<void*>(list.data.pointer));
    return added;
}

// The name is shown even if the value can't be read.
bool addField(TextBuilder& out, pelmoMsg* msg, uint32_t position) {
    const FieldIndexEntry& entry = msg->index[position];
    const char* image = reinterpret_cast<const char*>(msgImage(msg));
    pelmoMsgField head;
    head.name = entry.nameSize != 0 ? image + entry.nameOffset : nullptr;
    head.id = entry.id;
    if (!addLeftSide(out, head)) return false;
    if (msgImage(msg)[entry.nameOffset + entry.nameAreaSize] == FIELD_MSGARRAY) {
        return addMessageArray(out, msg, position);
    }

    pelmoMsgField field;
    if (msgReadField(msg, position, field, NameWanted::kNo) != kStatusSuccess) {
        return out.add(kNoDecoder);
    }
    return field.type == FIELD_STRING ? addQuoted(out, field) : addConverted(out, field);
}

// Each field adds a blank behind it; the last blank becomes the closing bracket. What was read for
// a field is released after it, so that millions of nested messages don't add up.
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

}  // namespace

pelmoStatus pelmoMsg_ConvertToString(pelmoMsg* msg, const char** out) {
    traceLine(kTraceMsgDetail, "pelmoMsg_ConvertToString(%p, %p)", tracePointer(msg),
              tracePointer(out));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    const pelmoStatus parsed = msgParse(msg);
    if (parsed != kStatusSuccess) return parsed;

    TextBuilder builder;
    bool whole;
    {
        const DepthGuard guard;
        whole = addAll(builder, msg);
    }
    if (!whole) return kStatusNoMemory;

    char* text = builder.release();
    const pelmoStatus kept = msgKeepBlock(msg, text);
    if (kept == kStatusSuccess) *out = text;
    return kept;
}

pelmoStatus pelmoMsg_Print(pelmoMsg* msg) {
    traceLine(kTraceMsgDetail, "pelmoMsg_Print(%p)", tracePointer(msg));
    const char* text = nullptr;
    const pelmoStatus status = pelmoMsg_ConvertToString(msg, &text);
    if (status == kStatusSuccess) std::fprintf(stderr, "%s\n", text);
    return status;
}
