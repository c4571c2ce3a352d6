// Every public call against what it shall refuse: a closed library, an id that is none, was
// destroyed or is of another type, and no place for its answer; those of messages against no
// message, a dead one, and no place.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <span>
#include <string>

#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"
#include "lib/pelmo.h"
#include "lib/runtime/id.h"

namespace {

void onEvent(uint32_t, pelmoMsg*, void*) {}
void onBatch(pelmoMsg**, uint32_t) {}

// With the id of the object that the call is about, and of a queue that is sound.
using ByName = pelmoStatus (*)(uint32_t id, uint32_t queue);

constexpr uint32_t kAnyKind = 0;

struct Call {
    const char* name;
    IdType type;  // of the id
    pelmoStatus badId;
    ByName call;                     // whole but for the id
    ByName withoutOutput = nullptr;  // or without its text; null: there is none
    pelmoStatus noOutput = kStatusInvalidArgument;
    uint32_t kind = kAnyKind;  // of event
    bool endsObjects = false;  // works on a closed library
};

template <auto call, typename Out>
pelmoStatus get(uint32_t id, uint32_t) {
    Out out{};
    return call(id, &out);
}

template <auto call>
pelmoStatus getNothing(uint32_t id, uint32_t) {
    return call(id, nullptr);
}

#define GETTER(call, Out, type, badId, ...)                       \
    {                                                             \
#call, type, badId, get < call, Out>, getNothing < call>, \
            kStatusInvalidArgument __VA_OPT__(, ) __VA_ARGS__     \
    }

constexpr IdType kQueue = IdType::kQueue;
constexpr IdType kGroup = IdType::kQueueGroup;
constexpr IdType kEvent = IdType::kEvent;
constexpr IdType kTransport = IdType::kTransport;
constexpr IdType kDispatcher = IdType::kDispatcher;

// What only a network transport can follow; a bad id is told first.
#define NETWORK_SETTING(call)                                                                  \
    {                                                                                          \
#call, kTransport, kStatusInvalidTransport, [](uint32_t id, uint32_t) { return call; } \
    }

uint32_t made;
pelmoMsg* sent;
pelmoMsg* asked;  // wants a reply
char text[64];
const char* name;
pelmoMsg* polled;
uint32_t policy, most, discard;

const Call kCalls[] = {
    GETTER(pelmoQueue_GetCount, uint32_t, kQueue, kStatusInvalidQueue),
    GETTER(pelmoQueue_GetHook, pelmoQueueHook, kQueue, kStatusInvalidQueue),
    GETTER(pelmoQueue_GetName, const char*, kQueue, kStatusInvalidQueue),
    GETTER(pelmoQueue_GetPriority, uint32_t, kQueue, kStatusInvalidQueue),
    {"pelmoQueue_SetHook", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_SetHook(id, nullptr, nullptr); }},
    {"pelmoQueue_GetLimitPolicy", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_GetLimitPolicy(id, &policy, &most, &discard); },
     [](uint32_t id, uint32_t) { return pelmoQueue_GetLimitPolicy(id, &policy, nullptr, &most); }},
    {"pelmoQueue_SetLimitPolicy", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_SetLimitPolicy(id, kLimitNone, 0, 0); }},
    {"pelmoQueue_SetName", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_SetName(id, "name"); },
     [](uint32_t id, uint32_t) { return pelmoQueue_SetName(id, nullptr); }},
    {"pelmoQueue_SetPriority", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_SetPriority(id, 2); }},
    {"pelmoQueue_Poll", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_Poll(id, &polled, 0.0); },
     [](uint32_t id, uint32_t) { return pelmoQueue_Poll(id, nullptr, 0.0); }},
    {"pelmoQueue_PollMany", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_PollMany(id, &polled, 1, &made, 0.0); },
     [](uint32_t id, uint32_t) { return pelmoQueue_PollMany(id, &polled, 1, nullptr, 0.0); }},
    {"pelmoQueue_TimedDispatch", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_TimedDispatch(id, 0.0); }},
    {"pelmoQueue_TimedDispatchSingle", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_TimedDispatchSingle(id, 0.0); }},
    {"pelmoQueue_DestroyEx", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueue_DestroyEx(id, nullptr, nullptr); }, nullptr,
     kStatusSuccess, kAnyKind, true},

    {"pelmoQueueGroup_Add", kGroup, kStatusInvalidQueueGroup, pelmoQueueGroup_Add},
    {"pelmoQueueGroup_Add, the queue", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoQueueGroup_Add(made, id); }},
    {"pelmoQueueGroup_Remove", kGroup, kStatusInvalidQueueGroup, pelmoQueueGroup_Remove},
    {"pelmoQueueGroup_TimedDispatch", kGroup, kStatusInvalidQueueGroup,
     [](uint32_t id, uint32_t) { return pelmoQueueGroup_TimedDispatch(id, 0.0); }},
    {"pelmoQueueGroup_Destroy", kGroup, kStatusInvalidQueueGroup,
     [](uint32_t id, uint32_t) { return pelmoQueueGroup_Destroy(id); }, nullptr, kStatusSuccess,
     kAnyKind, true},

    {"pelmoEvent_CreateTimer", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) { return pelmoEvent_CreateTimer(&made, id, onEvent, 60, nullptr); },
     [](uint32_t id, uint32_t) { return pelmoEvent_CreateTimer(nullptr, id, onEvent, 1, nullptr); },
     kStatusInvalidEvent},
    {"pelmoEvent_CreateIO", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) {
         return pelmoEvent_CreateIO(&made, id, onEvent, -1, kIoRead, nullptr);
     },
     [](uint32_t id, uint32_t) {
         return pelmoEvent_CreateIO(nullptr, id, onEvent, -1, kIoRead, nullptr);
     },
     kStatusInvalidEvent},
    {"pelmoEvent_CreateListener", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t queue) {
         return pelmoEvent_CreateListener(&made, queue, onEvent, id, "A", nullptr);
     },
     [](uint32_t id, uint32_t queue) {
         return pelmoEvent_CreateListener(nullptr, queue, onEvent, id, "A", nullptr);
     },
     kStatusInvalidEvent},
    {"pelmoEvent_CreateListener, the queue", kQueue, kStatusInvalidQueue,
     [](uint32_t id, uint32_t) {
         return pelmoEvent_CreateListener(&made, id, onEvent, kIntraProcessTransportId, "A",
                                          nullptr);
     }},
    {"pelmoEvent_CreateVectorListener", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t queue) {
         return pelmoEvent_CreateVectorListener(&made, queue, onBatch, id, "A", nullptr);
     },
     [](uint32_t id, uint32_t queue) {
         return pelmoEvent_CreateVectorListener(nullptr, queue, onBatch, id, "A", nullptr);
     },
     kStatusInvalidEvent},
    {"pelmoEvent_CreateVectorListenerEx", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t queue) {
         return pelmoEvent_CreateVectorListenerEx(&made, queue, onBatch, id, "A", nullptr, &made);
     },
     [](uint32_t id, uint32_t queue) {
         return pelmoEvent_CreateVectorListenerEx(nullptr, queue, onBatch, id, "A", nullptr, &made);
     },
     kStatusInvalidEvent},
    {"_pelmoTransport_AddPolledListener", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t queue) {
         return _pelmoTransport_AddPolledListener(&made, queue, id, "A");
     },
     [](uint32_t id, uint32_t queue) {
         return _pelmoTransport_AddPolledListener(nullptr, queue, id, "A");
     },
     kStatusInvalidEvent},
    {"pelmoEvent_DestroyEx", kEvent, kStatusInvalidEvent,
     [](uint32_t id, uint32_t) { return pelmoEvent_DestroyEx(id, nullptr); }, nullptr,
     kStatusSuccess, kAnyKind, true},
    GETTER(pelmoEvent_GetType, uint32_t, kEvent, kStatusInvalidEvent),
    GETTER(pelmoEvent_GetQueue, uint32_t, kEvent, kStatusInvalidEvent),
    GETTER(pelmoEvent_GetListenerSubject, const char*, kEvent, kStatusInvalidEvent, kEventListener),
    GETTER(pelmoEvent_GetListenerTransport, uint32_t, kEvent, kStatusInvalidEvent, kEventListener),
    GETTER(pelmoEvent_GetTimerInterval, double, kEvent, kStatusInvalidEvent, kEventTimer),
    {"pelmoEvent_ResetTimerInterval", kEvent, kStatusInvalidEvent,
     [](uint32_t id, uint32_t) { return pelmoEvent_ResetTimerInterval(id, 60.0); }, nullptr,
     kStatusSuccess, kEventTimer},
    GETTER(pelmoEvent_GetIOSource, int32_t, kEvent, kStatusInvalidEvent, kEventIo),
    GETTER(pelmoEvent_GetIOType, uint32_t, kEvent, kStatusInvalidEvent, kEventIo),

    {"pelmoDispatcher_GetName", kDispatcher, kStatusInvalidQueue,
     get<pelmoDispatcher_GetName, const char*>, getNothing<pelmoDispatcher_GetName>},
    {"pelmoDispatcher_SetName", kDispatcher, kStatusInvalidDispatcher,
     [](uint32_t id, uint32_t) { return pelmoDispatcher_SetName(id, "name"); },
     [](uint32_t id, uint32_t) { return pelmoDispatcher_SetName(id, nullptr); }},
    {"pelmoDispatcher_Join", kDispatcher, kStatusInvalidDispatcher,
     [](uint32_t id, uint32_t) { return pelmoDispatcher_Join(id); }},
    {"pelmoDispatcher_Destroy", kDispatcher, kStatusInvalidDispatcher,
     [](uint32_t id, uint32_t) { return pelmoDispatcher_Destroy(id); }, nullptr, kStatusSuccess,
     kAnyKind, true},

    {"pelmoTransport_Send", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t) { return pelmoTransport_Send(id, sent); },
     [](uint32_t id, uint32_t) { return pelmoTransport_Send(id, nullptr); }, kStatusInvalidMessage},
    {"pelmoTransport_Sendv", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t) { return pelmoTransport_Sendv(id, &sent, 1); },
     [](uint32_t id, uint32_t) { return pelmoTransport_Sendv(id, nullptr, 1); }},
    {"pelmoTransport_SendRequest", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t) { return pelmoTransport_SendRequest(id, sent, &polled, 0.0); },
     [](uint32_t id, uint32_t) { return pelmoTransport_SendRequest(id, sent, nullptr, 0.0); }},
    {"pelmoTransport_SendReply", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t) { return pelmoTransport_SendReply(id, sent, asked); },
     [](uint32_t id, uint32_t) { return pelmoTransport_SendReply(id, nullptr, asked); },
     kStatusInvalidMessage},
    {"pelmoTransport_Distribute", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t) {
         pelmoMsg* given = nullptr;
         (void)pelmoMsg_Create(&given);
         return pelmoTransport_Distribute(id, given);
     },
     [](uint32_t id, uint32_t) { return pelmoTransport_Distribute(id, nullptr); },
     kStatusInvalidMessage},
    {"pelmoTransport_CreateInbox", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t) { return pelmoTransport_CreateInbox(id, text, sizeof text); },
     [](uint32_t id, uint32_t) { return pelmoTransport_CreateInbox(id, nullptr, sizeof text); }},
    {"pelmoTransport_SendAdvisory", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t) {
         return pelmoTransport_SendAdvisory(id, "INFO", "A", "B", nullptr);
     },
     [](uint32_t id, uint32_t) {
         return pelmoTransport_SendAdvisory(id, nullptr, "A", "B", nullptr);
     }},
    NETWORK_SETTING(pelmoTransport_SetDescription(id, "text")),
    NETWORK_SETTING(pelmoTransport_SetHttpAddress(id, "text")),
    NETWORK_SETTING(pelmoTransport_SetEcho(id, true)),
    NETWORK_SETTING(pelmoTransport_RequestReliability(id, 1.0)),
    NETWORK_SETTING(pelmoTransport_SetBatchMode(id, 1)),
    NETWORK_SETTING(pelmoTransport_SetBlockingOnExcessiveBacklog(id, true)),
    NETWORK_SETTING(pelmoTransport_SetSendingWaitLimit(id, 1)),
    NETWORK_SETTING(pelmoTransport_HoldSends(id)),
    NETWORK_SETTING(pelmoTransport_ReleaseSends(id)),
    NETWORK_SETTING(pelmoTransport_SetHidden(id, false)),
    NETWORK_SETTING(pelmoTransport_GetService(id, &name)),
    NETWORK_SETTING(pelmoTransport_GetNetwork(id, &name)),
    NETWORK_SETTING(pelmoTransport_GetDaemon(id, &name)),
    NETWORK_SETTING(pelmoTransport_GetDescription(id, &name)),
    NETWORK_SETTING(pelmoTransport_GetHttpAddress(id, &name)),
    NETWORK_SETTING(pelmoTransport_GetSendingWaitLimit(id, &most)),
    NETWORK_SETTING(pelmoTransport_SetFirstListenerOnly(id)),
    NETWORK_SETTING(pelmoTransport_SetQuietUnhandled(id)),
    {"pelmoTransport_Destroy", kTransport, kStatusInvalidTransport,
     [](uint32_t id, uint32_t) { return pelmoTransport_Destroy(id); }, nullptr, kStatusSuccess,
     kAnyKind, true},
};

