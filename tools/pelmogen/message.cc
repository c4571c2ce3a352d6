#include "tools/pelmogen/message.h"

#include <string>

namespace {

constexpr uint8_t kTypeMessage = 1;
constexpr uint8_t kTypeSubject = 2;
constexpr uint8_t kTypeString = 8;
constexpr uint8_t kPrefix16 = 121;
constexpr uint8_t kPrefix32 = 122;

void putStringField(ByteWriter& writer, std::string_view name, std::string_view text) {
    putFieldName(writer, name);
    put8(writer, kTypeString);
    putSizePrefix(writer, text.size() + 1);
    putText(writer, text);
}

void putEnvelope(ByteWriter& writer, const MessageShape& shape, Prng& prng) {
    messageBegin(writer);
    if (!shape.subject.empty()) {
        putFieldName(writer, "sub");
        put8(writer, kTypeSubject);
        put8(writer, kPrefix16);  // its word is the subject's own length
        putBytes(writer, shape.subject);
        if (shape.reply) {
            const std::string inbox = "_INBOX." + std::to_string(prngBelow(prng, kMillion));
            putStringField(writer, "return", inbox);
        }
        putStringField(writer, "mtype", "D");
    }
    putFieldName(writer, "data");
    put8(writer, kTypeMessage);
    put8(writer, kPrefix32);  // its word is the message's own length
}

void putFields(ByteWriter& writer, const MessageShape& shape, size_t end, Prng& prng) {
    const std::span<const FieldType> types = fieldTypes();
    for (uint32_t place = 1; place <= shape.fields && writer.used < end; ++place) {
        const size_t before = writer.used;
        putField(writer, types[shape.types[prngBelow(prng, shape.types.size())]], place, prng);
        if (writer.full || writer.used > end) {
            writerRewind(writer, before);
            return;
        }
    }
}

}  // namespace

bool putMessage(ByteWriter& writer, const MessageShape& shape, Prng& prng) {
    const size_t start = writer.used;
    const size_t end = start + shape.sizeBytes;
    putEnvelope(writer, shape, prng);
    const size_t data = writer.used;
    messageBegin(writer);
    if (!writer.full) {
        putFields(writer, shape, end, prng);
        putFiller(writer, end, prng);
    }
    if (writer.full) {
        writerRewind(writer, start);
        return false;
    }
    messageEnd(writer, data);
    messageEnd(writer, start);
    return true;
}
