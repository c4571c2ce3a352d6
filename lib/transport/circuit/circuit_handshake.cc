#include "lib/transport/circuit/circuit_handshake.h"

#include <cstring>

namespace {

constexpr uint32_t kSessionElement = 2;
constexpr uint32_t kLeastElements = 3;
constexpr const char* kUnreachable = "_PM.INFO.SYSTEM.UNREACHABLE.TRANSPORT";

}  // namespace

bool handshakeTakes(CircuitEnd end, CircuitState state, pelmoMsg* message, CircuitOffer* out) {
    const CircuitKind wanted =
        end == CircuitEnd::kAccepting ? CircuitKind::kRequest : CircuitKind::kAcceptance;
    if (state != CircuitState::kWaiting) return false;
    const CircuitRecords records(message);
    return circuitReadHead(records).kind == wanted &&
           circuitReadOffer(records, wanted, out) == kStatusSuccess;
}

bool handshakeUnreachableSubject(char (&text)[kSubjectTextBytes], const uint8_t* controlInbox) {
    const uint32_t elements = subjectElementCount(controlInbox);
    if (elements < kLeastElements) return false;
    if (std::strcmp(subjectElement(controlInbox, kLeastElements), "ROUTED") == 0) return false;
    uint8_t packed[kSubjectMaxBytes];
    if (subjectFromText(packed, sizeof packed, kUnreachable) < 0) return false;
    if (subjectCopyElements(packed, sizeof packed, controlInbox, kSessionElement, elements - 1) <
        0) {
        return false;
    }
    return subjectToText(text, sizeof text, packed) != nullptr;
}
