#include "lib/transport/daemon/interest.h"

#include "lib/base/text.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"

pelmoStatus interestMessage(pelmoMsg** out, const uint8_t* subject, const char* kind) {
    pelmoMsg* message = nullptr;
    if (pelmoMsg_Create(&message) != kStatusSuccess) return kStatusNoMemory;
    HeldMessage held(message);
    if (pelmoMsg_AddString(message, "mtype", kind, 0) != kStatusSuccess ||
        pelmoMsg_AddSubject(message, "sub", subject, 0) != kStatusSuccess) {
        return kStatusNoMemory;
    }
    *out = held.release();
    return kStatusSuccess;
}

pelmoStatus interestOwnInboxes(uint8_t (&subject)[kSubjectMaxBytes], const char* session) {
    char text[kSubjectTextBytes];
    boundedFormat(text, sizeof text, "_INBOX.%s.>", session);
    return subjectFromText(subject, sizeof subject, text) >= 0 ? kStatusSuccess
                                                               : kStatusInvalidSubject;
}
