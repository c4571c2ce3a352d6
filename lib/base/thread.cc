#include "lib/base/thread.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <new>

#include "lib/base/lock.h"

namespace {

constexpr int kOnceLooksMax = 100;
constexpr long kOncePauseNanoseconds = 50'000'000;

// Released when set and acquired by each thread that starts, so that a thread sees the hook's data.
constinit std::atomic<ThreadStartHook> startHook = nullptr;

// What a new thread needs. It is a block of its own, since the thread may outlive its record.
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

pelmoStatus ThreadKey_Init(ThreadKey* key, ThreadKeyDestructor destructor) {
    if (key == nullptr) return kStatusInvalidArgument;
    if (pthread_key_create(&key->slot, destructor) != 0) return kStatusNoMemory;
    key->flags = 0;
    return kStatusSuccess;
}

pelmoStatus ThreadKey_Create(ThreadKey** out, ThreadKeyDestructor destructor) {
    if (out == nullptr) return kStatusInvalidArgument;
    void* block = std::malloc(sizeof(ThreadKey));
    if (block == nullptr) return kStatusNoMemory;

    ThreadKey* key = new (block) ThreadKey;
    const pelmoStatus status = ThreadKey_Init(key, destructor);
    if (status != kStatusSuccess) {
        std::free(block);
        return status;
    }
    key->flags = kRecordAllocated;
    *out = key;
    return kStatusSuccess;
}

pelmoStatus ThreadKey_Destroy(ThreadKey* key) {
    if (key == nullptr) return kStatusInvalidArgument;
    pthread_key_delete(key->slot);
    if ((key->flags & kRecordAllocated) != 0) std::free(key);
    return kStatusSuccess;
}

pelmoStatus ThreadKey_Get(const ThreadKey* key, void** out) {
    if (key == nullptr || out == nullptr) return kStatusInvalidArgument;
    *out = pthread_getspecific(key->slot);
    return kStatusSuccess;
}

pelmoStatus ThreadKey_Set(const ThreadKey* key, void* value) {
    if (key == nullptr) return kStatusInvalidArgument;
    return pthread_setspecific(key->slot, value) == 0 ? kStatusSuccess : kStatusNoMemory;
}

void oncePauseShort() {
    timespec left = {.tv_sec = 0, .tv_nsec = kOncePauseNanoseconds};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

pelmoStatus oncePass(OnceGate& gate, OnceSetUp setUp, void (*pause)()) {
    // Release and acquire: a caller that sees kOnceDone sees all that the set-up wrote. Only
    // callers that saw 1 subtract from the word, each once, so that it can't wrap.
    if (gate.word.load(std::memory_order_acquire) == 1 &&
        gate.word.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        setUp();
        gate.word.store(kOnceDone, std::memory_order_release);
        return kStatusSuccess;
    }
    for (int look = 0; look < kOnceLooksMax; ++look) {
        if (gate.word.load(std::memory_order_acquire) <= kOnceDone) return kStatusSuccess;
        pause();
    }
    return kStatusOsError;
}
