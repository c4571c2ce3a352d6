#include "lib/base/huge_heap.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "lib/base/sanitizer.h"

namespace {

constexpr size_t kMegabyte = 1 << 20;

#if defined(PELMO_ADDRESS_SANITIZER) || defined(__SANITIZE_THREAD__)
constexpr bool kHasOtherHeap = true;
#else
constexpr bool kHasOtherHeap = false;
#endif

size_t mappedBytes() {
    unsigned long pages = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    const bool isRead = statm != nullptr && std::fscanf(statm, "%lu", &pages) == 1;
    if (statm != nullptr) std::fclose(statm);
    return isRead ? pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) : 0;
}

// How many megabytes the heap gives within so many more addresses.
size_t megabytesWithin(size_t megabytes) {
    const rlim_t most = mappedBytes() + megabytes * kMegabyte;
    const rlimit limit = {most, most};
    if (setrlimit(RLIMIT_AS, &limit) != 0) return 0;
    hugeHeapPrefer();
    size_t given = 0;
    while (void* volatile block = std::malloc(kMegabyte)) {
        static_cast<void>(block);
        ++given;
    }
    return given;
}

// A heap that only grows by 256 MB would give half.
TEST(HugeHeap, GivesNearlyAllThatALimitLeaves) {
    if (kHasOtherHeap) GTEST_SKIP() << "another heap";
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) _exit(megabytesWithin(480) > 400 ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
