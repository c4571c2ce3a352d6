#include "lib/transport/circuit/circuit_message.h"

#include <algorithm>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/wire.h"

namespace {

constexpr int32_t kVersionMajor = 8;
constexpr int32_t kVersionMinor = 5;
constexpr size_t kMostReplyChars = 254;

struct KindRow {
    CircuitKind kind;
    std::string_view text;
};

constexpr KindRow kKinds[] = {
    {CircuitKind::kRequest, "vctc"}, {CircuitKind::kAcceptance, "vcta"},
    {CircuitKind::kData, "vctd"},    {CircuitKind::kHeartbeat, "vcth"},
    {CircuitKind::kGoodbye, "vctb"},
};

// Writing. Records are laid down directly: a circuit wraps each message that it sends.

constexpr uint8_t kKindHead[] = {4, 'v', 'c', 't', 0, FIELD_STRING, 5};
constexpr uint8_t kNumberHead[] = {4, 'v', 'c', 'q', 0, WIRE_UINT, 8};
constexpr uint8_t kSubjectHead[] = {4, 'v', 'c', 's', 0, FIELD_SUBJECT, kSizeClass16};
constexpr uint8_t kReplyHead[] = {4, 'v', 'c', 'r', 0, FIELD_STRING};
constexpr uint8_t kControlHead[] = {6, 'c', 'm', 'r', 'e', 't', 0, FIELD_SUBJECT, kSizeClass16};
constexpr uint8_t kMajorHead[] = {5, 'v', 'm', 'a', 'j', 0, WIRE_INT, 4};
constexpr uint8_t kMinorHead[] = {5, 'v', 'm', 'i', 'n', 0, WIRE_INT, 4};

// More than the fixed parts of any message take, with both texts' prefixes.
constexpr uint32_t kFixedBytes = 128;
constexpr uint32_t kMostRecords = 7;

// Writes records to an image that has room for them.
class Writer {
  public:
    explicit Writer(pelmoMsg* msg) : msg_(msg), at_(msgImage(msg) + kMessageHeadBytes) {}

    void bytes(const void* from, size_t sizeBytes) {
        std::memcpy(at_, from, sizeBytes);
        at_ += sizeBytes;
    }
    // What a record begins with. It goes into the index, so that the message needn't be walked.
    template <size_t kBytes>
    void head(const uint8_t (&head)[kBytes]) {
        static_assert(kMostRecords <= kInlineIndexEntries);
        msg_->index[msg_->fieldCount++] = {
            .nameOffset = static_cast<uint32_t>(at_ + 1 - msgImage(msg_)),
            .nameSize = head[0],
            .nameAreaSize = head[0],
            .id = 0};
        bytes(head, kBytes);
    }
    template <size_t kBytes>
    void subject(const uint8_t (&recordHead)[kBytes], const uint8_t* packed) {
        head(recordHead);
        bytes(packed, subjectLength(packed));
    }
    template <size_t kBytes>
    void text(const uint8_t (&recordHead)[kBytes], std::string_view chars) {
        head(recordHead);
        pelmoWriteCursor cursor{at_, at_ + kMostPrefixBytes};
        if (writeSizePrefix(&cursor, chars.size() + 1) == kStatusSuccess) at_ = cursor.at;
        bytes(chars.data(), chars.size());
        *at_++ = 0;
    }
    void kind(CircuitKind kind) {
        head(kMtypeRecord);
        head(kKindHead);
        for (const KindRow& row : kKinds) {
            if (row.kind == kind) bytes(row.text.data(), row.text.size());
        }
        *at_++ = 0;
    }
    void number(uint64_t value) {
        head(kNumberHead);
        storeBe64At(at_, value);
        at_ += sizeof value;
    }
    void version() {
        head(kMajorHead);
        storeBe32At(at_, kVersionMajor);
        at_ += 4;
        head(kMinorHead);
        storeBe32At(at_, kVersionMinor);
        at_ += 4;
    }
    void end() {
        msg_->length = static_cast<uint32_t>(at_ - msgImage(msg_));
        msgFlush(msg_);
    }

