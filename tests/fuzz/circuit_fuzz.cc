// Any bytes as a message of a circuit: what its handshake and its control inbox read of it, and
// what it carries, wrapped and unwrapped once more.

#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/envelope_internal.h"
#include "lib/transport/circuit/circuit_count.h"
#include "lib/transport/circuit/circuit_handshake.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr size_t kHeadBytes = 8;

void checkOffer(pelmoMsg* message, CircuitEnd end) {
    CircuitOffer offer;
    if (!handshakeTakes(end, CircuitState::kWaiting, message, &offer)) return;
    require(subjectIsValid(offer.controlInbox));
    require(!handshakeTakes(end, CircuitState::kConnected, message, &offer));
    char gone[kSubjectTextBytes];
    (void)handshakeUnreachableSubject(gone, offer.controlInbox);
    pelmoMsg* answer = nullptr;
    if (circuitBuildAcceptance(&answer, offer.answerTo, offer.controlInbox) != kStatusSuccess)
        return;
    CircuitOffer back;
    require(handshakeTakes(CircuitEnd::kConnecting, CircuitState::kWaiting, answer, &back));
    const size_t length = subjectLength(offer.controlInbox);
    require(std::memcmp(back.controlInbox, offer.controlInbox, length) == 0 && !back.isLegacy);
    msgRelease(answer);
}

bool sameText(pelmoMsg* one, pelmoMsg* other, pelmoStatus (*get)(pelmoMsg*, const char**)) {
    const char* texts[2] = {nullptr, nullptr};
    const bool areSame = get(one, &texts[0]) == get(other, &texts[1]);
    if (texts[0] == nullptr || texts[1] == nullptr) return areSame && texts[0] == texts[1];
    return areSame && std::strcmp(texts[0], texts[1]) == 0;
}

void checkSame(pelmoMsg* one, pelmoMsg* other) {
    require(sameText(one, other, pelmoMsg_GetSendSubject));
    require(sameText(one, other, pelmoMsg_GetReplySubject));
    uint32_t size = 0, otherSize = 0;
    const void* bytes = nullptr;
    const void* otherBytes = nullptr;
    require(pelmoMsg_GetByteSize(one, &size) == kStatusSuccess);
    require(pelmoMsg_GetByteSize(other, &otherSize) == kStatusSuccess && size == otherSize);
    require(pelmoMsg_GetAsBytes(one, &bytes) == kStatusSuccess);
    require(pelmoMsg_GetAsBytes(other, &otherBytes) == kStatusSuccess);
    require(std::memcmp(bytes, otherBytes, size) == 0);
}

void checkParcel(const CircuitRecords& records, bool isLegacy) {
    pelmoMsg* parcel = nullptr;
    if (circuitUnwrap(records, isLegacy, &parcel) != kStatusSuccess) return;
    HeldMessage held;
    CircuitParcel packed;
    require(circuitPack(parcel, &held, &packed) == kStatusSuccess);
    pelmoMsg* wrapped = nullptr;
    require(circuitBuildData(&wrapped, packed.subject, packed, 7, isLegacy) == kStatusSuccess);
    const CircuitRecords again(wrapped);
    require(circuitReadHead(again).kind == CircuitKind::kData);
    require(circuitReadHead(again).number == 7);
    pelmoMsg* back = nullptr;
    require(circuitUnwrap(again, isLegacy, &back) == kStatusSuccess);
    msgRelease(wrapped);
    checkSame(parcel, back);
    require(msgCloseEnvelope(back) == kStatusSuccess && msgOpenEnvelope(back) == kStatusSuccess);
    checkSame(parcel, back);
    msgRelease(back);
    msgRelease(parcel);
}

void checkControl(pelmoMsg* message) {
    const CircuitRecords records(message);
    const CircuitHead head = circuitReadHead(records);
    CircuitCount count = {};
    count.recvSeq = head.number - 1;
    const Arrival arrival = countArrival(count, head);
    require(arrival != Arrival::kGap && (head.hasNumber || arrival == Arrival::kInvalid));
    if (arrival != Arrival::kInvalid) require(countArrival(count, head) == Arrival::kGap);
    for (const bool isLegacy : {false, true})
        checkParcel(records, isLegacy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Buffer* buffer = bufferCreate(static_cast<uint32_t>(kHeadBytes + size));
    require(buffer != nullptr);
    storeBe32At(buffer->data, static_cast<uint32_t>(kHeadBytes + size));
    storeBe32At(buffer->data + 4, kMessageMagic);
    if (size != 0) std::memcpy(buffer->data + kHeadBytes, data, size);
    // As it comes off a transport within the process, and as a network transport has opened it.
    for (const bool opens : {false, true}) {
        pelmoMsg* message = nullptr;
        require(msgCreateOverBuffer(&message, buffer, 0) == kStatusSuccess);
        if (opens) (void)msgOpenEnvelope(message);
        checkOffer(message, CircuitEnd::kAccepting);
        checkOffer(message, CircuitEnd::kConnecting);
        checkControl(message);
        msgRelease(message);
    }
    bufferRelease(buffer);
    return 0;
}
