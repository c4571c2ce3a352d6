#include "tests/support/lock_count.h"

#include "lib/base/lock.h"

namespace {

constinit thread_local size_t entered = 0;

}  // namespace

// The linker sends each call of Lock_Enter(Lock*) by here.
extern "C" {
void __real__Z10Lock_EnterP4Lock(Lock* lock);
void __wrap__Z10Lock_EnterP4Lock(Lock* lock);

void __wrap__Z10Lock_EnterP4Lock(Lock* lock) {
    ++entered;
    __real__Z10Lock_EnterP4Lock(lock);
}
}

size_t locksEntered() {
    return entered;
}
