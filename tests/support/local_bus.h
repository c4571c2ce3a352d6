// The intra-process transport alone, without threads and event manager, and listeners for it.

#pragma once

#include <functional>

#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/text.h"
#include "lib/transport/transport_internal.h"
#include "tests/support/message_values.h"
#include "tests/support/runtime_objects.h"
#include "tests/support/test.h"

inline constexpr uint32_t kLocal = kIntraProcessTransportId;
using Texts = std::vector<std::string>;

// A test destroys the objects that it made before this one.
struct LocalBus : NoCopy {
    RuntimeTables tables;
    LocalBus() {
        transportAttach();
        EXPECT_EQ(Transport_CreateIntraProcess(), kStatusSuccess);
    }
    ~LocalBus() {
        libraryOpen = false;
        EXPECT_EQ(pelmoTransport_Destroy(kLocal), kStatusSuccess);
    }
};

// Null without memory.
inline Message messageOn(const char* subject, const char* text = "text") {
    Message message = newMessage();
    if (message == nullptr ||
        pelmoMsg_AddString(message.get(), "text", text, 0) != kStatusSuccess ||
        (subject != nullptr && pelmoMsg_SetSendSubject(message.get(), subject) != kStatusSuccess)) {
        return nullptr;
    }
    return message;
}

inline std::string textOf(pelmoMsg* message) {
    const char* text = nullptr;
    return pelmoMsg_GetString(message, "text", &text, 0) == kStatusSuccess ? text : "no text";
}

// All fields.
inline std::string shownText(pelmoMsg* message) {
    const char* text = nullptr;
    return pelmoMsg_ConvertToString(message, &text) == kStatusSuccess ? text : "no text";
}

inline pelmoStatus sendText(uint32_t transport, const char* subject, const char* text = "text") {
    const Message message = messageOn(subject, text);
    return message != nullptr ? pelmoTransport_Send(transport, message.get()) : kStatusNoMemory;
}

// A plain listener that stores the texts of its messages. Its end waits for a callback under way,
// unless that is the caller.
struct TestListener : NoCopy {
    uint32_t event = kNoId;
    Texts texts;
    std::function<void(pelmoMsg*)> onMessage;  // optional
    std::atomic<size_t> count{0};              // of callbacks that have ended

    TestListener() = default;
    TestListener(uint32_t queue, const char* subject, uint32_t transport = kLocal) {
        EXPECT_EQ(listen(queue, subject, transport), kStatusSuccess);
    }
    ~TestListener() { end(); }

    pelmoStatus listen(uint32_t queue, const char* subject, uint32_t transport = kLocal) {
        return pelmoEvent_CreateListener(&event, queue, received, transport, subject, this);
    }
    Texts taken() { return std::exchange(texts, {}); }
    void end() {
        if (event == kNoId) return;
        if (pelmoEvent_DestroyWait(event) == kStatusNotPermitted)
            pelmoEvent_DestroyEx(event, nullptr);
        event = kNoId;
    }
    [[nodiscard]] bool await(size_t wanted) const {
        return within(60, [&] { return count >= wanted; });
    }

  private:
    static void received(uint32_t, pelmoMsg* message, void* closure) {
        auto* self = static_cast<TestListener*>(closure);
        self->texts.push_back(textOf(message));
        if (self->onMessage) self->onMessage(message);
        ++self->count;
    }
};
