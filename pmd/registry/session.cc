#include "pmd/registry/session.h"

#include <cctype>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "lib/base/text.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"

namespace {

constexpr const char* kDefaultService = "7500";
constexpr uint32_t kAddressDigits = 8;
constexpr uint32_t kIdDigits = 4;

// The version that clients are told; they ask it what they may send.
constexpr int32_t kVersionMajor = 8;
constexpr int32_t kVersionMinor = 5;
constexpr int32_t kVersionUpdate = 2;

// Any kind of daemon but the one whose clients share its endpoint.
constexpr const char* kDaemonType = "PMD";

bool takeText(char* out, size_t sizeBytes, const char* text) {
    if (std::strlen(text) >= sizeBytes) return false;
    boundedCopy(out, text, sizeBytes);
    return true;
}

uint32_t hexDigits(const char* text) {
    uint32_t count = 0;
    while (std::isxdigit(static_cast<unsigned char>(text[count])) != 0) {
        ++count;
    }
    return count;
}

// Address, client id or direct port, and a last element that is neither empty nor a wildcard:
// whatever a client calls its session becomes a part of subjects.
bool isSession(const char* text) {
    if (hexDigits(text) != kAddressDigits || text[kAddressDigits] != '.') return false;
    const char* const id = text + kAddressDigits + 1;
    if (*id != 'U' && *id != 'P') return false;
    if (hexDigits(id + 1) != kIdDigits || id[1 + kIdDigits] != '.') return false;
    const char* const last = id + 2 + kIdDigits;
    for (const char* at = last; *at != '\0'; ++at) {
        if (std::isgraph(static_cast<unsigned char>(*at)) == 0) return false;
        if (*at == '.' || *at == '*' || *at == '>') return false;
    }
    return *last != '\0';
}

// A client's words become a part of the log: no byte of theirs ends a line or steers a terminal.
template <size_t kSize>
void copyEscaped(char (&out)[kSize], const char* text) {
    size_t used = 0;
    for (const char* at = text; *at != '\0'; ++at) {
        const auto byte = static_cast<unsigned char>(*at);
        const bool isPlain = byte >= 0x20 && byte < 0x7f && byte != '\\';
        const size_t bytes = isPlain ? 1 : 4;
        if (used + bytes >= kSize) break;
        boundedFormat(out + used, kSize - used, isPlain ? "%c" : "\\x%02x", byte);
        used += bytes;
    }
    out[used] = '\0';
}

bool hasVersion(pelmoMsg* msg) {
    int32_t number = 0;
    for (const char* name : {"vmaj", "vmin", "vupd"}) {
        if (pelmoMsg_GetI32(msg, name, &number, 0) != kStatusSuccess) return false;
    }
    return true;
}

bool readFlag(pelmoMsg* msg, const char* name, bool otherwise) {
    uint32_t flag = 0;
    return pelmoMsg_GetBool(msg, name, &flag, 0) == kStatusSuccess ? flag != 0 : otherwise;
}

pelmoStatus readTexts(pelmoMsg* msg, StartMessage* out) {
    const char* const user = msgText(msg, "userid");
    const char* service = msgText(msg, "service");
    const char* const network = msgText(msg, "network");
    if (user == nullptr || service == nullptr || network == nullptr) return kStatusInvalidArgument;
    if (*service == '\0') service = kDefaultService;
    if (!takeText(out->service, sizeof out->service, service)) return kStatusServiceNotFound;
    if (!takeText(out->network, sizeof out->network, network)) return kStatusNetworkNotFound;
    copyEscaped(out->user, user);

    if (const char* description = msgText(msg, "descr")) {
        boundedCopy(out->description, description, sizeof out->description);
    }
    const char* const session = msgText(msg, "session");
    if (session == nullptr || *session == '\0') return kStatusSuccess;
    if (!isSession(session)) return kStatusInvalidArgument;
    return takeText(out->session, sizeof out->session, session) ? kStatusSuccess
                                                                : kStatusInvalidArgument;
}

pelmoStatus wrapAnswer(pelmoMsg** out, pelmoMsg* data) {
    pelmoMsg* outer = nullptr;
    pelmoStatus status = pelmoMsg_Create(&outer);
    if (status != kStatusSuccess) return status;
    HeldMessage held(outer);
    status = pelmoMsg_AddString(outer, "mtype", "R", 0);
    if (status == kStatusSuccess) status = pelmoMsg_AddMsg(outer, "data", data, 0);
    if (status == kStatusSuccess) *out = held.release();
    return status;
}

void formatLife(char (&out)[kSessionTextBytes], const SessionGround& ground) {
    boundedFormat(out, sizeof out, "%" PRIX64 "%" PRIX32, ground.startMilliseconds,
                  ground.processId);
}

// Unique among all daemons of a machine and all their clients.
void formatGob(char* out, size_t sizeBytes, const SessionGround& ground, uint32_t serial) {
    char life[kSessionTextBytes];
    formatLife(life, ground);
    boundedFormat(out, sizeBytes, "%s%06" PRIX32, life, serial);
}

pelmoStatus fillAnswer(pelmoMsg* data,
                       const SessionGround& ground,
                       uint16_t clientId,
                       uint32_t serial) {
    char gob[kSessionTextBytes];
    formatGob(gob, sizeof gob, ground, serial);
    pelmoStatus status = pelmoMsg_AddIPAddr32(data, "ipaddr", ground.address, 0);
    if (status == kStatusSuccess) status = pelmoMsg_AddIPPort16(data, "ipport", ground.port, 0);
    if (status == kStatusSuccess) status = pelmoMsg_AddU16(data, "cid", clientId, 0);
    if (status == kStatusSuccess) status = pelmoMsg_AddI32(data, "vmaj", kVersionMajor, 0);
    if (status == kStatusSuccess) status = pelmoMsg_AddI32(data, "vmin", kVersionMinor, 0);
    if (status == kStatusSuccess) status = pelmoMsg_AddI32(data, "vupd", kVersionUpdate, 0);
    if (status == kStatusSuccess) status = pelmoMsg_AddString(data, "gob", gob, 0);
    if (status == kStatusSuccess) status = pelmoMsg_AddString(data, "dtyp", kDaemonType, 0);
    return status;
}

}  // namespace

