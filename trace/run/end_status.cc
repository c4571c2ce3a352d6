#include "trace/run/end_status.h"

#include <atomic>
#include <cstdlib>

namespace {

// The threads that set it are joined, or left behind on purpose, before it is read.
std::atomic<bool> failed = false;

}  // namespace

void endMarkFailed() {
    failed.store(true, std::memory_order_relaxed);
}

int endStatus() {
    return failed.load(std::memory_order_relaxed) ? EXIT_FAILURE : EXIT_SUCCESS;
}
