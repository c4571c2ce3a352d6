#include "lib/base/status.h"

const char* pelmoStatus_GetText(pelmoStatus status) {
    switch (status) {
        case kStatusSuccess:
            return "Success";
        case kStatusInitFailed:
            return "Initialization failed";
        case kStatusInvalidTransport:
            return "Invalid transport";
        case kStatusInvalidArgument:
            return "Invalid argument";
        case kStatusNotInitialized:
            return "Not Initialized";
        case kStatusArgumentsConflict:
            return "Arguments conflict";
        case kStatusServiceNotFound:
            return "Could not resolve service specification";
        case kStatusNetworkNotFound:
            return "Could not resolve network specification";
        case kStatusDaemonNotFound:
            return "Could not resolve daemon specification";
        case kStatusNoMemory:
            return "Memory allocation failed";
        case kStatusInvalidSubject:
            return "Invalid subject";
        case kStatusDaemonNotConnected:
            return "Not connected to daemon";
        case kStatusWrongVersion:
            return "Wrong version";
        case kStatusSubjectCollision:
            return "Subject collision detected";
        case kStatusCircuitNotConnected:
            return "Virtual circuit not connected";
        case kStatusNotPermitted:
            return "Not permitted";
        case kStatusInvalidName:
            return "Invalid name";
        case kStatusInvalidType:
            return "Invalid type";
        case kStatusInvalidSize:
            return "Invalid size";
        case kStatusInvalidFieldCount:
            return "Invalid field count";
        case kStatusNotFound:
            return "Item not found";
        case kStatusIdInUse:
            return "Field id already in use";
        case kStatusIdConflict:
            return "Field id conflicts with existing field id";
        case kStatusConversionFailed:
            return "Conversion failed";
        case kStatusReservedHandler:
            return "Handlers 0-127 are reserved";
        case kStatusEncoderFailed:
            return "Encoder failed";
        case kStatusDecoderFailed:
            return "Decoder failed";
        case kStatusInvalidMessage:
            return "Invalid message";
        case kStatusInvalidField:
            return "Invalid field argument";
        case kStatusInvalidInstance:
            return "Invalid instance argument";
        case kStatusCorruptMessage:
            return "The contents of the message are corrupt";
        case kStatusEncodingMismatch:
            return "Message text encodings do not match";
        case kStatusTimeout:
            return "Operation timed out";
        case kStatusInterrupted:
            return "Operation interrupted";
        case kStatusInvalidDispatchable:
            return "Invalid dispatchable or not type queue or queue group";
        case kStatusInvalidDispatcher:
            return "Invalid dispatcher";
        case kStatusInvalidEvent:
            return "Invalid event";
        case kStatusInvalidCallback:
            return "Invalid callback";
        case kStatusInvalidQueue:
            return "Invalid queue";
        case kStatusInvalidQueueGroup:
            return "Invalid queue group";
        case kStatusInvalidInterval:
            return "Invalid time interval";
        case kStatusInvalidIoSource:
            return "Invalid IO source";
        case kStatusInvalidIoCondition:
            return "Invalid IO condition";
        case kStatusSocketLimit:
            return "Socket limit reached";
        case kStatusOsError:
            return "OS error";
        case kStatusInsufficientBuffer:
            return "Insufficient buffer";
        case kStatusEndOfFile:
            return "End of file reached";
        case kStatusInvalidFile:
            return "Invalid file";
        case kStatusFileNotFound:
            return "File not found";
        case kStatusIoFailed:
            return "IO operation failed";
        case kStatusNotFileOwner:
            return "Not file owner";
        case kStatusTooManyNeighbors:
            return "Too many neighbors";
        case kStatusAlreadyExists:
            return "Already exists";
        case kStatusPortInUse:
            return "Requested port already in-use";
        case kStatusDeliveryFailed:
            return "Unable to compele data delivery";
        case kStatusQueueLimit:
            return "Queue size limit reached";
        case kStatusInvalidContentDesc:
            return "Invalid content desc";
        case kStatusInvalidSerialized:
            return "Invalid serialized buffer";
        case kStatusDescriptorNotFound:
            return "Descriptor not found";
        case kStatusCorruptSerialized:
            return "The contents of the serialized buffer are corrupt";
        case kStatusInProcessOnly:
            return "Supported by in-process module library only";
        default:
            return "unrecognized status";
    }
}
