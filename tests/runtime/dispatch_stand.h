// What tests of dispatch stand on: the runtime's tables, and transports that make listeners of any
// subject, keep the advisories, and ask the test for their inbound hooks.

#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "lib/msg/message_typed.h"
#include "lib/runtime/post.h"
#include "tests/support/runtime_objects.h"

struct Advisory {
    std::string subject;
    uint32_t status = 0;
    std::string description;

    bool operator==(const Advisory&) const = default;
};

struct DispatchStand {
    RuntimeTables tables;
    uint32_t queue = makeQueue();
    uint32_t group = makeGroup();  // of that queue

    DispatchStand() {
        EXPECT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess);
        advisories.clear();
        hook = nullptr;
        transportOps = {.sendAdvisory = nullptr,
                        .createAdvisory = createAdvisory,
                        .distribute = distribute,
                        .addListener = addListener,
                        .removeListener = removeListener,
                        .runInboundHooks = [](uint32_t, pelmoMsg* m) { return hook(m); }};
    }
    ~DispatchStand() { transportOps = {}; }

    // Waits for the first one.
    static Advisory firstAdvisory() {
        std::unique_lock guard(lock);
        came.wait(guard, [] { return !advisories.empty(); });
        return advisories.front();
    }

    static inline std::function<bool(pelmoMsg*)> hook;

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
        uint32_t status = 0;
        EXPECT_EQ(pelmoMsg_GetString(message, "subject", &subject, 0), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_GetU32(message, "status", &status, 0), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_GetString(message, "description", &description, 0), kStatusSuccess);
        {
            const std::lock_guard guard(lock);
            advisories.push_back({subject, status, description});
            came.notify_all();
        }
        return pelmoMsg_Destroy(message);
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
