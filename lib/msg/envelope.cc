// Opening and closing the envelope, and reading from an open one.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_place.h"
#include "lib/msg/text.h"
#include "lib/msg/trace_ops.h"

namespace {

constexpr uint32_t kMostReplyBytes = 255;  // with its NUL
constexpr uint32_t kWrapBytes = 22;        // a head, and the field "_data_" around its value

// A field of the outer message.
struct EnvelopeField {
    const uint8_t* image;
    uint32_t typeOffset;
    uint32_t end;

    // The value follows the type byte and the size byte.
    [[nodiscard]] uint32_t valueOffset() const { return typeOffset + 2; }
};

pelmoStatus noteSendSubject(const EnvelopeField& field, EnvelopeView& view) {
    // The index has checked that the record contains as many bytes as the size prefix says, and the
    // size prefix of a subject is its own length.
    if (!subjectFieldIsValid(field.image + field.typeOffset + 1)) return kStatusCorruptMessage;
    if (field.image[field.typeOffset] == FIELD_SUBJECT) {
        view.sendSubjectOffset = field.valueOffset();
    }
    return kStatusSuccess;
}

pelmoStatus noteReplySubject(const EnvelopeField& field, EnvelopeView& view) {
    pelmoReadCursor value{field.image + field.typeOffset + 1, field.image + field.end};
    uint32_t sizeBytes = 0;
    if (readValueLength(value, sizeBytes) != kStatusSuccess) return kStatusCorruptMessage;
    if (sizeBytes == 0 || sizeBytes > kMostReplyBytes) return kStatusCorruptMessage;
    if (std::memchr(value.at, 0, sizeBytes) != value.at + sizeBytes - 1) {
        return kStatusCorruptMessage;
    }
    view.replySubjectOffset = static_cast<uint32_t>(value.at - field.image);
    return kStatusSuccess;
}

pelmoStatus noteMtype(const EnvelopeField& field, EnvelopeView& view) {
    view.mtypeOffset = field.valueOffset();
    return kStatusSuccess;
}

pelmoStatus noteSourcePort(const EnvelopeField& field, EnvelopeView& view) {
    view.sourcePortOffset = field.valueOffset();
    return kStatusSuccess;
}

struct EnvelopeName {
    std::string_view name;
    uint8_t flags;
    bool staysAtStrip;
    pelmoStatus (*note)(const EnvelopeField& field, EnvelopeView& view);
};

constexpr EnvelopeName kNames[] = {
    {"sub", 0, true, noteSendSubject},
    {"return", 0, true, noteReplySubject},
    {"mtype", 0, true, noteMtype},
    {"cid", 0, false, noteSourcePort},
    {"data", ENV_FOREIGN, true, nullptr},  // a field of that name that isn't the last
    {"e", 0, false, nullptr},
    {"ro", ENV_FOREIGN | ENV_SRC, false, nullptr},
    {"src", ENV_FOREIGN | ENV_SRC, false, nullptr},
    {"pmtx", ENV_FOREIGN | ENV_PMTX, false, nullptr},
    {"cmnam", ENV_FOREIGN | ENV_CMNAM, false, nullptr},
};
constexpr EnvelopeName kOtherName = {"", ENV_FOREIGN, false, nullptr};

bool nameIs(const pelmoMsg* msg, const FieldIndexEntry& entry, std::string_view name) {
    if (entry.nameSize != name.size() + 1) return false;
    const char* chars = reinterpret_cast<const char*>(msgImage(msg) + entry.nameOffset);
    return std::string_view(chars, name.size()) == name;
}

const EnvelopeName& envelopeName(std::string_view name) {
    for (const EnvelopeName& row : kNames) {
        if (name.size() != row.name.size()) continue;
        const auto* const own = reinterpret_cast<const uint8_t*>(row.name.data());
        if (sameShort(own, name.data(), static_cast<uint32_t>(name.size()))) return row;
    }
    return kOtherName;
}

pelmoStatus noteField(std::string_view name, const EnvelopeField& field, EnvelopeView& view) {
    const EnvelopeName& row = envelopeName(name);
    view.flags |= row.flags;
    return row.note != nullptr ? row.note(field, view) : kStatusSuccess;
}

// The field that becomes the nested message, and the number of fields before it.
struct DataField {
    uint32_t fieldsAhead;
    uint32_t typeOffset;
};

DataField lastField(const pelmoMsg* msg) {
    const uint32_t last = msg->fieldCount - 1;
    return {last, fieldTypeOffset(msg->index[last])};
}

// Moves a field to the end of the image, in place and in linear time. The id map is stale
// afterwards.
void moveLast(pelmoMsg* msg, uint32_t position) {
    uint8_t* image = msgImage(msg);
    FieldIndexEntry* entries = msg->index;
    const uint32_t begin = fieldRecordOffset(entries[position]);
    const uint32_t end = fieldEndOffset(msg, position);
    std::rotate(image + begin, image + end, image + msg->length);
    std::rotate(entries + position, entries + position + 1, entries + msg->fieldCount);
    for (uint32_t i = position; i + 1 < msg->fieldCount; ++i) {
        entries[i].nameOffset -= end - begin;
    }
    entries[msg->fieldCount - 1].nameOffset = msg->length - (end - begin) + 1;
}

pelmoStatus appendEmptyData(pelmoMsg* msg, DataField& data) {
    const pelmoStatus status = msgReserve(msg, sizeof kDataHead + kMessageHeadBytes);
    if (status != kStatusSuccess) return status;
    uint8_t* at = msgImage(msg) + msg->length;
    std::memcpy(at, kDataHead, sizeof kDataHead);
    storeBe32At(at + sizeof kDataHead, kMessageHeadBytes);
    storeBe32At(at + sizeof kDataHead + 4, kMessageMagic);
    msg->length += sizeof kDataHead;
    data = {msg->fieldCount, msg->length - 2};
    msg->length += kMessageHeadBytes;
    return kStatusSuccess;
}

// Makes "data" the last field: moves it there, or adds it.
pelmoStatus bringDataLast(pelmoMsg* msg, DataField& data) {
    if (!nameIs(msg, msg->index[msg->fieldCount - 1], kDataName)) {
        const pelmoStatus status = msgMakeWritable(msg);
        if (status != kStatusSuccess) return status;
        uint32_t position = 0;
        if (msgFind(msg, kDataName, 0, position) != kStatusSuccess) {
            return appendEmptyData(msg, data);
        }
        moveLast(msg, position);
    }
    data = lastField(msg);
    return kStatusSuccess;
}

// Makes a message with one field, "_data_", that has the value and the id of the last field.
pelmoStatus wrapLastValue(pelmoMsg* msg, HeldMessage& wrapped) {
    pelmoMsgField value;
    if (msgReadField(msg, msg->fieldCount - 1, value, NameWanted::kNo) != kStatusSuccess) {
        return kStatusInvalidMessage;
    }
    value.name = "_data_";
    pelmoMsg* made = nullptr;
    const pelmoStatus status =
        msgCreateRaw(&made, msg->length - lastField(msg).typeOffset + kWrapBytes);
    if (status != kStatusSuccess) return status;
    wrapped.reset(made);
    return pelmoMsg_AddField(made, &value) == kStatusSuccess ? kStatusSuccess
                                                             : kStatusInvalidMessage;
}

// The new record is first written after the old one and then moved over it, so that a failure
// leaves the old one intact.
pelmoStatus replaceLast(pelmoMsg* msg, pelmoMsg* wrapped, DataField& data) {
    if (msgMakeWritable(msg) != kStatusSuccess) return kStatusInvalidMessage;
    pelmoMsgField field;
    field.name = kDataName;
    field.type = FIELD_MSG;
    field.size = wrapped->length;
    field.data.pointer = wrapped;
    const uint32_t fresh = msg->length;
    if (msgAppendRecord(msg, field) != kStatusSuccess) return kStatusInvalidMessage;

    const uint32_t recordOffset = fieldRecordOffset(msg->index[data.fieldsAhead]);
    const uint32_t sizeBytes = msg->length - fresh;
    std::memmove(msgImage(msg) + recordOffset, msgImage(msg) + fresh, sizeBytes);
    msg->length = recordOffset + sizeBytes;
    data.typeOffset = recordOffset + sizeof kDataHead - 2;
    return kStatusSuccess;
}

pelmoStatus wrapData(pelmoMsg* msg, DataField& data) {
    const ReferenceMark before = msgMark(msg);
    HeldMessage wrapped;
    const pelmoStatus status = wrapLastValue(msg, wrapped);
    msgCutBack(msg, before);
    return status == kStatusSuccess ? replaceLast(msg, wrapped.get(), data) : status;
}

// The length in the nested head must be right, because the next flush overwrites it.
bool dataIsMessage(const uint8_t* type, const uint8_t* end) {
    pelmoReadCursor value{type + 1, end};
    pelmoMsgField field;
    pelmoDisposition disposition = kDataByValue;
    return decodeMsg(&value, &field, &disposition) == kStatusSuccess && value.at == end;
}

pelmoStatus openParsed(pelmoMsg* msg) {
    DataField data{};
    pelmoStatus status = bringDataLast(msg, data);
    if (status != kStatusSuccess) return status;
    if (msgImage(msg)[data.typeOffset] != FIELD_MSG) {
        status = wrapData(msg, data);
        if (status != kStatusSuccess) return status;
    }
    const uint8_t* const image = msgImage(msg);
    if (!dataIsMessage(image + data.typeOffset, image + msg->length)) return kStatusCorruptMessage;
    EnvelopeView view;
    status = envelopeScan(msg, data.fieldsAhead, view);
    if (status == kStatusSuccess) envelopeShow(msg, data.typeOffset + 2, view);
    return status;
}

// Closes the envelope for the lifetime of this object.
class ClosedForNow {
  public:
    explicit ClosedForNow(pelmoMsg* msg)
        : msg_(msg),
          dataOffset_(msg->dataOffset),
          view_{0, msg->sendSubjectOffset, msg->replySubjectOffset, msg->mtypeOffset,
                msg->sourcePortOffset} {
        msgCloseEnvelope(msg);
    }
    ~ClosedForNow() {
        if (dataOffset_ != 0) envelopeShow(msg_, dataOffset_, view_);
    }
    ClosedForNow(const ClosedForNow&) = delete;
    ClosedForNow& operator=(const ClosedForNow&) = delete;

