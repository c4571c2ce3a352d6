// Any bytes from outside into what reads them first. The first byte of an input chooses the reader.

#include <algorithm>
#include <cstring>
#include <span>
#include <string>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/circuit/circuit_count.h"
#include "lib/transport/circuit/circuit_handshake.h"
#include "lib/transport/daemon/interest.h"
#include "lib/transport/daemon/session.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/stream_run.h"

namespace {

using Input = std::span<const uint8_t>;

// A message with these bytes as its fields; the caller's.
pelmoMsg* messageAround(Input fields) {
    constexpr size_t kHeadBytes = 8;
    const auto sizeBytes = static_cast<uint32_t>(kHeadBytes + fields.size());
    Buffer* buffer = bufferCreate(sizeBytes);
    require(buffer != nullptr);
    storeBe32At(buffer->data, sizeBytes);
    storeBe32At(buffer->data + 4, kMessageMagic);
    std::copy(fields.begin(), fields.end(), buffer->data + kHeadBytes);
    pelmoMsg* message = nullptr;
    require(msgCreateOverBuffer(&message, buffer, 0) == kStatusSuccess);
    bufferRelease(buffer);
    return message;
}

// A session that has a name has inboxes of its own, and no others.
void checkSessionName(SessionReply reply) {
    if (reply.gob[0] == 0) sessionMakeGob(reply.gob, {&reply, 1, 2});
    char session[kMostSessionChars + 1];
    const SessionParts parts = {.address = reply.address,
                                .directPort = reply.port,
                                .clientId = reply.clientId,
                                .gob = reply.gob};
    if (sessionName(session, parts) != kStatusSuccess) return;
    uint8_t inboxes[kSubjectMaxBytes];
    require(interestOwnInboxes(inboxes, session) == kStatusSuccess);
    const uint32_t elements = subjectElementCount(inboxes);
    require(elements > 2 && std::strcmp(subjectElement(inboxes, elements), ">") == 0);
    for (uint32_t i = 1; i < elements; ++i) {
        require(std::strcmp(subjectElement(inboxes, i), "*") != 0);
        require(std::strcmp(subjectElement(inboxes, i), ">") != 0);
    }
}

// A daemon's reply to a start message, and the name of the session that it makes.
void tryReply(Input data) {
    const HeldMessage message(messageAround(data));
    SessionReply reply;
    if (sessionReadReply(&reply, message.get()) == kStatusSuccess) checkSessionName(reply);
}

// The stream of a connection: split at random, or taken unit by unit, it gives the same messages
// and the same verdict as in large pieces.
void tryStream(Input data) {
    constexpr uint32_t kMostMessageBytes = 0x30000;
    if (data.size() < 2) return;
    uint32_t seed = data[0] * 256u + data[1];
    const std::string_view stream(reinterpret_cast<const char*>(data.data()) + 2, data.size() - 2);
    const uint32_t smallBuffer = 8 + seed % 512;
    const auto whole = [] { return kMostReadBytes; };
    const auto random = [&seed] {
        seed = seed * 1'103'515'245u + 12'345u;
        return (seed >> 16) % ((seed & 0x100) != 0 ? 9u : 300u);
    };
    const CutStream expected = cutStream(stream, kReadBufferBytes, kMostMessageBytes, false, whole);
    require(expected.mostOver == 0);
    require(cutStream(stream, smallBuffer, kMostMessageBytes, false, random) == expected);
    require(cutStream(stream, kReadBufferBytes, kMostMessageBytes, true, random) == expected);
}

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

// Its subjects and its bytes.
std::string contentsOf(pelmoMsg* message) {
    std::string contents;
    for (const auto get : {pelmoMsg_GetSendSubject, pelmoMsg_GetReplySubject}) {
        const char* text = nullptr;
        contents += std::to_string(get(message, &text)) + (text != nullptr ? text : "none") + "\n";
    }
    const void* bytes = nullptr;
    uint32_t size = 0;
    require(pelmoMsg_GetByteSize(message, &size) == kStatusSuccess);
    require(pelmoMsg_GetAsBytes(message, &bytes) == kStatusSuccess);
    return contents.append(static_cast<const char*>(bytes), size);
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
    require(contentsOf(parcel) == contentsOf(back));
    require(msgCloseEnvelope(back) == kStatusSuccess && msgOpenEnvelope(back) == kStatusSuccess);
    require(contentsOf(parcel) == contentsOf(back));
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

// A message of a circuit: what its handshake and its control inbox read of it, and what it carries,
// wrapped and unwrapped once more; as it comes off a transport within the process, and as a network
// transport has opened it.
void tryCircuit(Input data) {
    for (const bool opens : {false, true}) {
        const HeldMessage message(messageAround(data));
        if (opens) (void)msgOpenEnvelope(message.get());
        checkOffer(message.get(), CircuitEnd::kAccepting);
        checkOffer(message.get(), CircuitEnd::kConnecting);
        checkControl(message.get());
    }
}

constexpr void (*kReaders[])(Input) = {tryReply, tryStream, tryCircuit};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size != 0) kReaders[data[0] % std::size(kReaders)]({data + 1, size - 1});
    return 0;
}
