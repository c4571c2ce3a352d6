#include "trace/run/end_status.h"

#include <atomic>
#include <cstdlib>

namespace {

// The threads that set it are joined, or left behind on purpose, before it is read. A signal
// handler may read it.
std::atomic<bool> failed = false;

static_assert(std::atomic<bool>::is_always_lock_free);

}  // namespace

void endMarkFailed() {
    failed.store(true, std::memory_order_relaxed);
}

int endStatus() {
    return failed.load(std::memory_order_relaxed) ? EXIT_FAILURE : EXIT_SUCCESS;
}
