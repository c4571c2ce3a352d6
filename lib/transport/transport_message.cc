// What a transport reads of a message: its subject, and which part of it is sent.

#include <cstring>

#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/transport_internal.h"

namespace {

// Keeps the envelope open for its own lifetime.
class OpenForNow {
  public:
    explicit OpenForNow(pelmoMsg* msg)
        : msg_(msg), wasOpen_(msg->dataOffset != 0), status_(msgOpenEnvelope(msg)) {}
    ~OpenForNow() {
        if (!wasOpen_) msgCloseEnvelope(msg_);
    }
    OpenForNow(const OpenForNow&) = delete;
    OpenForNow& operator=(const OpenForNow&) = delete;

    [[nodiscard]] pelmoStatus status() const { return status_; }

  private:
    pelmoMsg* msg_;
    bool wasOpen_;
    pelmoStatus status_;
};

pelmoStatus copySubjects(pelmoMsg* from, pelmoMsg* to) {
    const char* send = nullptr;
    pelmoStatus status = pelmoMsg_GetSendSubject(from, &send);
    if (status != kStatusSuccess) return status;
    status = pelmoMsg_SetSendSubject(to, send);
    if (status != kStatusSuccess) return status;
    const char* reply = nullptr;
    status = pelmoMsg_GetReplySubject(from, &reply);
    if (status == kStatusNotFound) return kStatusSuccess;
    return status == kStatusSuccess ? pelmoMsg_SetReplySubject(to, reply) : status;
}

// The application's fields in a new plain envelope.
pelmoStatus copyPlain(pelmoMsg* message, pelmoMsg** out) {
    const OpenForNow open(message);
    if (open.status() != kStatusSuccess) return kStatusNoMemory;
    pelmoMsg* copy = nullptr;
    if (pelmoMsg_CreateCopy(message, &copy) != kStatusSuccess) return kStatusNoMemory;
    const ReferenceMark before = msgMark(message);
    const pelmoStatus status = copySubjects(message, copy);
    msgCutBack(message, before);
    if (status != kStatusSuccess) {
        msgRelease(copy);
        return kStatusNoMemory;
    }
    *out = copy;
    return kStatusSuccess;
}

}  // namespace

pelmoStatus messageSubject(pelmoMsg* message, const uint8_t** out) {
    if (message->sendSubjectOffset != 0) {
        *out = msgImage(message) + message->sendSubjectOffset;
        return kStatusSuccess;
    }
    const ReferenceMark before = msgMark(message);
    pelmoMsgField field;
    const pelmoStatus status = pelmoMsg_GetFieldEx(message, "sub", &field, 0);
    msgCutBack(message, before);
    if (status != kStatusSuccess || field.type != FIELD_SUBJECT) return kStatusInvalidSubject;
    *out = static_cast<const uint8_t*>(field.data.pointer);
    return kStatusSuccess;
}

bool subjectElementEquals(const uint8_t* subject, uint32_t index, const char* word) {
    const char* text = subjectElement(subject, index);
    return text != nullptr && std::strcmp(text, word) == 0;
}

bool subjectIsInbox(const uint8_t* subject) {
    return subjectElementEquals(subject, 1, "_INBOX");
}

bool subjectIsDaemonInbox(const uint8_t* subject) {
    return subjectIsInbox(subject) && (subjectElementEquals(subject, 3, "DAEMON") ||
                                       subjectElementEquals(subject, 3, "ROUTED") ||
                                       subjectElementEquals(subject, 4, "ROUTED"));
}

bool subjectIsReserved(const uint8_t* subject) {
    return subjectElementEquals(subject, 1, "_PM");
}

bool subjectIsAdvisory(const uint8_t* subject, bool infoToo) {
    if (!subjectIsReserved(subject)) return false;
    return subjectElementEquals(subject, 2, "WARN") || subjectElementEquals(subject, 2, "ERROR") ||
           (infoToo && subjectElementEquals(subject, 2, "INFO"));
}

pelmoStatus transportMakeReady(Transport* transport, pelmoMsg* message, pelmoMsg** out) {
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    const uint8_t* subject = nullptr;
    const pelmoStatus status = messageSubject(message, &subject);
    if (status != kStatusSuccess) return status;
    if (!transport->reservedAllowed && subjectIsReserved(subject)) {
        return kStatusInvalidSubject;
    }
    if (msgHasForeign(message)) return copyPlain(message, out);
    msgRetain(message);
    *out = message;
    return kStatusSuccess;
}
