#include "pmd/incoming.h"

#include <cstring>

#include "lib/containers/subject.h"
#include "lib/msg/wire.h"

namespace {

template <size_t kNameBytes>
bool isNamed(const uint8_t* record, const WireRecord& head, const char (&name)[kNameBytes]) {
    return head.nameSize == kNameBytes && std::memcmp(record + 1, name, kNameBytes) == 0;
}

// A kind is one letter; longer words begin with none of them.
IncomingKind kindOf(const uint8_t* value, const uint8_t* next) {
    const bool isLetter = next - value >= 2 && value[1] == '\0';
    switch (isLetter ? value[0] : '\0') {
        case 'D':
            return IncomingKind::kData;
        case 'I':
            return IncomingKind::kStart;
        case 'L':
            return IncomingKind::kListen;
        case 'C':
            return IncomingKind::kUnlisten;
        case 'S':
            return IncomingKind::kControl;
        default:
            return IncomingKind::kOther;
    }
}

// The packed subject after the type of a field "sub"; null for one that is malformed or empty.
// Its size class and length were walked over already.
const uint8_t* subjectIn(const uint8_t* type) {
    const uint8_t* field = type + 1;
    if (!subjectFieldIsValid(field)) return nullptr;
    return subjectElementCount(field + 1) != 0 ? field + 1 : nullptr;
}

}  // namespace

Incoming incomingRead(std::span<const uint8_t> image) {
    constexpr Incoming kCorrupt = {IncomingKind::kCorrupt, nullptr};
    if (image.size() < kMessageHeadBytes) return kCorrupt;
    const uint8_t* at = image.data() + kMessageHeadBytes;
    const uint8_t* const end = image.data() + image.size();

    Incoming found = {IncomingKind::kData, nullptr};
    while (at != end) {
        WireRecord head;
        const uint8_t* const next = wireRecordRead(at, end, head);
        if (next == nullptr) return kCorrupt;
        const uint8_t* const type = at + 1 + head.nameAreaSize;
        if (isNamed(at, head, "sub") && *type == FIELD_SUBJECT) {
            found.subject = subjectIn(type);
            if (found.subject == nullptr) return kCorrupt;
        } else if (isNamed(at, head, "mtype") && *type == FIELD_STRING) {
            found.kind = kindOf(type + 2, next);
        }
        at = next;
    }
    if (found.kind == IncomingKind::kData && found.subject == nullptr) {
        found.kind = IncomingKind::kOther;
    }
    return found;
}
