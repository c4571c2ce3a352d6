// Any bytes as a message, or as the fields of one: every field is read by each road, converted to
// every type, and added to another message, which then has the same text. The envelope is opened
// and changed, where it is one.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "lib/base/bytes.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/text.h"
#include "tests/fuzz/fuzz.h"

namespace {

// The rest is read as part of the text; lookups of each by name would take the square of them.
constexpr uint32_t kMostFields = 64;

std::string textOf(pelmoMsg* msg) {
    const ReferenceMark before = msgMark(msg);
    const char* text = nullptr;
    require(pelmoMsg_ConvertToString(msg, &text) == kStatusSuccess);
    const std::string copy = text;
    const ReferenceMark after = msgMark(msg);
    require(after.ownedBlocks == before.ownedBlocks + 1);
    require(after.subMessages == before.subMessages && after.bufferRefs == before.bufferRefs);
    msgCutBack(msg, before);
    return copy;
}

void convertToAll(const pelmoMsgField& field) {
    const pelmoFieldConverter convert = fieldConverters[field.type];
    if (convert == nullptr) return;
    for (unsigned target = 0; target <= FIELD_MSGARRAY; ++target) {
        if (target == field.type) continue;
        pelmoMsgField converted = field;
        pelmoDisposition disposition = kDataByValue;
        const pelmoStatus status = convert(&converted, static_cast<uint8_t>(target), &disposition);
        if (status != kStatusSuccess) continue;
        require(converted.type == target);
        if (target == FIELD_STRING) {
            const auto* text = static_cast<const char*>(converted.data.pointer);
            require(converted.size > 0 && text[converted.size - 1] == '\0');
        }
        if (disposition == kDataOwnedBlock) std::free(const_cast<void*>(converted.data.pointer));
    }
}

// Does what is written of the value read as it did?
bool isWrittenAsRead(const pelmoMsgField& field) {
    if (field.type == FIELD_BOOL) return field.data.boolean <= 1;
    return field.type != FIELD_DATETIME || field.data.dateTime.nanoseconds % 1000 == 0;
}

// True where all fields of the one could be added to the other as they are.
bool rebuild(pelmoMsg* from, pelmoMsg* to) {
    uint32_t count = 0;
    require(pelmoMsg_GetNumFields(from, &count) == kStatusSuccess);
    bool all = count <= kMostFields;
    for (uint32_t i = 0; i < std::min(count, kMostFields); ++i) {
        pelmoMsgField field;
        require(pelmoMsg_GetFieldBytes(from, &field, i) == kStatusSuccess);
        if (pelmoMsg_GetFieldByIndex(from, &field, i) != kStatusSuccess) {
            all = false;
            continue;
        }
        convertToAll(field);
        const uint32_t nameSize = from->index[i].nameSize;
        const bool textual = nameSize == 0 || std::strlen(field.name) + 1 == nameSize;
        // By its name there may be an earlier one, by its id a later one.
        pelmoMsgField found;
        static_cast<void>(pelmoMsg_GetFieldInstance(from, field.name, &found, 2));
        for (const uint16_t id : {uint16_t{0}, field.id}) {
            const pelmoStatus status = pelmoMsg_GetFieldEx(from, field.name, &found, id);
            require(!textual || status != kStatusNotFound);
        }
        all = pelmoMsg_AddField(to, &field) == kStatusSuccess && isWrittenAsRead(field) && all;
    }
    return all;
}

void checkFields(pelmoMsg* msg) {
    const std::string text = textOf(msg);
    pelmoMsg* rebuilt = nullptr;
    require(pelmoMsg_Create(&rebuilt) == kStatusSuccess);
    const bool all = rebuild(msg, rebuilt);
    const std::string rebuiltText = textOf(rebuilt);
    if (all) require(rebuiltText == text);
    require(pelmoMsg_Destroy(rebuilt) == kStatusSuccess);

    pelmoMsg* copy = nullptr;
    require(pelmoMsg_CreateCopy(msg, &copy) == kStatusSuccess);
    require(textOf(copy) == text && textOf(msg) == text);
    require(pelmoMsg_Destroy(copy) == kStatusSuccess);
}

// The calls of a type, on names that an envelope has too.
void useTyped(pelmoMsg* msg) {
    for (const char* name : {"sub", "return", "data", "n"}) {
        const char* text = nullptr;
        const uint8_t* subject = nullptr;
        int32_t number = 0;
        uint32_t size = 0;
        const void* bytes = nullptr;
        static_cast<void>(pelmoMsg_GetString(msg, name, &text, 0));
        static_cast<void>(pelmoMsg_GetSubject(msg, name, &subject, 0));
        static_cast<void>(pelmoMsg_GetI32(msg, name, &number, 0));
        static_cast<void>(pelmoMsg_GetOpaque(msg, name, &bytes, &size, 0));
        static_cast<void>(pelmoMsg_UpdateSubjectText(msg, name, "FUZZ.OTHER", 0));
        static_cast<void>(pelmoMsg_UpdateString(msg, name, "text", 0));
        static_cast<void>(pelmoMsg_UpdateI32(msg, name, number, 0));
        static_cast<void>(pelmoMsg_AddOpaque(msg, name, bytes, size, 0));
    }
}

void checkEnvelope(pelmoMsg* msg) {
    if (msgOpenEnvelope(msg) != kStatusSuccess) return;
    uint32_t count = 0;
    if (pelmoMsg_GetNumFields(msg, &count) == kStatusSuccess) checkFields(msg);
    const char* subject = nullptr;
    const char* reply = nullptr;
    uint16_t port = 0;
    const bool had = pelmoMsg_GetSendSubject(msg, &subject) == kStatusSuccess;
    require(had == (subject != nullptr));
    static_cast<void>(pelmoMsg_GetReplySubject(msg, &reply));
    static_cast<void>(pelmoMsg_GetSource(msg, &port));
    if (pelmoMsg_SetSendSubject(msg, "FUZZ.SUBJECT") == kStatusSuccess) {
        require(pelmoMsg_GetSendSubject(msg, &subject) == kStatusSuccess);
        // Of two subjects the first is changed and the last one counts.
        if (!had) require(std::strcmp(subject, "FUZZ.SUBJECT") == 0);
    }
    static_cast<void>(msgStripEnvelope(msg));
    require(msgCloseEnvelope(msg) == kStatusSuccess);
    textOf(msg);
    useTyped(msg);
}

void checkImage(const std::vector<uint8_t>& image) {
    pelmoMsg* msg = nullptr;
    if (pelmoMsg_CreateFromBytes(&msg, image.data()) != kStatusSuccess) return;
    uint32_t count = 0;
    if (pelmoMsg_GetNumFields(msg, &count) == kStatusSuccess) {
        checkFields(msg);
        checkEnvelope(msg);
    }
    require(pelmoMsg_Destroy(msg) == kStatusSuccess);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> image(data, data + size);
    if (size < kMessageHeadBytes || loadBe32At(data + 4) != kMessageMagic) {
        image.insert(image.begin(), kMessageHeadBytes, 0);
        storeBe32At(image.data(), static_cast<uint32_t>(image.size()));
        storeBe32At(image.data() + 4, kMessageMagic);
    }
    if (loadBe32At(image.data()) <= image.size()) checkImage(image);
    return 0;
}