pelmoStatus startMessageRead(pelmoMsg* msg, StartMessage* out) {
    StartMessage start = {};
    const pelmoStatus status = readTexts(msg, &start);
    if (status != kStatusSuccess) return status;
    uint32_t resume = 0;
    if (!hasVersion(msg) || pelmoMsg_GetI32(msg, "pid", &start.pid, 0) != kStatusSuccess ||
        pelmoMsg_GetBool(msg, "rc", &resume, 0) != kStatusSuccess) {
        return kStatusInvalidArgument;
    }
    start.echo = readFlag(msg, "echo", true);
    start.hide = readFlag(msg, "hide", false);
    if (pelmoMsg_GetF64(msg, "rli", &start.reliabilitySeconds, 0) != kStatusSuccess) {
        start.reliabilitySeconds = -1.0;
    }
    *out = start;
    return kStatusSuccess;
}

uint16_t clientIdTake(ClientIds* ids, uint16_t wanted) {
    if (wanted == 0 || ids->taken[wanted]) {
        const uint16_t first = ids->last;
        do {
            ++ids->last;
        } while ((ids->last == 0 || ids->taken[ids->last]) && ids->last != first);
        wanted = ids->last;
    }
    if (wanted == 0 || ids->taken[wanted]) return 0;
    ids->taken[wanted] = true;
    return wanted;
}

void clientIdGive(ClientIds* ids, uint16_t id) {
    ids->taken[id] = false;
}

uint16_t sessionClientId(const char* session) {
    const char* at = std::strchr(session, '.');
    if (at == nullptr || at[1] != 'U' || hexDigits(at + 2) != kIdDigits) return 0;
    if (at[2 + kIdDigits] != '.') return 0;
    return static_cast<uint16_t>(std::strtoul(at + 2, nullptr, 16));
}

bool sessionIsOf(const SessionGround& ground, const char* session) {
    char life[kSessionTextBytes];
    formatLife(life, ground);
    const char* const gob = std::strrchr(session, '.');
    return gob != nullptr && std::strncmp(gob + 1, life, std::strlen(life)) == 0;
}

pelmoStatus sessionAnswerMake(pelmoMsg** out,
                              const SessionGround& ground,
                              uint16_t clientId,
                              uint32_t serial) {
    pelmoMsg* data = nullptr;
    pelmoStatus status = pelmoMsg_Create(&data);
    if (status != kStatusSuccess) return status;
    const HeldMessage held(data);
    status = fillAnswer(data, ground, clientId, serial);
    return status == kStatusSuccess ? wrapAnswer(out, data) : status;
}

pelmoStatus sessionRefusalMake(pelmoMsg** out, pelmoStatus error) {
    pelmoMsg* data = nullptr;
    pelmoStatus status = pelmoMsg_Create(&data);
    if (status != kStatusSuccess) return status;
    const HeldMessage held(data);
    status = pelmoMsg_AddI32(data, "error", static_cast<int32_t>(error), 0);
    return status == kStatusSuccess ? wrapAnswer(out, data) : status;
}