  private:
    pelmoMsg* msg_;
    uint8_t* at_;
};

// A closed message, in which a transport looks for its "sub".
pelmoStatus create(pelmoMsg** out, const uint8_t* to, uint64_t extraBytes) {
    const uint64_t need = kFixedBytes + subjectLength(to) + extraBytes;
    return need <= UINT32_MAX ? msgCreateRaw(out, static_cast<uint32_t>(need)) : kStatusNoMemory;
}

pelmoStatus packInbox(uint8_t (&packed)[kSubjectMaxBytes], const char* text) {
    const int32_t length = subjectFromText(packed, sizeof packed, text);
    return length > static_cast<int32_t>(kSubjectHeadBytes) ? kStatusSuccess
                                                            : kStatusInvalidSubject;
}

// Reading

std::string_view textIn(const pelmoMsgField& field) {
    const auto* chars = static_cast<const char*>(field.data.pointer);
    if (chars == nullptr) return "";  // a value of no bytes
    return {chars, strnlen(chars, field.size)};
}

CircuitKind kindOf(std::string_view text) {
    for (const KindRow& row : kKinds) {
        if (row.text == text) return row.kind;
    }
    return CircuitKind::kOther;
}

// A subject as text, whether the field holds it packed or as a string.
pelmoStatus readInbox(const CircuitRecords& records,
                      CircuitRecords::Name name,
                      char (&text)[kSubjectTextBytes]) {
    pelmoMsgField field;
    if (records.read(name, FIELD_SUBJECT, &field) == kStatusSuccess) {
        subjectToText(text, sizeof text, static_cast<const uint8_t*>(field.data.pointer));
        return kStatusSuccess;
    }
    const pelmoStatus status = records.read(name, FIELD_STRING, &field);
    if (status != kStatusSuccess) return status;
    const std::string_view chars = textIn(field);
    if (chars.size() >= sizeof text) return kStatusInvalidSubject;
    std::memcpy(text, chars.data(), chars.size());
    text[chars.size()] = 0;
    return kStatusSuccess;
}

// 0 for no reply. Its text is read in place, so that its NUL has to be there.
pelmoStatus findReply(const CircuitRecords& records, CircuitRecords::Name name, uint32_t* out) {
    *out = 0;
    if (!records.has(name)) return kStatusSuccess;
    pelmoMsgField field;
    const pelmoStatus status = records.read(name, FIELD_STRING, &field);
    if (status != kStatusSuccess) return status;
    const size_t chars = textIn(field).size();
    if (chars == 0 || chars > kMostReplyChars) return kStatusInvalidSubject;
    if (chars + 1 != field.size) return kStatusCorruptMessage;
    *out = records.placeOf(field.data.pointer);
    return kStatusSuccess;
}

pelmoStatus findParcel(const CircuitRecords& records, bool fromLegacy, EnvelopePlaces* out) {
    pelmoMsgField field;
    pelmoStatus status = records.read(CircuitRecords::kVcs, FIELD_SUBJECT, &field);
    if (status != kStatusSuccess) return status;
    if (subjectElementCount(static_cast<const uint8_t*>(field.data.pointer)) == 0) {
        return kStatusInvalidSubject;
    }
    out->subject = records.placeOf(field.data.pointer);
    const auto reply = fromLegacy ? CircuitRecords::kReturn : CircuitRecords::kVcr;
    status = findReply(records, reply, &out->reply);
    if (status != kStatusSuccess) return status;
    status = records.read(CircuitRecords::kData, FIELD_MSG, &field);
    if (status != kStatusSuccess) return status;
    out->data = records.placeOf(field.data.pointer);
    return kStatusSuccess;
}

}  // namespace

pelmoStatus circuitBuildRequest(pelmoMsg** out,
                                const char* to,
                                const char* handshakeInbox,
                                const uint8_t* controlInbox) {
    uint8_t packed[kSubjectMaxBytes];
    pelmoStatus status = packInbox(packed, to);
    if (status != kStatusSuccess) return status;
    const std::string_view answerTo = handshakeInbox;
    status = create(out, packed, answerTo.size() + subjectLength(controlInbox));
    if (status != kStatusSuccess) return status;
    Writer writer(*out);
    writer.subject(kSubHead, packed);
    writer.kind(CircuitKind::kRequest);
    writer.text(kReturnHead, answerTo);
    writer.subject(kControlHead, controlInbox);
    writer.version();
    writer.end();
    return kStatusSuccess;
}

pelmoStatus circuitBuildAcceptance(pelmoMsg** out, const char* to, const uint8_t* controlInbox) {
    uint8_t packed[kSubjectMaxBytes];
    pelmoStatus status = packInbox(packed, to);
    if (status == kStatusSuccess) status = create(out, packed, subjectLength(controlInbox));
    if (status != kStatusSuccess) return status;
    Writer writer(*out);
    writer.subject(kSubHead, packed);
    writer.kind(CircuitKind::kAcceptance);
    writer.subject(kControlHead, controlInbox);
    writer.version();
    writer.end();
    return kStatusSuccess;
}

pelmoStatus circuitBuildSign(pelmoMsg** out, CircuitKind kind, const uint8_t* to, uint64_t number) {
    const pelmoStatus status = create(out, to, 0);
    if (status != kStatusSuccess) return status;
    Writer writer(*out);
    writer.subject(kSubHead, to);
    writer.kind(kind);
    writer.number(number);
    writer.end();
    return kStatusSuccess;
}

