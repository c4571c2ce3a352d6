// Any bytes as a daemon's reply to a start message, and the name of the session that it makes.

#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/daemon/interest.h"
#include "lib/transport/daemon/session.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr size_t kHeadBytes = 8;

// A session that has a name has inboxes of its own, and no others.
void checkName(SessionReply reply) {
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Buffer* buffer = bufferCreate(static_cast<uint32_t>(kHeadBytes + size));
    require(buffer != nullptr);
    storeBe32At(buffer->data, static_cast<uint32_t>(kHeadBytes + size));
    storeBe32At(buffer->data + 4, kMessageMagic);
    if (size != 0) std::memcpy(buffer->data + kHeadBytes, data, size);
    pelmoMsg* message = nullptr;
    require(msgCreateOverBuffer(&message, buffer, 0) == kStatusSuccess);
    SessionReply reply;
    if (sessionReadReply(&reply, message) == kStatusSuccess) checkName(reply);
    msgRelease(message);
    bufferRelease(buffer);
    return 0;
}
