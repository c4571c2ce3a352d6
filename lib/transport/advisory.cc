// Advisories: messages in which the library reports its own state.

#include <cstdio>
#include <cstring>

#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/library.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr const char* kLimitAdvisory = "QUEUE.LIMIT_EXCEEDED";
constexpr size_t kSubjectBytes = 255;
constexpr size_t kSubjectFixedBytes = 11;
constexpr uint32_t kMostFields = 4;

pelmoMsgField textField(const char* name, const char* text) {
    pelmoMsgField field;
    field.name = name;
    field.type = FIELD_STRING;
    field.data.pointer = text;
    return field;
}

}  // namespace

pelmoStatus advisoryCreate(pelmoMsg** out,
                           const char* advisoryClass,
                           const char* source,
                           const char* name,
                           const char* description) {
    if (advisoryClass == nullptr || source == nullptr || name == nullptr ||
        std::strchr(advisoryClass, '.') != nullptr) {
        return kStatusInvalidArgument;
    }
    const size_t textBytes = std::strlen(advisoryClass) + std::strlen(source) + std::strlen(name);
    if (textBytes + kSubjectFixedBytes > kSubjectBytes) return kStatusInvalidArgument;
    char subject[kSubjectBytes];
    std::snprintf(subject, sizeof subject, "_PM.%s.%s.%s", advisoryClass, source, name);

    const pelmoMsgField fields[kMostFields] = {
        textField("ADV_CLASS", advisoryClass), textField("ADV_SOURCE", source),
        textField("ADV_NAME", name), textField("ADV_DESC", description)};
    const uint32_t count = description != nullptr ? kMostFields : kMostFields - 1;
    const pelmoStatus status = msgCreateWithFields(out, subject, nullptr, fields, count);
    if (status == kStatusSuccess && std::strcmp(name, kLimitAdvisory) == 0) {
        msgSetLimitAdvisory(*out);
    }
    return status;
}

pelmoStatus advisorySend(uint32_t transport,
                         const char* advisoryClass,
                         const char* source,
                         const char* name,
                         const char* description) {
    pelmoMsg* message = nullptr;
    const pelmoStatus status = advisoryCreate(&message, advisoryClass, source, name, description);
    return status == kStatusSuccess ? transportDistribute(transport, message) : status;
}

pelmoStatus pelmoTransport_SendAdvisory(uint32_t transport,
                                        const char* advisoryClass,
                                        const char* source,
                                        const char* name,
                                        const char* description) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_SendAdvisory(%u, \"%s\", \"%s\", \"%s\", \"%s\")",
              transport, traceText(advisoryClass), traceText(source), traceText(name),
              traceText(description));
    return advisorySend(transport, advisoryClass, source, name, description);
}