  private:
    pelmoMsg* msg_;
    uint32_t dataOffset_;
    EnvelopeView view_;
};

pelmoStatus noText(const char** out) {
    *out = nullptr;
    return kStatusNotFound;
}

}  // namespace

pelmoStatus envelopeScan(const pelmoMsg* msg, uint32_t fieldCount, EnvelopeView& view) {
    EnvelopeView seen;
    for (uint32_t i = 0; i < fieldCount; ++i) {
        const EnvelopeField field{msgImage(msg), fieldTypeOffset(msg->index[i]),
                                  fieldEndOffset(msg, i)};
        const pelmoStatus status = noteField(msgFieldName(msg, i), field, seen);
        if (status != kStatusSuccess) return status;
    }
    view = seen;
    return kStatusSuccess;
}

uint32_t envelopeRead(std::span<const uint8_t> image, EnvelopeView& view) {
    const uint8_t* const begin = image.data();
    const uint8_t* const end = begin + image.size();
    view = {};
    for (const uint8_t* at = begin + kMessageHeadBytes; at < end;) {
        WireRecord record;
        const uint8_t* const next = wireRecordRead(at, end, record);
        if (next == nullptr) return 0;
        const std::string_view name = wireName(at, record);
        const EnvelopeField field{begin,
                                  static_cast<uint32_t>(at + 1 + record.nameAreaSize - begin),
                                  static_cast<uint32_t>(next - begin)};
        if (next == end) {
            const uint8_t* const type = begin + field.typeOffset;
            const bool isData = name == kDataName && *type == FIELD_MSG && dataIsMessage(type, end);
            return isData ? field.valueOffset() : 0;
        }
        if (noteField(name, field, view) != kStatusSuccess) return 0;
        at = next;
    }
    return 0;
}

