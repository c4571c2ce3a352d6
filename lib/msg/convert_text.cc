// Conversions of the types that convert to text only.

#include <cstdlib>
#include <cstring>

#include "lib/base/text.h"
#include "lib/base/timestamp.h"
#include "lib/containers/subject.h"
#include "lib/msg/convert.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/text.h"
#include "lib/msg/text_builder.h"

namespace {

constexpr size_t kSizeTextBytes = 64;

void becomeBlock(pelmoMsgField& field,
                 pelmoDisposition& disposition,
                 char* text,
                 size_t sizeBytes) {
    field.type = FIELD_STRING;
    field.size = static_cast<uint32_t>(sizeBytes);
    field.count = 1;
    field.data.pointer = text;
    disposition = kDataOwnedBlock;
}

// Adds the text of one list item.
using AddItem = pelmoStatus (*)(TextBuilder& out, const void* item);

pelmoStatus addQuoted(TextBuilder& out, const void* item) {
    const bool added = out.add("\"") && out.add(static_cast<const char*>(item)) && out.add("\"");
    return added ? kStatusSuccess : kStatusNoMemory;
}

pelmoMsg* asMessage(const void* item) {
    return static_cast<pelmoMsg*>(const_cast<void*>(item));
}

// The item's text is released at once: kept, the texts of a long list would add up.
pelmoStatus addMessageText(TextBuilder& out, const void* item) {
    pelmoMsg* message = asMessage(item);
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    const ReferenceMark before = msgMark(message);
    const char* text = nullptr;
    pelmoStatus status = pelmoMsg_ConvertToString(message, &text);
    if (status == kStatusSuccess && !out.add(text)) status = kStatusNoMemory;
    msgCutBack(message, before);
    return status;
}

// The items are in brackets, separated by one blank.
pelmoStatus becomeListText(pelmoMsgField& field, pelmoDisposition& disposition, AddItem addItem) {
    const auto* items = static_cast<const void* const*>(field.data.pointer);
    TextBuilder out;
    if (!out.add("[")) return kStatusNoMemory;
    for (uint32_t i = 0; i < field.count; ++i) {
        if (i != 0 && !out.add(" ")) return kStatusNoMemory;
        const pelmoStatus status = addItem(out, items[i]);
        if (status != kStatusSuccess) return status;
    }
    if (!out.add("]", 2)) return kStatusNoMemory;
    const size_t sizeBytes = out.sizeBytes();
    becomeBlock(field, disposition, out.release(), sizeBytes);
    return kStatusSuccess;
}

}  // namespace

pelmoStatus becomeText(pelmoMsgField& field, pelmoDisposition& disposition, const char* text) {
    const size_t sizeBytes = std::strlen(text) + 1;
    auto* block = static_cast<char*>(std::malloc(sizeBytes));
    if (block == nullptr) return kStatusNoMemory;
    std::memcpy(block, text, sizeBytes);
    becomeBlock(field, disposition, block, sizeBytes);
    return kStatusSuccess;
}

void becomeConstant(pelmoMsgField& field, pelmoDisposition& disposition, const char* text) {
    field.type = FIELD_STRING;
    field.size = static_cast<uint32_t>(std::strlen(text) + 1);
    field.count = 1;
    field.data.pointer = text;
    disposition = kDataByValue;
}

PELMO_CONVERTER_BODY(convertBad) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    becomeConstant(field, disposition, "[BADDATA]");
    return kStatusSuccess;
}

PELMO_CONVERTER_BODY(convertNone) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    becomeConstant(field, disposition, "[NONE]");
    return kStatusSuccess;
}

PELMO_CONVERTER_BODY(convertOpaque) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    char text[kSizeTextBytes];
    boundedFormat(text, sizeof text, "[%d opaque bytes]", static_cast<int>(field.size));
    return becomeText(field, disposition, text);
}

PELMO_CONVERTER_BODY(convertXml) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    char text[kSizeTextBytes];
    boundedFormat(text, sizeof text, "[XML document: %d bytes]", static_cast<int>(field.size));
    return becomeText(field, disposition, text);
}

PELMO_CONVERTER_BODY(convertDateTime) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    char text[kTimeStampBytes];
    char* cursor = text;
    dateTimeToText(field.data.dateTime, &cursor, sizeof text);
    return becomeText(field, disposition, text);
}

PELMO_CONVERTER_BODY(convertSubject) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    const auto* subject = static_cast<const uint8_t*>(field.data.pointer);
    const size_t sizeBytes = subjectLength(subject);
    auto* text = static_cast<char*>(std::malloc(sizeBytes));
    if (text == nullptr) return kStatusNoMemory;
    if (subjectToText(text, sizeBytes, subject) == nullptr) {
        std::free(text);
        return kStatusConversionFailed;
    }
    becomeBlock(field, disposition, text, std::strlen(text) + 1);
    return kStatusSuccess;
}

// The text belongs to the nested message.
PELMO_CONVERTER_BODY(convertMsg) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    const char* text = nullptr;
    const pelmoStatus status = pelmoMsg_ConvertToString(asMessage(field.data.pointer), &text);
    if (status == kStatusSuccess) becomeConstant(field, disposition, text);
    return status;
}

PELMO_CONVERTER_BODY(convertMsgArray) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    return becomeListText(field, disposition, addMessageText);
}

PELMO_CONVERTER_BODY(convertStringArray) {
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    return becomeListText(field, disposition, addQuoted);
}
