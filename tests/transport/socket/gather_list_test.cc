#include "lib/transport/socket/gather_list.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "lib/transport/socket/layer_code.h"
#include "tests/support/fail_alloc.h"

namespace {

// The bytes of all entries, one behind the other.
std::string bytesOf(const GatherList& list) {
    std::string bytes;
    for (uint32_t i = 0; i < list.count; ++i)
        bytes.append(static_cast<const char*>(list.entries[i].iov_base), list.entries[i].iov_len);
    EXPECT_EQ(bytes.size(), list.total);
    return bytes;
}

struct GatherLists : testing::Test {
    GatherLists() { EXPECT_TRUE(gatherInit(&list, 2)); }
    ~GatherLists() override { gatherFree(&list); }

    void add(const char* bytes) {
        EXPECT_TRUE(gatherAdd(&list, bytes, static_cast<uint32_t>(std::string(bytes).size())));
    }

    GatherList list;
};

TEST_F(GatherLists, DropFromTheFrontByEntriesAndBytes) {
    for (const char* bytes : {"one", "", "two", "three", "four"})
        add(bytes);
    EXPECT_EQ(list.capacity, 8u);
    gatherDropBytes(&list, 3);
    EXPECT_EQ(bytesOf(list), "twothreefour");
    EXPECT_EQ(list.count, 3u);  // the empty one goes too
    gatherDropBytes(&list, 4);
    EXPECT_EQ(bytesOf(list), "hreefour");
    gatherDropEntries(&list, 1);
    EXPECT_EQ(bytesOf(list), "four");
    add("more");
    gatherDropBytes(&list, 100);
    EXPECT_EQ(bytesOf(list), "");
    gatherDropEntries(&list, 1);
    EXPECT_EQ(list.count, 0u);
}

TEST_F(GatherLists, StayAsTheyAreWhereAnEntryDoesntFit) {
    add("one");
    EXPECT_FALSE(gatherAdd(&list, "", UINT32_MAX - 2));
    add("two");
    {
        const FailAlloc fail{.forGood = true};
        EXPECT_FALSE(gatherAdd(&list, "three", 5));
    }
    EXPECT_EQ(bytesOf(list), "onetwo");
}

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
