#include "tests/support/fail_alloc.h"

#include <cerrno>
#include <cstdlib>

namespace {

struct Plan {
    bool armed;
    bool forGood;
    size_t after;
    size_t counted;
    size_t failed;
};

// Constant-initialised, so that its first use allocates nothing.
constinit thread_local Plan plan = {};

bool fails() {
    if (!plan.armed) return false;
    const size_t index = plan.counted++;
    if (plan.forGood ? index < plan.after : index != plan.after) return false;
    ++plan.failed;
    errno = ENOMEM;
    return true;
}

}  // namespace

// The linker sends each call of malloc to __wrap_malloc, and __real_malloc to malloc: the C
// library's, or a sanitizer's.
extern "C" {
void* __real_malloc(size_t sizeBytes);
void* __real_calloc(size_t count, size_t sizeBytes);
void* __real_realloc(void* block, size_t sizeBytes);

void* __wrap_malloc(size_t sizeBytes);
void* __wrap_calloc(size_t count, size_t sizeBytes);
void* __wrap_realloc(void* block, size_t sizeBytes);

void* __wrap_malloc(size_t sizeBytes) {
    return fails() ? nullptr : __real_malloc(sizeBytes);
}

void* __wrap_calloc(size_t count, size_t sizeBytes) {
    return fails() ? nullptr : __real_calloc(count, sizeBytes);
}

void* __wrap_realloc(void* block, size_t sizeBytes) {
    return fails() ? nullptr : __real_realloc(block, sizeBytes);
}
}

bool allocationsArm(size_t after, bool forGood) {
    plan = {.armed = true, .forGood = forGood, .after = after, .counted = 0, .failed = 0};
    return true;
}

void allocationsHeal() {
    plan.armed = false;
}

size_t allocationsCounted() {
    return plan.counted;
}

size_t allocationsFailed() {
    return plan.failed;
}
