#include "lib/base/once.h"

#include <cerrno>
#include <ctime>

namespace {

constexpr int kLooksMax = 100;
constexpr long kPauseNanoseconds = 50'000'000;

}  // namespace

void oncePauseShort() {
    timespec left = {.tv_sec = 0, .tv_nsec = kPauseNanoseconds};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

pelmoStatus oncePass(OnceGate& gate, OnceSetUp setUp, void (*pause)()) {
    // Releases and acquires: who sees kOnceDone sees all that the set-up wrote. Only callers that
    // saw 1 take from the word, each once, so that it can't come round.
    if (gate.word.load(std::memory_order_acquire) == 1 &&
        gate.word.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        setUp();
        gate.word.store(kOnceDone, std::memory_order_release);
        return kStatusSuccess;
    }
    for (int look = 0; look < kLooksMax; ++look) {
        if (gate.word.load(std::memory_order_acquire) <= kOnceDone) return kStatusSuccess;
        pause();
    }
    return kStatusOsError;
}
