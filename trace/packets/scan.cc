#include "trace/packets/scan.h"

#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "lib/msg/wire.h"
#include "trace/counts/charge.h"
#include "trace/counts/host_status.h"
#include "trace/packets/inspection.h"

namespace {

constexpr uint8_t kSubjectName[] = {'s', 'u', 'b', 0};

// What a step of the walk comes to.
enum class Walk {
    kGoOn,
    kEnd,    // nothing more can be read, and that is no fault
    kFault,  // logged
};

struct Message {
    const uint8_t* bytes;
    uint32_t declaredBytes;
    size_t inHand;  // of the declared ones
};

struct Field {
    const uint8_t* name;  // with its size
    const uint8_t* data;  // with its length word
    size_t dataBytes;
    uint8_t type;
    uint8_t sizeClass;
};

[[gnu::cold]] Walk messageFault(const ScanSource& source, Fault fault) {
    complain(fault, source.srcIp);
    return Walk::kFault;
}

// A message or field reaches past the bytes in hand.
Walk shortfall(const ScanSource& source) {
    return source.strict ? messageFault(source, Fault::kMessageFieldInvalid) : Walk::kEnd;
}

// Reads the field at the begin of `left`, which isn't empty.
Walk readField(const ScanSource& source, std::span<const uint8_t> left, Field& field) {
    const size_t typeOffset = size_t{1} + left[0];
    if (typeOffset + 2 > left.size()) return shortfall(source);
    field.name = left.data();
    field.type = left[typeOffset];
    field.sizeClass = left[typeOffset + 1];

    const size_t dataOffset = typeOffset + 2;
    const Cursor data{left.subspan(dataOffset)};
    field.data = data.left.data();
    if (field.sizeClass < kFirstLongSizeClass) {
        field.dataBytes = field.sizeClass;
    } else if (field.sizeClass == kSizeClass16) {
        if (!cursorHolds(data, 0, 2)) return shortfall(source);
        field.dataBytes = loadBe16(data, 0);
    } else if (field.sizeClass == kSizeClass32) {
        if (!cursorHolds(data, 0, 4)) return shortfall(source);
        field.dataBytes = loadBe32(data, 0);
    } else {
        return messageFault(source, Fault::kMessageFieldInvalid);
    }
    return cursorHolds(data, 0, field.dataBytes) ? Walk::kGoOn : shortfall(source);
}

bool isSubject(const Field& field) {
    return field.type == FIELD_SUBJECT && field.name[0] >= sizeof kSubjectName &&
           std::memcmp(field.name + 1, kSubjectName, sizeof kSubjectName) == 0;
}

// A subject without elements is well formed and names nothing: it isn't charged.
Walk chargeSubject(const ScanSource& source, const Message& message, const Field& field) {
    if (field.sizeClass != kSizeClass16) return messageFault(source, Fault::kMessageSubjectInvalid);
    const uint64_t sender = hostKey(source.srcIp, source.srcPort);
    const ChargeResult result =
        chargeMessage(source.net, sender, {field.data, field.dataBytes}, message.declaredBytes);
    if (result == ChargeResult::kInvalid)
        return messageFault(source, Fault::kMessageSubjectInvalid);
    if (result == ChargeResult::kNoMemory) return Walk::kEnd;
    if (message.inHand == message.declaredBytes && hostStatusMatch(field.data)) {
        hostStatusStore(source.net, message.bytes, message.declaredBytes);
    }
    return Walk::kGoOn;
}

// All fields are walked and tested, and each subject field is charged.
Walk walkFields(const ScanSource& source, const Message& message) {
    std::span<const uint8_t> left{message.bytes, message.inHand};
    left = left.subspan(kMessageHeadBytes);
    while (!left.empty()) {
        Field field{};
        Walk walk = readField(source, left, field);
        if (walk != Walk::kGoOn) return walk;
        if (isSubject(field)) {
            walk = chargeSubject(source, message, field);
            if (walk != Walk::kGoOn) return walk;
        }
        left = left.subspan(static_cast<size_t>(field.data - left.data()) + field.dataBytes);
    }
    return Walk::kGoOn;
}

Walk openMessage(const ScanSource& source, std::span<const uint8_t> left, Message& message) {
    const Cursor head{left};
    if (!cursorHolds(head, 0, kMessageHeadBytes)) {
        return source.strict ? messageFault(source, Fault::kMessageHeaderCut) : Walk::kEnd;
    }
    if (loadBe32(head, kMessageMagicOffset) != kMessageMagic)
        return messageFault(source, Fault::kMessageMagicInvalid);

    message = {left.data(), loadBe32(head, 0), left.size()};
    if (message.declaredBytes < kMessageHeadBytes) {
        return messageFault(source, Fault::kMessageLengthInvalid);
    }
    if (message.declaredBytes <= left.size()) {
        message.inHand = message.declaredBytes;
    } else if (source.strict) {
        return messageFault(source, Fault::kMessageLengthTooLarge);
    }
    return Walk::kGoOn;
}

}  // namespace

int scanMessages(const ScanSource& source, std::span<const uint8_t> payload) {
    for (auto left = payload; !left.empty();) {
        Message message{};
        Walk walk = openMessage(source, left, message);
        if (walk == Walk::kGoOn) walk = walkFields(source, message);
        if (walk != Walk::kGoOn) return walk == Walk::kFault ? 1 : 0;
        left = left.subspan(message.inHand);
    }
    return 0;
}
