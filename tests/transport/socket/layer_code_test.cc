#include "lib/transport/socket/layer_code.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(LayerCodes, FollowFromErrorsAndLeadToStatuses) {
    const struct {
        int error;
        SocketCode code;
        pelmoStatus status;
    } cases[] = {
        {0, kSocketDone, kStatusSuccess},
        {EAGAIN, kSocketWouldBlock, kStatusIoFailed},
        {EINPROGRESS, kSocketWouldBlock, kStatusIoFailed},
        {ECONNRESET, kSocketOtherError, kStatusIoFailed},
        {EPIPE, kSocketOtherError, kStatusIoFailed},
        {ENOMEM, kSocketNoBuffers, kStatusNoMemory},
        {ENOBUFS, kSocketNoBuffers, kStatusNoMemory},
        {EMFILE, kSocketTooMany, kStatusSocketLimit},
        {ENOTSOCK, kSocketNetworkDown, kStatusIoFailed},
        {ENETDOWN, kSocketNetworkDown, kStatusIoFailed},
        {ECONNREFUSED, kSocketRefused, kStatusOsError},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(socketCodeFromErrno(c.error), c.code) << c.error;
        EXPECT_EQ(socketStatus(c.code), c.status) << c.code;
    }
    EXPECT_EQ(socketStatus(kSocketWrongState), kStatusInvalidArgument);
    EXPECT_EQ(socketStatus(kSocketDisconnected), kStatusIoFailed);
}

}  // namespace