pelmoStatus circuitPack(pelmoMsg* message, HeldMessage* outHeld, CircuitParcel* out) {
    pelmoMsg* held = message;
    if (message->dataOffset != 0) {
        msgRetain(message);
    } else if (msgShareCopy(&held, message) != kStatusSuccess) {
        return kStatusNoMemory;
    }
    outHeld->reset(held);
    pelmoStatus status = msgOpenEnvelope(held);
    if (status == kStatusSuccess) status = msgParse(held);
    if (status != kStatusSuccess) return status;
    const uint8_t* const image = msgImage(held);
    const uint8_t* const subject = image + held->sendSubjectOffset;
    if (held->sendSubjectOffset == 0 || subjectElementCount(subject) == 0) {
        return kStatusInvalidSubject;
    }
    msgFlush(held);
    out->subject = subject;
    out->reply = {};
    if (held->replySubjectOffset != 0) {
        out->reply = reinterpret_cast<const char*>(image + held->replySubjectOffset);
    }
    out->image = {image + held->dataOffset, held->length - held->dataOffset};
    return out->reply.size() <= kMostReplyChars ? kStatusSuccess : kStatusInvalidSubject;
}

pelmoStatus circuitBuildData(pelmoMsg** out,
                             const uint8_t* to,
                             const CircuitParcel& parcel,
                             uint64_t number,
                             bool forLegacy) {
    const uint64_t parcelBytes =
        subjectLength(parcel.subject) + parcel.reply.size() + parcel.image.size();
    const pelmoStatus status = create(out, to, parcelBytes);
    if (status != kStatusSuccess) return status;
    Writer writer(*out);
    writer.subject(kSubHead, to);
    if (!parcel.reply.empty()) {
        if (forLegacy) {
            writer.text(kReturnHead, parcel.reply);
        } else {
            writer.text(kReplyHead, parcel.reply);
        }
    }
    writer.kind(CircuitKind::kData);
    writer.number(number);
    writer.subject(kSubjectHead, parcel.subject);
    writer.head(kDataHead);
    writer.bytes(parcel.image.data(), parcel.image.size());
    writer.end();
    return kStatusSuccess;
}

CircuitRecords::CircuitRecords(pelmoMsg* message) : message_(message) {
    constexpr std::string_view kFieldNames[kNames] = {"vct",   "vcq",  "vcs",  "vcr", "return",
                                                      "cmret", "vmaj", "vmin", "data"};
    msgCloseEnvelope(message);
    const uint8_t* at = msgImage(message) + kMessageHeadBytes;
    end_ = msgImage(message) + message->length;
    while (at < end_) {
        WireRecord record;
        const uint8_t* const next = wireRecordRead(at, end_, record);
        if (next == nullptr) {
            std::fill(types_, types_ + kNames, nullptr);
            return;
        }
        const uint32_t chars = record.nameSize - (record.nameSize != 0 ? 1 : 0);
        const std::string_view name(reinterpret_cast<const char*>(at + 1), chars);
        for (size_t i = 0; i < kNames; ++i) {
            if (types_[i] != nullptr || name != kFieldNames[i]) continue;
            types_[i] = at + 1 + record.nameAreaSize;
            break;
        }
        at = next;
    }
}

pelmoStatus CircuitRecords::read(Name name, uint8_t type, pelmoMsgField* out) const {
    const uint8_t* const at = types_[name];
    // The type is checked before the value: some would have to be taken apart.
    if (at == nullptr || *at != type) return kStatusNotFound;
    const pelmoFieldDecoder decode = fieldDecoders[type];
    if (decode == nullptr) return kStatusInvalidType;
    out->type = type;
    pelmoReadCursor cursor{at + 1, end_};
    pelmoDisposition disposition = kDataByValue;
    return decode(&cursor, out, &disposition);
}

CircuitHead circuitReadHead(const CircuitRecords& records) {
    CircuitHead head = {.kind = CircuitKind::kNone, .hasNumber = false, .number = 0};
    pelmoMsgField field;
    if (records.read(CircuitRecords::kVct, FIELD_STRING, &field) == kStatusSuccess) {
        head.kind = kindOf(textIn(field));
    }
    if (records.read(CircuitRecords::kVcq, WIRE_UINT, &field) == kStatusSuccess &&
        field.type == FIELD_U64) {
        head.number = field.data.u64;
        head.hasNumber = true;
    }
    return head;
}

pelmoStatus circuitReadOffer(const CircuitRecords& records, CircuitKind kind, CircuitOffer* out) {
    CircuitOffer offer;
    offer.answerTo[0] = 0;
    char control[kSubjectTextBytes];
    pelmoStatus status = readInbox(records, CircuitRecords::kCmret, control);
    if (status == kStatusSuccess && kind == CircuitKind::kRequest) {
        status = readInbox(records, CircuitRecords::kReturn, offer.answerTo);
    }
    if (status == kStatusSuccess) status = packInbox(offer.controlInbox, control);
    if (status != kStatusSuccess) return status;
    offer.isLegacy = !records.has(CircuitRecords::kVmaj) && !records.has(CircuitRecords::kVmin);
    *out = offer;
    return kStatusSuccess;
}

pelmoStatus circuitUnwrap(const CircuitRecords& records, bool fromLegacy, pelmoMsg** out) {
    EnvelopePlaces places{};
    const pelmoStatus status = findParcel(records, fromLegacy, &places);
    return status == kStatusSuccess ? msgCreateWithin(out, records.message(), places) : status;
}
