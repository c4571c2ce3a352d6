#include "python/native/intake.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <new>

namespace {

constexpr uint32_t kShareDroppedAtOnce = 16;

// What the dispatch of this thread brings.
struct Basket {
    pelmoMsg** messages;
    uint32_t count;
};
thread_local Basket* basket;

// The basket has room: a dispatch runs one batch.
void collect(pelmoMsg** messages, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (pelmoMsg_Detach(messages[i]) == kStatusSuccess)
            basket->messages[basket->count++] = messages[i];
    }
}

void makeReadable(Intake* intake) {
    if (intake->signalled.exchange(true)) return;
    (void)!eventfd_write(intake->wakeFd, 1);
}

// Runs on a thread of the library, once for each message.
void onPost(uint32_t, void* closure) {
    auto* const intake = static_cast<Intake*>(closure);
    intake->posted.fetch_add(1, std::memory_order_relaxed);
    makeReadable(intake);
}

pelmoStatus setUpQueue(Intake* intake, uint32_t limit, bool dropOldest) {
    const pelmoStatus status = pelmoQueue_SetHook(intake->queue, onPost, intake);
    if (status != kStatusSuccess || limit == 0) return status;
    return pelmoQueue_SetLimitPolicy(intake->queue,
                                     dropOldest ? kLimitDiscardFirst : kLimitDiscardLast, limit,
                                     std::max(1u, limit / kShareDroppedAtOnce));
}

}  // namespace

pelmoStatus intakeOpen(Intake* intake, uint32_t limit, bool dropOldest) {
    intake->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (intake->wakeFd < 0) return kStatusOsError;
    pelmoStatus status = pelmoQueue_Create(&intake->queue);
    if (status == kStatusSuccess) status = setUpQueue(intake, limit, dropOldest);
    if (status != kStatusSuccess) intakeFree(intake, false);
    return status;
}

pelmoStatus intakeListen(Intake* intake, uint32_t transport, const char* subject) try {
    intake->listeners.reserve(intake->listeners.size() + 1);
    uint32_t listener = kNoId;
    const pelmoStatus status = pelmoEvent_CreateVectorListener(&listener, intake->queue, collect,
                                                               transport, subject, intake);
    if (status == kStatusSuccess) intake->listeners.push_back(listener);
    return status;
} catch (const std::bad_alloc&) {
    return kStatusNoMemory;
}

// What is posted after `signalled` was taken back makes the descriptor readable again; what was
// posted before is there to be taken.
uint32_t intakeTake(Intake* intake, TakenMessages& messages) {
    if (intake->closed) return 0;
    intakeQuiet(intake);
    intake->signalled.store(false);
    Basket own{messages.data(), 0};
    basket = &own;
    pelmoStatus status = kStatusSuccess;
    while (status == kStatusSuccess && own.count < kTakeAtLeast)
        status = pelmoQueue_TimedDispatch(intake->queue, 0);
    basket = nullptr;
    if (status == kStatusSuccess) makeReadable(intake);
    intake->taken += own.count;
    return own.count;
}

void intakeQuiet(Intake* intake) {
    eventfd_t ignored = 0;
    if (!intake->closed) (void)!eventfd_read(intake->wakeFd, &ignored);
}

// Read in this order the three never make too many: what comes or goes in between is counted twice.
uint64_t intakeDropped(Intake* intake) {
    if (intake->closed) return intake->dropped;
    const uint64_t posted = intake->posted.load();
    uint32_t waiting = 0;
    if (pelmoQueue_GetCount(intake->queue, &waiting) == kStatusSuccess &&
        posted > intake->taken + waiting) {
        intake->dropped = std::max(intake->dropped, posted - intake->taken - waiting);
    }
    return intake->dropped;
}

// The hook is taken off last of all that posts: its return says that no post uses the intake any
// more.
void intakeClose(Intake* intake) {
    if (intake->closed) return;
    (void)intakeDropped(intake);
    for (const uint32_t listener : intake->listeners)
        pelmoEvent_DestroyEx(listener, nullptr);
    intake->listeners.clear();
    pelmoQueue_SetHook(intake->queue, nullptr, nullptr);
    pelmoQueue_DestroyEx(intake->queue, nullptr, nullptr);
    intake->closed = true;
    (void)!eventfd_write(intake->wakeFd, 1);
}

void intakeFree(Intake* intake, bool isLost) {
    if (!isLost && intake->queue != kNoId) intakeClose(intake);
    if (intake->wakeFd >= 0) close(intake->wakeFd);
    intake->wakeFd = -1;
}
