// What tests of dispatch stand on: the runtime's tables, and transports that make listeners of any
// subject, keep the advisories, and ask the test for their inbound hooks.

#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lib/msg/message_typed.h"
#include "lib/runtime/event.h"
#include "lib/runtime/post.h"
#include "lib/runtime/queue_group.h"
#include "lib/runtime/transport_ops.h"
#include "tests/support/runtime_objects.h"

struct Advisory {
    std::string subject;
    uint32_t status = 0;
    std::string description;

    bool operator==(const Advisory&) const = default;
};

struct DispatchStand {
    DispatchStand() {
        advisories.clear();
        hook = nullptr;
        transportOps.createAdvisory = createAdvisory;
        transportOps.distribute = distribute;
        transportOps.addListener = addListener;
        transportOps.removeListener = removeListener;
        transportOps.runInboundHooks = [](uint32_t, pelmoMsg* message) { return hook(message); };
    }
    ~DispatchStand() { transportOps = {}; }

    // Waits for the first one.
    static Advisory firstAdvisory() {
        std::unique_lock guard(lock);
        came.wait(guard, [] { return !advisories.empty(); });
        return advisories.front();
    }

    static inline std::function<bool(pelmoMsg*)> hook;
    RuntimeTables tables;

  private:
    static pelmoStatus createAdvisory(pelmoMsg** out,
                                      const char* advisoryClass,
                                      const char* source,
                                      const char* name,
                                      const char*) {
        const pelmoStatus status = pelmoMsg_Create(out);
        if (status != kStatusSuccess) return status;
        const std::string subject = std::string("_PM.") + advisoryClass + "." + source + "." + name;
        return pelmoMsg_AddString(*out, "subject", subject.c_str(), 0);
    }

    static pelmoStatus distribute(uint32_t transport, pelmoMsg* message) {
        EXPECT_EQ(transport, kIntraProcessTransportId);
        const char* subject = "";
        const char* description = "";
        Advisory advisory;
        EXPECT_EQ(pelmoMsg_GetString(message, "subject", &subject, 0), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_GetU32(message, "status", &advisory.status, 0), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_GetString(message, "description", &description, 0), kStatusSuccess);
        advisory.subject = subject;
        advisory.description = description;
        pelmoMsg_Destroy(message);
        const std::lock_guard guard(lock);
        advisories.push_back(advisory);
        came.notify_all();
        return kStatusSuccess;
    }

    static pelmoStatus addListener(uint32_t* out, const ListenerRequest& request) {
        Event* event = Event_NewListener(request, false, 4);
        return event != nullptr ? Id_SetGlobal(&event->header, out) : kStatusNoMemory;
    }

    static pelmoStatus removeListener(uint32_t, Event* event) {
        Id_Enter(&event->header);
        EntryRing_Destroy(std::exchange(event->listener.inbox, nullptr));
        event->listener.transportId = kNoId;
        Id_Leave(&event->header);
        return kStatusSuccess;
    }

    static inline std::mutex lock;
    static inline std::condition_variable came;
    static inline std::vector<Advisory> advisories;
};

inline uint32_t newQueue() {
    uint32_t queue = kNoId;
    EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    return queue;
}

inline uint32_t listen(uint32_t queue, pelmoEventCallback callback, void* closure = nullptr) {
    uint32_t event = kNoId;
    EXPECT_EQ(
        pelmoEvent_CreateListener(&event, queue, callback, kIntraProcessTransportId, "A", closure),
        kStatusSuccess);
    return event;
}

// One message for each event.
inline void post(uint32_t queue, const std::vector<uint32_t>& events) {
    std::vector<PostEntry> entries;
    for (const uint32_t event : events)
        entries.push_back({event, messageFor(event)});
    Queue_PostBatch(queue, entries);
}

// Returns once so many threads wait on the queue or group.
template <typename Object>
void awaitWaiters(uint32_t id, int32_t count) {
    Held<Object> object;
    ASSERT_EQ(object.get(id, IdAccess::kUnlocked), kStatusSuccess);
    for (bool all = false; !all; std::this_thread::yield()) {
        object.enter();
        all = object->cond.waiters == count;
        object.leave();
    }
}
