#include "lib/transport/daemon/session.h"

#include <strings.h>

#include <cstdio>

#include "lib/base/bytes.h"
#include "lib/base/text.h"
#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"

namespace {

constexpr const char* kStartKind = "I";
constexpr char kReplyKind = 'R';
constexpr const char* kRoutingType = "ZOK";
constexpr uint32_t kStartBytes = 512;  // room at first

// The fields of a start message, in order.
struct StartField {
    const char* name;
    bool (*isSent)(const SessionStart& start);
    pelmoStatus (*add)(pelmoMsg* message, const char* name, const SessionStart& start);
};

#define SENT_IF(condition) [](const SessionStart& start) { return condition; }
#define ADDED_AS(Type, value)                                                             \
    [](pelmoMsg* message, const char* name, [[maybe_unused]] const SessionStart& start) { \
        return pelmoMsg_Add##Type(message, name, value, 0);                               \
    }

bool always(const SessionStart&) {
    return true;
}

constexpr StartField kStartFields[] = {
    {"mtype", always, ADDED_AS(String, kStartKind)},
    {"userid", always, ADDED_AS(String, start.userName)},
    {"session", SENT_IF(start.session[0] != 0), ADDED_AS(String, start.session)},
    {"service", always, ADDED_AS(String, start.service)},
    {"network", always, ADDED_AS(String, start.network)},
    {"vmaj", always, ADDED_AS(I32, int32_t{kOwnVersion.major})},
    {"vmin", always, ADDED_AS(I32, int32_t{kOwnVersion.minor})},
    {"vupd", always, ADDED_AS(I32, int32_t{kOwnVersion.update})},
    {"pid", always, ADDED_AS(I32, static_cast<int32_t>(start.pid))},
    {"rc", always, ADDED_AS(Bool, start.resume ? 1 : 0)},
    {"ipaddr", SENT_IF(start.localAddress != 0), ADDED_AS(IPAddr32, start.localAddress)},
    {"descr", SENT_IF(start.description != nullptr), ADDED_AS(String, start.description)},
    {"http", SENT_IF(start.httpAddress != nullptr), ADDED_AS(String, start.httpAddress)},
    {"echo", SENT_IF(!start.echo), ADDED_AS(Bool, 0)},
    {"hide", SENT_IF(start.hide), ADDED_AS(Bool, 1)},
    {"rli", SENT_IF(start.reliabilitySeconds >= 0), ADDED_AS(F64, start.reliabilitySeconds)},
};

#undef SENT_IF
#undef ADDED_AS

pelmoStatus addStartFields(pelmoMsg* message, const SessionStart& start) {
    for (const StartField& field : kStartFields) {
        if (!field.isSent(start)) continue;
        const pelmoStatus status = field.add(message, field.name, start);
        if (status != kStatusSuccess) return status;
    }
    return kStatusSuccess;
}

// Only a given number is written.
void readVersionPart(pelmoMsg* data, const char* name, uint32_t* out) {
    int32_t number = 0;
    if (pelmoMsg_GetI32(data, name, &number, 0) != kStatusSuccess || number < 0) return;
    *out = static_cast<uint32_t>(number);
}

// Fields that both the reply and its inner message may have; the inner one counts.
void readTexts(pelmoMsg* message, SessionReply* reply) {
    if (const char* gob = msgText(message, "gob"); gob != nullptr) {
        boundedCopy(reply->gob, gob, sizeof reply->gob);
    }
    if (const char* type = msgText(message, "dtyp"); type != nullptr) {
        reply->isRouting = strcasecmp(type, kRoutingType) == 0;
    }
}

// What the daemon answers when it refuses.
pelmoStatus refusalOf(pelmoMsg* data) {
    int32_t error = 0;
    if (pelmoMsg_GetI32(data, "error", &error, 0) != kStatusSuccess) return kStatusSuccess;
    return static_cast<pelmoStatus>(error);
}

pelmoStatus readData(pelmoMsg* data, SessionReply* reply) {
    if (const pelmoStatus refusal = refusalOf(data); refusal != kStatusSuccess) return refusal;
    uint32_t address = 0;
    uint16_t port = 0;
    if (pelmoMsg_GetIPAddr32(data, "ipaddr", &address, 0) != kStatusSuccess) {
        return kStatusNetworkNotFound;
    }
    if (pelmoMsg_GetIPPort16(data, "ipport", &port, 0) != kStatusSuccess) {
        return kStatusServiceNotFound;
    }
    reply->address = hostOrder32(address);
    reply->port = hostOrder16(port);
    // A port in network order becomes a number here, too.
    (void)pelmoMsg_GetU16(data, "cid", &reply->clientId, 0);
    readVersionPart(data, "vmaj", &reply->version.major);
    readVersionPart(data, "vmin", &reply->version.minor);
    readVersionPart(data, "vupd", &reply->version.update);
    readTexts(data, reply);
    return kStatusSuccess;
}

// The name becomes part of subjects, and must not match other's inboxes.
bool isSoundName(const char* session) {
    uint8_t packed[kSubjectMaxBytes];
    return subjectFromText(packed, sizeof packed, session) >= 0 && !subjectHasWildcard(packed);
}

}  // namespace

pelmoStatus sessionStartMessage(pelmoMsg** out, const SessionStart& start) {
    pelmoMsg* message = nullptr;
    if (pelmoMsg_CreateEx(&message, kStartBytes) != kStatusSuccess) return kStatusNoMemory;
    HeldMessage held(message);
    if (addStartFields(message, start) != kStatusSuccess) return kStatusNoMemory;
    *out = held.release();
    return kStatusSuccess;
}

pelmoStatus sessionReadReply(SessionReply* out, pelmoMsg* message) {
    const char* kind = msgText(message, "mtype");
    if (kind == nullptr || kind[0] != kReplyKind) return kStatusInitFailed;
    SessionReply reply = {};
    readTexts(message, &reply);
    pelmoMsg* data = nullptr;
    if (pelmoMsg_GetMsg(message, "data", &data, 0) != kStatusSuccess) return kStatusInitFailed;
    const pelmoStatus status = readData(data, &reply);
    if (status == kStatusSuccess) *out = reply;
    return status;
}

void sessionMakeGob(char (&gob)[kGobBytes], const SessionMaker& maker) {
    const auto low = [](auto number) { return static_cast<uint32_t>(number); };
    std::snprintf(gob, sizeof gob, "%X%X%X", low(reinterpret_cast<uintptr_t>(maker.link)),
                  low(maker.createSeconds), maker.pid);
}

pelmoStatus sessionName(char (&session)[kMostSessionChars + 1], const SessionParts& parts) {
    char name[kMostSessionChars + kGobBytes];
    if (parts.directPort != 0 || parts.clientId != 0) {
        const bool isDirect = parts.directPort != 0;
        std::snprintf(name, sizeof name, "%08X.%c%04X.%s", parts.address, isDirect ? 'P' : 'U',
                      unsigned{isDirect ? parts.directPort : parts.clientId}, parts.gob);
    } else {
        std::snprintf(name, sizeof name, "%08X.%s", parts.address, parts.gob);
    }
    const size_t bytes = std::char_traits<char>::length(name) + 1;
    if (bytes > sizeof session || !isSoundName(name)) return kStatusInitFailed;
    std::memcpy(session, name, bytes);
    return kStatusSuccess;
}
