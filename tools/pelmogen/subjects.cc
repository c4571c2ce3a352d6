#include "tools/pelmogen/subjects.h"

#include <array>
#include <string>

#include "tools/pelmogen/prng.h"

namespace {

constexpr size_t kHeadBytes = 3;
constexpr size_t kElementExtraBytes = 2;
// The digits of the highest subject number.
constexpr uint32_t kNumberDigitsMax = 7;
// The binary logarithm of how many subjects share all but their last element.
constexpr uint32_t kBranchBits = 3;

void putElement(ByteWriter& writer, std::string_view text) {
    put8(writer, static_cast<uint8_t>(text.size() + kElementExtraBytes));
    putText(writer, text);
}

std::string letters(Prng& prng, size_t count) {
    std::string text(count, ' ');
    for (char& letter : text) {
        letter = static_cast<char>('A' + prngBelow(prng, 26));
    }
    return text;
}

void putSubject(ByteWriter& writer, const GeneratorOptions& options, uint32_t number) {
    const size_t start = writer.used;
    Prng shape = prngMake(hash64(options.seed, number >> kBranchBits));
    const uint32_t count = prngBetween(shape, options.elements.low, options.elements.high);
    putBe16(writer, 0);
    put8(writer, static_cast<uint8_t>(count));

    for (uint32_t level = 0; level < count; ++level) {
        // The nearer an element is to the front, the more subjects share it.
        const uint32_t shift = kBranchBits * (count - 1 - level);
        const uint64_t group = shift < 32 ? number >> shift : 0;
        Prng prng = prngMake(hash64(options.seed + level, group));
        const Range lengths = options.elementLength;
        size_t length = prngBetween(prng, lengths.low, lengths.high);
        std::string digits;
        if (level == count - 1) digits = std::to_string(number);
        length = length > digits.size() ? length - digits.size() : 0;
        putElement(writer, letters(prng, length) + digits);
    }
    storeBe16At(writer.room.data() + start, static_cast<uint16_t>(writer.used - start));
}

}  // namespace

uint64_t subjectBytesMax(const GeneratorOptions& options) {
    const uint64_t longest = options.elementLength.high;
    const uint64_t last = longest > kNumberDigitsMax ? longest : kNumberDigitsMax;
    return kHeadBytes + (options.elements.high - 1) * (longest + kElementExtraBytes) + last +
           kElementExtraBytes;
}

SubjectTable subjectTableMake(const GeneratorOptions& options) {
    SubjectTable table;
    table.starts.reserve(options.subjects + 1);
    std::array<uint8_t, kSendSubjectBytesMax> room;
    for (uint32_t number = 0; number < options.subjects; ++number) {
        ByteWriter writer{room};
        putSubject(writer, options, number);
        table.starts.push_back(static_cast<uint32_t>(table.bytes.size()));
        table.bytes.insert(table.bytes.end(), room.data(), room.data() + writer.used);
    }
    table.starts.push_back(static_cast<uint32_t>(table.bytes.size()));
    return table;
}

void putHostStatusSubject(ByteWriter& writer, uint32_t host) {
    const size_t start = writer.used;
    putBe16(writer, 0);
    put8(writer, 5);
    for (const char* element : {"_PM", "INFO", "SYSTEM", "HOST"}) {
        putElement(writer, element);
    }
    putElement(writer, "H" + std::to_string(host));
    if (writer.full) return;
    storeBe16At(writer.room.data() + start, static_cast<uint16_t>(writer.used - start));
}
