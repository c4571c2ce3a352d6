#include "lib/runtime/dispatch_wait.h"

#include <algorithm>

#include "lib/base/clock.h"
#include "lib/runtime/id.h"

namespace {

thread_local const std::atomic<uint32_t>* stopWord = nullptr;

double secondsLeft(const DispatchWait& wait) {
    return wait.wakes < 2 ? wait.seconds
                          : std::max(0.0, wait.seconds - (wait.lastWake - wait.firstWake));
}

void noteWake(DispatchWait& wait) {
    (wait.wakes == 0 ? wait.firstWake : wait.lastWake) = clockSteadySeconds();
    ++wait.wakes;
}

}  // namespace

void dispatchSetStopWord(const std::atomic<uint32_t>* word) {
    stopWord = word;
}

const std::atomic<uint32_t>* dispatchStopWord() {
    return stopWord;
}

bool dispatchToldToStop(uint32_t id) {
    return stopWord != nullptr && stopWord->load(std::memory_order_relaxed) == id;
}

pelmoStatus dispatchWaitStep(DispatchWait& wait, IdHeader* object, Cond* cond) {
    if (wait.seconds == 0) return kStatusTimeout;
    if (wait.seconds < 0) return Id_Wait(object, cond);
    const pelmoStatus status = Id_TimedWait(object, cond, secondsLeft(wait));
    if (status == kStatusSuccess) noteWake(wait);
    return status;
}
