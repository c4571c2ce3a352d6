#include "lib/base/huge_heap.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace {

constexpr size_t kMostStepBytes = 256 << 20;   // of addresses; memory comes as it is touched
constexpr int kMappedFromBytes = 32 << 20;     // smaller blocks stay on the heap
constexpr uintptr_t kHugePageBytes = 2 << 20;  // x86-64, and arm64 with pages of 4 KiB

// A heap whose next step is refused is full, even if less than a step is left.
constexpr size_t kStepsAtLeast = 16;

bool mayTake(size_t sizeBytes) {
    void* const probe = mmap(nullptr, sizeBytes, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (probe == MAP_FAILED) return false;
    munmap(probe, sizeBytes);
    return true;
}

void offerToHugePages() {
    void* first = std::malloc(kHugePageBytes);  // makes the heap take its first step
    const auto firstAddress = reinterpret_cast<uintptr_t>(first);
    std::free(first);

    const uintptr_t begin = (firstAddress + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
    const auto end = reinterpret_cast<uintptr_t>(sbrk(0));
    if (firstAddress == 0 || begin >= end) return;
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

}  // namespace

void hugeHeapPrefer() {
    size_t stepBytes = kMostStepBytes;
    while (stepBytes > kHugePageBytes && !mayTake(kStepsAtLeast * stepBytes)) {
        stepBytes /= 2;
    }
    mallopt(M_MMAP_THRESHOLD, kMappedFromBytes);
    mallopt(M_TOP_PAD, static_cast<int>(stepBytes));
    offerToHugePages();
}

void hugeHeapTrim() {
    (void)malloc_trim(0);
    offerToHugePages();
}