void envelopeShow(pelmoMsg* msg, uint32_t dataOffset, const EnvelopeView& view) {
    msg->envelopeFlags |= view.flags;
    msg->sendSubjectOffset = view.sendSubjectOffset;
    msg->replySubjectOffset = view.replySubjectOffset;
    msg->mtypeOffset = view.mtypeOffset;
    msg->sourcePortOffset = view.sourcePortOffset;
    msg->dataOffset = dataOffset;
    msg->indexValid = 0;
    msgFlush(msg);
}

bool envelopeKeeps(const pelmoMsg* msg, const FieldIndexEntry& entry) {
    return envelopeName(msgEntryName(msg, entry)).staysAtStrip;
}

bool msgHasEnvelope(pelmoMsg* msg) {
    if (!msgIsValid(msg) || msg->dataOffset != 0) return false;
    if (msgParse(msg) != kStatusSuccess || msg->fieldCount == 0) return false;
    return nameIs(msg, msg->index[msg->fieldCount - 1], kDataName) &&
           msgImage(msg)[lastField(msg).typeOffset] == FIELD_MSG;
}

pelmoStatus msgOpenEnvelope(pelmoMsg* msg) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (msg->dataOffset != 0) return kStatusSuccess;
    pelmoStatus status = msgParse(msg);
    if (status != kStatusSuccess || msg->fieldCount == 0) return status;
    status = openParsed(msg);
    msg->indexValid = 0;  // the index lists the outer fields, or fields that have moved
    return status;
}

