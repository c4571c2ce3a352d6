#include "lib/transport/socket/layer_code.h"

#include "lib/runtime/socket_error.h"

namespace {

// By the numbers of lib/runtime/socket_error.h; errors without a row are kSocketOtherError.
constexpr struct {
    int error;
    SocketCode code;
} kErrors[] = {
    {0, kSocketDone},
    {10035, kSocketWouldBlock},
    {10036, kSocketWouldBlock},
    {12, kSocketNoBuffers},
    {124, kSocketNoBuffers},
    {10055, kSocketNoBuffers},
    {24, kSocketTooMany},
    {10024, kSocketTooMany},
    {10038, kSocketNetworkDown},
    {10050, kSocketNetworkDown},
    {10061, kSocketRefused},
};

}  // namespace

SocketCode socketCodeFromErrno(int error) {
    const int number = socketErrorFromErrno(error);
    for (const auto& row : kErrors) {
        if (row.error == number) return row.code;
    }
    return kSocketOtherError;
}

pelmoStatus socketStatus(SocketCode code) {
    switch (code) {
        case kSocketDone:
            return kStatusSuccess;
        case kSocketWrongState:
            return kStatusInvalidArgument;
        case kSocketNoBuffers:
            return kStatusNoMemory;
        case kSocketTooMany:
            return kStatusSocketLimit;
        case kSocketRefused:
            return kStatusOsError;
        default:
            return kStatusIoFailed;
    }
}
