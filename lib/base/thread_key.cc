#include "lib/base/thread_key.h"

#include <cstdlib>
#include <new>

#include "lib/base/lock.h"

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
