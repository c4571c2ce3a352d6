// Status numbers: what every operation of the library returns, and a text for each.
//
// 0 is success. The numbers are fixed: operators see them in logs, programs in replies. A number
// that isn't listed here reads "unrecognized status".
//
// Threads: any; all of this is constant. The text is constant and never freed.

#pragma once

#include <cstdint>

using pelmoStatus = uint32_t;

// The one table: name, number, text.
#define PELMO_STATUS_TABLE(ROW)                                                                  \
    ROW(kStatusSuccess, 0, "Success")                                                            \
    ROW(kStatusInitFailed, 1, "Initialization failed")                                           \
    ROW(kStatusInvalidTransport, 2, "Invalid transport")                                         \
    ROW(kStatusInvalidArgument, 3, "Invalid argument")                                           \
    ROW(kStatusNotInitialized, 4, "Not Initialized")                                             \
    ROW(kStatusArgumentsConflict, 5, "Arguments conflict")                                       \
    ROW(kStatusServiceNotFound, 16, "Could not resolve service specification")                   \
    ROW(kStatusNetworkNotFound, 17, "Could not resolve network specification")                   \
    ROW(kStatusDaemonNotFound, 18, "Could not resolve daemon specification")                     \
    ROW(kStatusNoMemory, 19, "Memory allocation failed")                                         \
    ROW(kStatusInvalidSubject, 20, "Invalid subject")                                            \
    ROW(kStatusDaemonNotConnected, 21, "Not connected to daemon")                                \
    ROW(kStatusWrongVersion, 22, "Wrong version")                                                \
    ROW(kStatusSubjectCollision, 23, "Subject collision detected")                               \
    ROW(kStatusCircuitNotConnected, 24, "Virtual circuit not connected")                         \
    ROW(kStatusNotPermitted, 27, "Not permitted")                                                \
    ROW(kStatusInvalidName, 30, "Invalid name")                                                  \
    ROW(kStatusInvalidType, 31, "Invalid type")                                                  \
    ROW(kStatusInvalidSize, 32, "Invalid size")                                                  \
    ROW(kStatusInvalidFieldCount, 33, "Invalid field count")                                     \
    ROW(kStatusNotFound, 35, "Item not found")                                                   \
    ROW(kStatusIdInUse, 36, "Field id already in use")                                           \
    ROW(kStatusIdConflict, 37, "Field id conflicts with existing field id")                      \
    ROW(kStatusConversionFailed, 38, "Conversion failed")                                        \
    ROW(kStatusReservedHandler, 39, "Handlers 0-127 are reserved")                               \
    ROW(kStatusEncoderFailed, 40, "Encoder failed")                                              \
    ROW(kStatusDecoderFailed, 41, "Decoder failed")                                              \
    ROW(kStatusInvalidMessage, 42, "Invalid message")                                            \
    ROW(kStatusInvalidField, 43, "Invalid field argument")                                       \
    ROW(kStatusInvalidInstance, 44, "Invalid instance argument")                                 \
    ROW(kStatusCorruptMessage, 45, "The contents of the message are corrupt")                    \
    ROW(kStatusEncodingMismatch, 46, "Message text encodings do not match")                      \
    ROW(kStatusTimeout, 50, "Operation timed out")                                               \
    ROW(kStatusInterrupted, 51, "Operation interrupted")                                         \
    ROW(kStatusInvalidDispatchable, 52, "Invalid dispatchable or not type queue or queue group") \
    ROW(kStatusInvalidDispatcher, 53, "Invalid dispatcher")                                      \
    ROW(kStatusInvalidEvent, 60, "Invalid event")                                                \
    ROW(kStatusInvalidCallback, 61, "Invalid callback")                                          \
    ROW(kStatusInvalidQueue, 62, "Invalid queue")                                                \
    ROW(kStatusInvalidQueueGroup, 63, "Invalid queue group")                                     \
    ROW(kStatusInvalidInterval, 64, "Invalid time interval")                                     \
    ROW(kStatusInvalidIoSource, 65, "Invalid IO source")                                         \
    ROW(kStatusInvalidIoCondition, 66, "Invalid IO condition")                                   \
    ROW(kStatusSocketLimit, 67, "Socket limit reached")                                          \
    ROW(kStatusOsError, 68, "OS error")                                                          \
    ROW(kStatusInsufficientBuffer, 70, "Insufficient buffer")                                    \
    ROW(kStatusEndOfFile, 71, "End of file reached")                                             \
    ROW(kStatusInvalidFile, 72, "Invalid file")                                                  \
    ROW(kStatusFileNotFound, 73, "File not found")                                               \
    ROW(kStatusIoFailed, 74, "IO operation failed")                                              \
    ROW(kStatusNotFileOwner, 80, "Not file owner")                                               \
    ROW(kStatusTooManyNeighbors, 90, "Too many neighbors")                                       \
    ROW(kStatusAlreadyExists, 91, "Already exists")                                              \
    ROW(kStatusPortInUse, 100, "Requested port already in-use")                                  \
    ROW(kStatusDeliveryFailed, 101, "Unable to compele data delivery")                           \
    ROW(kStatusQueueLimit, 102, "Queue size limit reached")                                      \
    ROW(kStatusInvalidContentDesc, 110, "Invalid content desc")                                  \
    ROW(kStatusInvalidSerialized, 111, "Invalid serialized buffer")                              \
    ROW(kStatusDescriptorNotFound, 115, "Descriptor not found")                                  \
    ROW(kStatusCorruptSerialized, 116, "The contents of the serialized buffer are corrupt")      \
    ROW(kStatusInProcessOnly, 117, "Supported by in-process module library only")

#define PELMO_STATUS_ENUMERATOR(name, number, text) name = number,
enum : pelmoStatus { PELMO_STATUS_TABLE(PELMO_STATUS_ENUMERATOR) };
#undef PELMO_STATUS_ENUMERATOR

[[nodiscard]] const char* pelmoStatus_GetText(pelmoStatus status);