pelmoStatus msgCloseEnvelope(pelmoMsg* msg) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (msg->dataOffset == 0) return kStatusSuccess;
    const pelmoStatus status = envelopeMakeOwn(msg);
    if (status != kStatusSuccess) return status;
    msgFlush(msg);
    msgShowOuter(msg);
    return kStatusSuccess;
}

pelmoStatus msgCopyWithEnvelope(pelmoMsg* msg, pelmoMsg** out) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    pelmoMsg* copy = nullptr;
    pelmoStatus status = envelopeMakeOwn(msg);
    if (status == kStatusSuccess) status = msgShareCopy(out != nullptr ? &copy : nullptr, msg);
    if (status != kStatusSuccess) return status;
    msgShowOuter(copy);
    *out = copy;
    return kStatusSuccess;
}

bool msgHasForeign(const pelmoMsg* msg) {
    if (!msgIsValid(msg)) return false;
    return (msg->envelopeFlags & ENV_FOREIGN) != 0 || msg->envelopeIsLent;
}

pelmoStatus msgClearForeign(pelmoMsg* msg) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    msg->envelopeFlags &= static_cast<uint8_t>(~ENV_FOREIGN);
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_GetSendSubject(const pelmoMsg* constMsg, const char** out) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetSendSubject(%p, %p)", tracePointer(msg),
              tracePointer(out));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    if (msg->sendSubjectOffset == 0) return noText(out);
    const uint8_t* subject = msgImage(msg) + msg->sendSubjectOffset;
    // The text with its dots and NUL is never longer than the packed form.
    const size_t sizeBytes = subjectLength(subject);
    auto* text = static_cast<char*>(std::malloc(sizeBytes));
    if (text == nullptr) return kStatusNoMemory;
    if (subjectToText(text, sizeBytes, subject) == nullptr) {
        std::free(text);
        return kStatusInvalidSubject;
    }
    const pelmoStatus status = msgKeepBlock(msg, text);
    if (status == kStatusSuccess) *out = text;
    return status;
}

pelmoStatus pelmoMsg_GetReplySubject(const pelmoMsg* constMsg, const char** out) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetReplySubject(%p, %p)", tracePointer(msg),
              tracePointer(out));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    if (msg->replySubjectOffset == 0) return noText(out);
    const uint8_t* reply = msgImage(msg) + msg->replySubjectOffset;
    const size_t sizeBytes = std::strlen(reinterpret_cast<const char*>(reply)) + 1;
    auto* text = static_cast<char*>(std::malloc(sizeBytes));
    if (text == nullptr) return kStatusNoMemory;
    std::memcpy(text, reply, sizeBytes);
    const pelmoStatus status = msgKeepBlock(msg, text);
    if (status == kStatusSuccess) *out = text;
    return status;
}

pelmoStatus pelmoMsg_GetSource(const pelmoMsg* constMsg, uint16_t* out) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetSource(%p, %p)", tracePointer(msg), tracePointer(out));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    const uint32_t offset = msg->sourcePortOffset;
    // The fields may have changed since a close. The offset may then point to other bytes, but they
    // are still bytes of the image.
    if (offset == 0 || offset > msg->length - sizeof *out) return kStatusNotFound;
    *out = loadBe16At(msgImage(msg) + offset);
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_PrintEnvelope(const pelmoMsg* constMsg) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_PrintEnvelope(%p)", tracePointer(msg));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    const char* text = nullptr;
    pelmoStatus status = envelopeMakeOwn(msg);
    if (status != kStatusSuccess) return status;
    {
        const ClosedForNow closed(msg);
        status = pelmoMsg_ConvertToString(msg, &text);
    }
    if (status == kStatusSuccess) std::fprintf(stderr, "%s\n", text);
    return status;
}

namespace {

using TextGetter = pelmoStatus (*)(const pelmoMsg* msg, const char** out);

pelmoStatus readWithLength(TextGetter get,
                           const pelmoMsg* msg,
                           const char** out,
                           size_t* outLength) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (outLength == nullptr) return kStatusInvalidArgument;
    const pelmoStatus status = get(msg, out);
    if (status == kStatusSuccess) *outLength = std::strlen(*out);
    return status;
}

}  // namespace

pelmoStatus pelmoMsg_GetSendSubjectN(const pelmoMsg* msg, const char** out, size_t* outLength) {
    return readWithLength(pelmoMsg_GetSendSubject, msg, out, outLength);
}

pelmoStatus pelmoMsg_GetReplySubjectN(const pelmoMsg* msg, const char** out, size_t* outLength) {
    return readWithLength(pelmoMsg_GetReplySubject, msg, out, outLength);
}