// One object of each kind, and one of each type that is gone.
struct Objects {
    Objects() {
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_Create(&sent), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_SetSendSubject(sent, "B"), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_Create(&asked), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_SetReplySubject(asked, "R"), kStatusSuccess);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
        for (uint32_t* const out : {&goneQueue, &queue}) {
            EXPECT_EQ(pelmoQueue_Create(out), kStatusSuccess);
        }
        for (uint32_t* const out : {&goneGroup, &group}) {
            EXPECT_EQ(pelmoQueueGroup_Create(out), kStatusSuccess);
        }
        for (uint32_t* const out : {&goneEvent, &timer}) {
            EXPECT_EQ(pelmoEvent_CreateTimer(out, queue, onEvent, 60, nullptr), kStatusSuccess);
        }
        EXPECT_EQ(pelmoEvent_CreateIO(&io, queue, onEvent, sockets[0], kIoRead, nullptr),
                  kStatusSuccess);
        EXPECT_EQ(pelmoEvent_CreateListener(&listener, queue, onEvent, kIntraProcessTransportId,
                                            "A", nullptr),
                  kStatusSuccess);
        for (uint32_t* const out : {&goneDispatcher, &dispatcher}) {
            EXPECT_EQ(pelmoDispatcher_CreateEx(out, queue, -1.0), kStatusSuccess);
        }
        pelmoQueue_DestroyEx(goneQueue, nullptr, nullptr);
        pelmoQueueGroup_Destroy(goneGroup);
        pelmoEvent_DestroyEx(goneEvent, nullptr);
        pelmoDispatcher_Destroy(goneDispatcher);
    }
    ~Objects() {
        pelmo_Close();
        pelmoMsg_Destroy(sent);
        pelmoMsg_Destroy(asked);
        for (const int socket : sockets)
            close(socket);
    }
    Objects(const Objects&) = delete;
    Objects& operator=(const Objects&) = delete;

    [[nodiscard]] uint32_t sound(const Call& call) const {
        switch (call.type) {
            case IdType::kQueue:
                return queue;
            case IdType::kQueueGroup:
                return group;
            case IdType::kTransport:
                return kIntraProcessTransportId;
            case IdType::kDispatcher:
                return dispatcher;
            default:
                return call.kind == kEventIo ? io : call.kind == kEventListener ? listener : timer;
        }
    }

    [[nodiscard]] uint32_t gone(IdType type) const {
        switch (type) {
            case IdType::kQueue:
                return goneQueue;
            case IdType::kQueueGroup:
                return goneGroup;
            case IdType::kDispatcher:
                return goneDispatcher;
            default:
                return goneEvent;
        }
    }

    int sockets[2] = {-1, -1};
    uint32_t queue = 0, group = 0, timer = 0, io = 0, listener = 0, dispatcher = 0;
    uint32_t goneQueue = 0, goneGroup = 0, goneEvent = 0, goneDispatcher = 0;
};

