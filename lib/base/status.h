// Status numbers: what every operation of the library returns, and a text for each.
//
// 0 is success. The numbers are fixed: operators see them in logs, programs in replies. A number
// that isn't listed here reads "unrecognized status".
//
// Threads: any, signal handlers among them; all of this is constant. The text is constant and never
// freed.

#pragma once

#include <stdint.h>

#include "language.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t pelmoStatus;

// status.cc has their texts.
enum PELMO_UNDERLYING(pelmoStatus) {
    kStatusSuccess = 0,
    kStatusInitFailed = 1,
    kStatusInvalidTransport = 2,
    kStatusInvalidArgument = 3,
    kStatusNotInitialized = 4,
    kStatusArgumentsConflict = 5,
    kStatusServiceNotFound = 16,
    kStatusNetworkNotFound = 17,
    kStatusDaemonNotFound = 18,
    kStatusNoMemory = 19,
    kStatusInvalidSubject = 20,
    kStatusDaemonNotConnected = 21,
    kStatusWrongVersion = 22,
    kStatusSubjectCollision = 23,
    kStatusCircuitNotConnected = 24,
    kStatusNotPermitted = 27,
    kStatusInvalidName = 30,
    kStatusInvalidType = 31,
    kStatusInvalidSize = 32,
    kStatusInvalidFieldCount = 33,
    kStatusNotFound = 35,
    kStatusIdInUse = 36,
    kStatusIdConflict = 37,
    kStatusConversionFailed = 38,
    kStatusReservedHandler = 39,
    kStatusEncoderFailed = 40,
    kStatusDecoderFailed = 41,
    kStatusInvalidMessage = 42,
    kStatusInvalidField = 43,
    kStatusInvalidInstance = 44,
    kStatusCorruptMessage = 45,
    kStatusEncodingMismatch = 46,
    kStatusTimeout = 50,
    kStatusInterrupted = 51,
    kStatusInvalidDispatchable = 52,
    kStatusInvalidDispatcher = 53,
    kStatusInvalidEvent = 60,
    kStatusInvalidCallback = 61,
    kStatusInvalidQueue = 62,
    kStatusInvalidQueueGroup = 63,
    kStatusInvalidInterval = 64,
    kStatusInvalidIoSource = 65,
    kStatusInvalidIoCondition = 66,
    kStatusSocketLimit = 67,
    kStatusOsError = 68,
    kStatusInsufficientBuffer = 70,
    kStatusEndOfFile = 71,
    kStatusInvalidFile = 72,
    kStatusFileNotFound = 73,
    kStatusIoFailed = 74,
    kStatusNotFileOwner = 80,
    kStatusTooManyNeighbors = 90,
    kStatusAlreadyExists = 91,
    kStatusPortInUse = 100,
    kStatusDeliveryFailed = 101,
    kStatusQueueLimit = 102,
    kStatusInvalidContentDesc = 110,
    kStatusInvalidSerialized = 111,
    kStatusDescriptorNotFound = 115,
    kStatusCorruptSerialized = 116,
    kStatusInProcessOnly = 117,
};

PELMO_NODISCARD const char* pelmoStatus_GetText(pelmoStatus status);

#ifdef __cplusplus
}
#endif
