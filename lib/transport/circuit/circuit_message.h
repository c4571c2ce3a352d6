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

// Where the fields of a circuit's message are in its image: the first one of each name, found in
// one walk. None is found in a message that doesn't walk.
class CircuitRecords {
  public:
    enum Name : uint8_t { kVct, kVcq, kVcs, kVcr, kReturn, kCmret, kVmaj, kVmin, kData, kNames };

    // Shows the outer fields of a message that a transport has opened. The message is borrowed.
    explicit CircuitRecords(pelmoMsg* message);

    [[nodiscard]] bool has(Name name) const { return types_[name] != nullptr; }

    // kStatusNotFound also for a field of another type.
    [[nodiscard]] pelmoStatus read(Name name, uint8_t type, pelmoMsgField* out) const;

    // Of what a read has given.
    [[nodiscard]] uint32_t placeOf(const void* value) const {
        return static_cast<uint32_t>(static_cast<const uint8_t*>(value) - msgImage(message_));
    }
    [[nodiscard]] pelmoMsg* message() const { return message_; }

  private:
    pelmoMsg* message_;
    const uint8_t* types_[kNames] = {};  // the type byte, which the value follows
    const uint8_t* end_;                 // of the image
};

// What all messages have.
struct CircuitHead {
    CircuitKind kind;
    bool hasNumber;
    uint64_t number;
};
[[nodiscard]] CircuitHead circuitReadHead(const CircuitRecords& records);

// Of a request or an acceptance.
struct CircuitOffer {
    uint8_t controlInbox[kSubjectMaxBytes];  // packed
    char answerTo[kSubjectTextBytes];        // of a request
    bool isLegacy;
};
[[nodiscard]] pelmoStatus circuitReadOffer(const CircuitRecords& records,
                                           CircuitKind kind,
                                           CircuitOffer* out);

// The message that a data message carries, with an envelope of its own. It lies within the image,
// so that nothing is copied.
[[nodiscard]] pelmoStatus circuitUnwrap(const CircuitRecords& records,
                                        bool fromLegacy,
                                        pelmoMsg** out);
