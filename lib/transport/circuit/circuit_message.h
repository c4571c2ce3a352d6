// The messages of circuits, which are fields of an outer message, in this order:
//
//     request     sub, mtype "D", vct "vctc", return, cmret, vmaj, vmin
//     acceptance  sub, mtype "D", vct "vcta", cmret, vmaj, vmin
//     data        sub, [vcr], mtype "D", vct "vctd", vcq, vcs, data
//     heartbeat   sub, mtype "D", vct "vcth", vcq
//     goodbye     sub, mtype "D", vct "vctb", vcq
//
// `return` is the sender's handshake inbox as text, `cmret` its control inbox, packed; `vmaj` and
// `vmin` are the version that it speaks, and a peer without them is of an older kind. `vcq` is the
// number of the message in its direction, 64 bits; `vcs` the packed send subject of the message
// that `data` carries, `vcr` its reply subject as text. An older peer knows that one as `return`.
// `data` has the application's own fields alone: unwrapping puts an envelope around them.
//
// What arrives is hostile. A field of another type than the table's counts as missing; for the
// texts of a handshake either form of a subject will do.
//
// Ownership: builders give messages that the caller releases. What a reading points to belongs to
// the message that was read, and is good until it changes.
//
// Failure: kStatusInvalidSubject, kStatusCorruptMessage, kStatusNotFound for a missing field,
// kStatusNoMemory. Outputs are written only on success.
//
// Threads: as messages.

#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "lib/base/status.h"
#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"

enum class CircuitKind : uint8_t {
    kNone,   // there is no `vct`
    kOther,  // it is none of these
    kRequest,
    kAcceptance,
    kData,
    kHeartbeat,
    kGoodbye,
};

// Building. `to` is the receiver's inbox.

[[nodiscard]] pelmoStatus circuitBuildRequest(pelmoMsg** out,
                                              const char* to,
                                              const char* handshakeInbox,
                                              const uint8_t* controlInbox);
[[nodiscard]] pelmoStatus circuitBuildAcceptance(pelmoMsg** out,
                                                 const char* to,
                                                 const uint8_t* controlInbox);

// Heartbeats and goodbyes.
[[nodiscard]] pelmoStatus circuitBuildSign(pelmoMsg** out,
                                           CircuitKind kind,
                                           const uint8_t* to,
                                           uint64_t number);

// What a data message carries.
struct CircuitParcel {
    const uint8_t* subject;  // packed
    std::string_view reply;  // empty for none
    std::span<const uint8_t> image;
};

// Reads the parcel from a message that is about to be sent. `message` keeps what the parcel points
// to: it is the message itself, with a reference more, or an open copy of one that was closed.
// kStatusInvalidSubject without a send subject, kStatusCorruptMessage for fields that don't walk.
[[nodiscard]] pelmoStatus circuitPack(pelmoMsg* message, HeldMessage* outHeld, CircuitParcel* out);

[[nodiscard]] pelmoStatus circuitBuildData(pelmoMsg** out,
                                           const uint8_t* to,
                                           const CircuitParcel& parcel,
                                           uint64_t number,
                                           bool forLegacy);

// Reading

// Shows the outer fields of a message that a transport has opened, and reads what all have.
struct CircuitHead {
    CircuitKind kind;
    bool hasNumber;
    uint64_t number;
};
[[nodiscard]] CircuitHead circuitReadHead(pelmoMsg* message);

// Of a request or an acceptance whose head was read.
struct CircuitOffer {
    uint8_t controlInbox[kSubjectMaxBytes];  // packed
    char answerTo[kSubjectTextBytes];        // of a request
    bool isLegacy;
};
[[nodiscard]] pelmoStatus circuitReadOffer(pelmoMsg* message, CircuitKind kind, CircuitOffer* out);

// The message that a data message carries, with an envelope of its own; the head was read.
[[nodiscard]] pelmoStatus circuitUnwrap(pelmoMsg* message, bool fromLegacy, pelmoMsg** out);
