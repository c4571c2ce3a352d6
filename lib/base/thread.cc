#include "lib/base/thread.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "lib/base/lock.h"

namespace {

// Released when set and acquired by each thread that starts, so that a thread sees what the hook
// works on.
constinit std::atomic<ThreadStartHook> startHook = nullptr;

// What a new thread needs to know. Its own block: the thread may outlive its record.
struct Start {
    ThreadFunction function;
    void* argument;
};

void* runStarted(void* block) {
    const Start start = *static_cast<Start*>(block);
    std::free(block);
    if (const ThreadStartHook hook = startHook.load(std::memory_order_acquire)) {
        hook(start.function, start.argument);
    } else {
        start.function(start.argument);
    }
    return nullptr;
}

}  // namespace

pelmoStatus Thread_Init(Thread* thread, ThreadFunction function, void* argument) {
    if (thread == nullptr || function == nullptr) return kStatusInvalidArgument;
    void* block = std::malloc(sizeof(Start));
    if (block == nullptr) return kStatusNoMemory;

    new (block) Start{function, argument};
    thread->flags = 0;
    thread->joined = false;
    if (pthread_create(&thread->handle, nullptr, runStarted, block) != 0) {
        std::free(block);
        return kStatusNotInitialized;
    }
    return kStatusSuccess;
}

pelmoStatus Thread_Create(Thread** out, ThreadFunction function, void* argument) {
    if (out == nullptr || function == nullptr) return kStatusInvalidArgument;
    void* block = std::malloc(sizeof(Thread));
    if (block == nullptr) return kStatusNoMemory;

    Thread* thread = new (block) Thread;
    const pelmoStatus status = Thread_Init(thread, function, argument);
    if (status != kStatusSuccess) {
        std::free(block);
        return status;
    }
    thread->flags = kRecordAllocated;
    *out = thread;
    return kStatusSuccess;
}

pelmoStatus Thread_Destroy(Thread* thread) {
    if (thread == nullptr) return kStatusInvalidArgument;
    if (!thread->joined) pthread_detach(thread->handle);
    if ((thread->flags & kRecordAllocated) != 0) std::free(thread);
    return kStatusSuccess;
}

pelmoStatus Thread_Join(Thread* thread) {
    if (thread == nullptr) return kStatusInvalidArgument;
    if (thread->joined) return kStatusSuccess;
    if (pthread_join(thread->handle, nullptr) != 0) return kStatusOsError;
    thread->joined = true;
    return kStatusSuccess;
}

bool Thread_IsCurrent(const Thread* thread) {
    // A joined thread's handle may by now be another's.
    return thread != nullptr && !thread->joined &&
           pthread_equal(thread->handle, pthread_self()) != 0;
}

uint64_t Thread_Number() {
    thread_local const auto number = static_cast<uint64_t>(gettid());
    return number;
}

void Thread_SetStartHook(ThreadStartHook hook) {
    startHook.store(hook, std::memory_order_release);
}
