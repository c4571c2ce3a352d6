// What of the core and of JSON no whole run shows.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/base/sanitizer.h"
#include "tests/support/fail_alloc.h"
#include "watch/core/privileges.h"
#include "watch/core/text.h"
#include "watch/json/json_writer.h"

namespace {

#ifndef PELMO_ADDRESS_SANITIZER  // whose check needs the calls

// In a child that was root: the number of the first call that isn't refused, from 1 on, or 0.
int firstCallLetThrough() {
    if (privilegesDrop() != kStatusSuccess) return 100;
    constexpr long kHighHalf = 1L << 32;  // a filter sees it, the kernel's call doesn't
    const long calls[][4] = {
        {SYS_socket, AF_PACKET, SOCK_RAW, 0},
        {SYS_socket, AF_PACKET | kHighHalf, SOCK_RAW, 0},
        {SYS_socket, AF_INET, SOCK_PACKET | SOCK_CLOEXEC, 0},
        {SYS_openat, AT_FDCWD, reinterpret_cast<long>("/dev/null"), O_WRONLY},
        {SYS_openat, AT_FDCWD, reinterpret_cast<long>("/dev/null"), O_RDONLY | O_TRUNC},
        {SYS_truncate, reinterpret_cast<long>("/dev/null"), 0, 0},
    };
    int number = 0;
    for (const auto& [call, first, second, third] : calls) {
        ++number;
        // A call that comes through and fails otherwise has another error.
        if (syscall(call, first, second, third) >= 0 || errno != EPERM) return number;
    }
    return syscall(SYS_socket, AF_INET, SOCK_STREAM, 0) >= 0 ? 0 : 101;
}

TEST(Privileges, OfRootLeaveNoPacketSocketAndNoOpeningForWriting) {
    if (geteuid() != 0) GTEST_SKIP() << "only root's calls are filtered";
    const pid_t child = fork();
    if (child == 0) _exit(firstCallLetThrough());
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

#endif

TEST(SafeText, IsCutAtACharactersEnd) {
    const struct {
        size_t sizeBytes;
        const char* wanted;
    } cases[] = {{1, ""},       {2, "a"},       {5, "a"},        {6, "a\\xff"},
                 {8, "a\\xff"}, {9, "a\\xff€"}, {20, "a\\xff€b"}};
    for (const auto& [sizeBytes, wanted] : cases) {
        std::string buffer(sizeBytes, '#');
        EXPECT_EQ(safeText("a\xff€b", buffer.data(), sizeBytes), wanted);
        EXPECT_EQ(buffer[std::strlen(wanted)], '\0');
    }
}

TEST(JsonBuffer, DropsAllWhereMemoryRunsOut) {
    SnapHeader snapshot{};
    size_t wholeBytes = 0;
    const size_t failing = eachAllocationFails([&] {
        JsonBuffer buffer;
        for (int i = 0; i < 1000; ++i) {
            jsonAppendObject(buffer, snapshot, &snapshot);
        }
        const bool failed = allocationsFailed() != 0;
        allocationsHeal();
        EXPECT_EQ(buffer.failed, failed);
        if (!failed) wholeBytes = buffer.text().size();
    });
    EXPECT_GT(failing, 2u);
    EXPECT_GT(wholeBytes, 1000000u);

    // A drain takes it in pieces, until it fails.
    static size_t drainedBytes;
    drainedBytes = 0;
    JsonBuffer buffer;
    buffer.drain = [](std::string_view text) { return (drainedBytes += text.size()) < 600000; };
    while (!buffer.failed) {
        jsonAppendObject(buffer, snapshot, nullptr);
    }
    EXPECT_GE(drainedBytes, 600000u);
    EXPECT_LT(drainedBytes, 900000u);
}

}  // namespace