TEST(PublicCalls, RefuseIdsThatAreNone) {
    const Objects objects;
    made = objects.group;
    for (const Call& call : kCalls) {
        SCOPED_TRACE(call.name);
        EXPECT_EQ(call.call(kNoId, objects.queue), call.badId);
        EXPECT_EQ(call.call(UINT32_MAX, objects.queue), call.badId);
        EXPECT_EQ(call.call(objects.gone(call.type), objects.queue), call.badId);
        const uint32_t others[] = {objects.queue, objects.group, objects.timer, objects.dispatcher};
        for (const uint32_t other : others) {
            if (other != objects.sound(call) && !(call.type == kEvent && other == objects.timer)) {
                EXPECT_EQ(call.call(other, objects.queue), call.badId) << other;
            }
        }
        if (call.kind == kAnyKind) continue;
        for (const uint32_t event : {objects.timer, objects.io, objects.listener}) {
            if (event != objects.sound(call)) {
                EXPECT_EQ(call.call(event, objects.queue), call.badId) << event;
            }
        }
    }
}

TEST(PublicCalls, RefuseToAnswerNowhere) {
    const Objects objects;
    for (const Call& call : kCalls) {
        if (call.withoutOutput == nullptr) continue;
        EXPECT_EQ(call.withoutOutput(objects.sound(call), objects.queue), call.noOutput)
            << call.name;
    }
    EXPECT_EQ(pelmoQueue_Create(nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoQueue_CreateSynchronous(nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoQueueGroup_Create(nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoTransport_CreateNetwork(nullptr, nullptr, nullptr, nullptr),
              kStatusInvalidArgument);
    EXPECT_EQ(pelmoTransport_CreateNetworkNoResume(nullptr, nullptr, nullptr, nullptr),
              kStatusInvalidArgument);
}

TEST(PublicCalls, RefuseAClosedLibrary) {
    Objects objects;
    pelmo_Close();
    made = objects.group;
    for (const Call& call : kCalls) {
        const pelmoStatus expected = call.endsObjects ? call.badId : kStatusNotInitialized;
        EXPECT_EQ(call.call(objects.sound(call), objects.queue), expected) << call.name;
    }
    uint32_t out = 0;
    EXPECT_EQ(pelmoQueue_Create(&out), kStatusNotInitialized);
    EXPECT_EQ(pelmoQueue_CreateSynchronous(&out), kStatusNotInitialized);
    EXPECT_EQ(pelmoQueueGroup_Create(&out), kStatusNotInitialized);
    EXPECT_EQ(pelmoTransport_CreateNetwork(&out, nullptr, nullptr, nullptr), kStatusNotInitialized);
    EXPECT_EQ(pelmoTransport_CreateNetworkNoResume(&out, nullptr, nullptr, nullptr),
              kStatusNotInitialized);
    EXPECT_EQ(pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr), kStatusInvalidQueue);
    EXPECT_EQ(out, 0u);
}

// These answer a truth value, and it is no.
TEST(PublicCalls, NobodyIsInterestedThroughATransportThatIsNone) {
    Objects objects;
    uint8_t subject[kSubjectMaxBytes];
    ASSERT_GT(subjectFromText(subject, sizeof subject, "A"), 0);
    uint32_t found = 0;
    EXPECT_EQ(pelmoTransport_HasInterest(kIntraProcessTransportId, "A"), 1u);
    EXPECT_EQ(pelmoTransport_FindInterest(kIntraProcessTransportId, subject, &found), 1u);
    EXPECT_EQ(found, objects.listener);
    const auto refused = [&](uint32_t id) {
        return pelmoTransport_HasInterest(id, "A") == 0 &&
               pelmoTransport_FindInterest(id, subject, &found) == 0;
    };
    for (const uint32_t id : {kNoId, objects.queue, objects.listener, UINT32_MAX}) {
        EXPECT_TRUE(refused(id)) << id;
    }
    EXPECT_EQ(pelmoTransport_HasInterest(kIntraProcessTransportId, nullptr), 0u);
    EXPECT_EQ(pelmoTransport_FindInterest(kIntraProcessTransportId, nullptr, &found), 0u);
    pelmo_Close();
    EXPECT_TRUE(refused(kIntraProcessTransportId));
}

// Takes queues and groups, and works while the library opens.
TEST(PublicCalls, DispatchersWantSomethingToDispatch) {
    Objects objects;
    uint32_t out = 0;
    for (const uint32_t id : {kNoId, objects.goneQueue, objects.goneGroup, objects.timer}) {
        EXPECT_EQ(pelmoDispatcher_CreateEx(&out, id, 0.0), kStatusInvalidArgument);
    }
    EXPECT_EQ(pelmoDispatcher_CreateEx(nullptr, objects.queue, 0.0), kStatusInvalidArgument);
    pelmo_Close();
    EXPECT_EQ(pelmoDispatcher_CreateEx(&out, objects.queue, 0.0), kStatusInvalidArgument);
    EXPECT_EQ(out, 0u);
}

struct MessageCall {
    const char* name;
    pelmoStatus (*call)(pelmoMsg* msg);
    pelmoStatus (*withoutOutput)(pelmoMsg* msg) = nullptr;  // null: it has none
};

// Outputs of the calls below; inputs are their zeros.
union Value {
    const void* pointer;
    pelmoMsgDateTime dateTime;
    char bytes[8];
};
Value value;
pelmoMsg* madeMessage;
uint32_t number;
pelmoMsgField field;

#define MESSAGE_CALL(call)                         \
    {                                              \
#call, [](pelmoMsg * msg) { return call; } \
    }
#define MESSAGE_GETTER(call, out)                                                                 \
    {                                                                                             \
#call, [](pelmoMsg * msg) { return call(msg, out); },                                     \
                                                           [](pelmoMsg *                          \
                                                              msg) { return call(msg, nullptr); } \
    }
#define WRITERS(word)                                  \
    MESSAGE_CALL(pelmoMsg_Add##word(msg, "a", {}, 0)), \
        MESSAGE_CALL(pelmoMsg_Update##word(msg, "a", {}, 0)),
#define READER(word, Out)                                                        \
    {"pelmoMsg_Get" #word,                                                       \
     [](pelmoMsg* msg) {                                                         \
         return pelmoMsg_Get##word(msg, "a", reinterpret_cast<Out*>(&value), 0); \
     },                                                                          \
     [](pelmoMsg* msg) { return pelmoMsg_Get##word(msg, "a", nullptr, 0); }},
#define SCALAR_CALLS(word, type, Type, size, member) WRITERS(word) READER(word, Type)
#define LIST_CALLS(word, type, Type, size)                             \
    MESSAGE_CALL(pelmoMsg_Add##word(msg, "a", nullptr, 1, 0)),         \
        MESSAGE_CALL(pelmoMsg_Update##word(msg, "a", nullptr, 1, 0)),  \
        {"pelmoMsg_Get" #word,                                         \
         [](pelmoMsg* msg) {                                           \
             Type const* values = nullptr;                             \
             return pelmoMsg_Get##word(msg, "a", &values, &number, 0); \
         },                                                            \
         [](pelmoMsg* msg) { return pelmoMsg_Get##word(msg, "a", nullptr, &number, 0); }},

const MessageCall kMessageCalls[] = {
    MESSAGE_CALL(pelmoMsg_Destroy(msg)),
    MESSAGE_CALL(pelmoMsg_Detach(msg)),
    MESSAGE_CALL(pelmoMsg_Reset(msg)),
    MESSAGE_CALL(pelmoMsg_Expand(msg, 8)),
    MESSAGE_CALL(pelmoMsg_Print(msg)),
    MESSAGE_CALL(pelmoMsg_PrintEnvelope(msg)),
    MESSAGE_CALL(pelmoMsg_MarkReferences(msg)),
    MESSAGE_CALL(pelmoMsg_ClearReferences(msg)),
    MESSAGE_CALL(pelmoMsg_AddField(msg, &field)),
    MESSAGE_CALL(pelmoMsg_UpdateField(msg, &field)),
    MESSAGE_CALL(pelmoMsg_AddNone(msg, "a", 0)),
    MESSAGE_CALL(pelmoMsg_RemoveFieldEx(msg, "a", 0)),
    MESSAGE_CALL(pelmoMsg_RemoveFieldInstance(msg, "a", 1)),
    MESSAGE_CALL(pelmoMsg_GetFieldEx(msg, "a", &field, 0)),
    MESSAGE_CALL(pelmoMsg_GetFieldByIndex(msg, &field, 0)),
    MESSAGE_CALL(pelmoMsg_GetFieldInstance(msg, "a", &field, 1)),
    MESSAGE_CALL(pelmoMsg_SetSendSubject(msg, "A")),
    MESSAGE_CALL(pelmoMsg_SetReplySubject(msg, "A")),
    MESSAGE_CALL(pelmoMsg_SetSourcePort(msg, 1)),
    MESSAGE_CALL(pelmoMsg_GetAsBytesCopy(msg, text, sizeof text)),
    MESSAGE_GETTER(pelmoMsg_CreateCopy, &madeMessage),
    MESSAGE_GETTER(pelmoMsg_GetAsBytes, &value.pointer),
    MESSAGE_GETTER(pelmoMsg_GetByteSize, &number),
    MESSAGE_GETTER(pelmoMsg_GetNumFields, &number),
    MESSAGE_GETTER(pelmoMsg_ConvertToString, &name),
    MESSAGE_GETTER(pelmoMsg_GetSendSubject, &name),
    MESSAGE_GETTER(pelmoMsg_GetReplySubject, &name),
    {"pelmoMsg_GetSource",
     [](pelmoMsg* msg) { return pelmoMsg_GetSource(msg, reinterpret_cast<uint16_t*>(&value)); },
     [](pelmoMsg* msg) { return pelmoMsg_GetSource(msg, nullptr); }},
    PELMO_SCALAR_FIELDS(SCALAR_CALLS) PELMO_NUMBER_ARRAY_FIELDS(LIST_CALLS)
        PELMO_LIST_FIELDS(LIST_CALLS) PELMO_BLOCK_FIELDS(LIST_CALLS) WRITERS(DateTime)
            READER(DateTime, pelmoMsgDateTime) WRITERS(String) READER(String, const char*)
                WRITERS(Msg) READER(Msg, pelmoMsg*) WRITERS(Subject) READER(Subject, const uint8_t*)
                    WRITERS(SubjectText) READER(SubjectText, const char*)};

TEST(PublicCalls, RefuseWhatIsNoMessage) {
    pelmoMsg* dead = nullptr;
    ASSERT_EQ(pelmoMsg_Create(&dead), kStatusSuccess);
    msgRetain(dead);  // another holder keeps its memory
    ASSERT_EQ(pelmoMsg_Destroy(dead), kStatusSuccess);
    pelmoMsg* sound = nullptr;
    ASSERT_EQ(pelmoMsg_Create(&sound), kStatusSuccess);
    for (const MessageCall& call : kMessageCalls) {
        EXPECT_EQ(call.call(nullptr), kStatusInvalidMessage) << call.name;
        EXPECT_EQ(call.call(dead), kStatusInvalidMessage) << call.name;
        if (call.withoutOutput == nullptr) continue;
        EXPECT_EQ(call.withoutOutput(sound), kStatusInvalidArgument) << call.name;
        EXPECT_EQ(call.withoutOutput(nullptr), kStatusInvalidMessage) << call.name;
    }
    EXPECT_EQ(pelmoMsg_Destroy(sound), kStatusSuccess);
    msgRelease(dead);
}

}  // namespace
