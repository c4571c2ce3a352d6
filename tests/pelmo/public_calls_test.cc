// Every public call against what it shall refuse: a closed library, an id that is none, was
// destroyed or is of another type, and no place for its answer; those of messages against no
// message, a dead one, and no place.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"
#include "lib/pelmo.h"
#include "lib/runtime/id.h"

namespace {

void onEvent(uint32_t, pelmoMsg*, void*) {}
void onBatch(pelmoMsg**, uint32_t) {}

// With the id of the object that the call is about, and of a queue that is sound.
using ByName = pelmoStatus (*)(uint32_t id, uint32_t queue);

// What an id is wanted of, and what is answered to another.
struct Target {
    IdType type;
    pelmoStatus badId;
    uint32_t kind = 0;  // of event; 0: any
};

constexpr Target kQueue = {IdType::kQueue, kStatusInvalidQueue};
constexpr Target kGroup = {IdType::kQueueGroup, kStatusInvalidQueueGroup};
constexpr Target kEvent = {IdType::kEvent, kStatusInvalidEvent};
constexpr Target kTimer = {IdType::kEvent, kStatusInvalidEvent, kEventTimer};
constexpr Target kIo = {IdType::kEvent, kStatusInvalidEvent, kEventIo};
constexpr Target kListener = {IdType::kEvent, kStatusInvalidEvent, kEventListener};
constexpr Target kTransport = {IdType::kTransport, kStatusInvalidTransport};
constexpr Target kDispatcher = {IdType::kDispatcher, kStatusInvalidDispatcher};
constexpr Target kNamedDispatcher = {IdType::kDispatcher, kStatusInvalidQueue};

struct Call {
    const char* name;
    Target target;
    ByName call;           // whole but for the id
    ByName withoutOutput;  // or without its text; null: there is none
    pelmoStatus noOutput;
    bool endsObjects;  // works on a closed library
};

constexpr Call makeCall(const char* name,
                        Target target,
                        ByName call,
                        ByName withoutOutput = nullptr,
                        pelmoStatus noOutput = kStatusInvalidArgument) {
    return {name, target, call, withoutOutput, noOutput, false};
}

constexpr Call ending(Call call) {
    call.endsObjects = true;
    return call;
}

#define BY_NAME(call) \
    []([[maybe_unused]] uint32_t id, [[maybe_unused]] uint32_t queue) { return call; }
#define CALL(target, call) makeCall(#call, target, BY_NAME(call))
#define ENDING(target, call) ending(CALL(target, call))
// Whole, without its output or text, and the status of that.
#define ANSWER(target, call, without, ...) \
    makeCall(#call, target, BY_NAME(call), BY_NAME(without) __VA_OPT__(, ) __VA_ARGS__)
#define GETTER(target, call, out) ANSWER(target, call(id, &(out)), call(id, nullptr))

uint32_t made;
pelmoMsg* sent;
pelmoMsg* asked;  // wants a reply
char text[64];
const char* name;
pelmoMsg* polled;
pelmoQueueHook hook;
double seconds;
int32_t source;
uint32_t policy, most, discard;

pelmoStatus distribute(uint32_t id) {
    pelmoMsg* given = nullptr;
    (void)pelmoMsg_Create(&given);
    return pelmoTransport_Distribute(id, given);
}

constexpr uint32_t kLocal = kIntraProcessTransportId;

// Of what only a network transport can follow, a bad id is told first.
const Call kCalls[] = {
    GETTER(kQueue, pelmoQueue_GetCount, most),
    GETTER(kQueue, pelmoQueue_GetHook, hook),
    GETTER(kQueue, pelmoQueue_GetName, name),
    GETTER(kQueue, pelmoQueue_GetPriority, most),
    CALL(kQueue, pelmoQueue_SetHook(id, nullptr, nullptr)),
    ANSWER(kQueue,
           pelmoQueue_GetLimitPolicy(id, &policy, &most, &discard),
           pelmoQueue_GetLimitPolicy(id, &policy, nullptr, &most)),
    CALL(kQueue, pelmoQueue_SetLimitPolicy(id, kLimitNone, 0, 0)),
    ANSWER(kQueue, pelmoQueue_SetName(id, "name"), pelmoQueue_SetName(id, nullptr)),
    CALL(kQueue, pelmoQueue_SetPriority(id, 2)),
    ANSWER(kQueue, pelmoQueue_Poll(id, &polled, 0), pelmoQueue_Poll(id, nullptr, 0)),
    ANSWER(kQueue,
           pelmoQueue_PollMany(id, &polled, 1, &made, 0),
           pelmoQueue_PollMany(id, &polled, 1, nullptr, 0)),
    CALL(kQueue, pelmoQueue_TimedDispatch(id, 0)),
    CALL(kQueue, pelmoQueue_TimedDispatchSingle(id, 0)),
    ENDING(kQueue, pelmoQueue_DestroyEx(id, nullptr, nullptr)),

    CALL(kGroup, pelmoQueueGroup_Add(id, queue)),
    CALL(kQueue, pelmoQueueGroup_Add(made, id)),
    CALL(kGroup, pelmoQueueGroup_Remove(id, queue)),
    CALL(kGroup, pelmoQueueGroup_TimedDispatch(id, 0)),
    ENDING(kGroup, pelmoQueueGroup_Destroy(id)),

    ANSWER(kQueue,
           pelmoEvent_CreateTimer(&made, id, onEvent, 60, nullptr),
           pelmoEvent_CreateTimer(nullptr, id, onEvent, 1, nullptr),
           kStatusInvalidEvent),
    ANSWER(kQueue,
           pelmoEvent_CreateIO(&made, id, onEvent, -1, kIoRead, nullptr),
           pelmoEvent_CreateIO(nullptr, id, onEvent, -1, kIoRead, nullptr),
           kStatusInvalidEvent),
    ANSWER(kTransport,
           pelmoEvent_CreateListener(&made, queue, onEvent, id, "A", nullptr),
           pelmoEvent_CreateListener(nullptr, queue, onEvent, id, "A", nullptr),
           kStatusInvalidEvent),
    CALL(kQueue, pelmoEvent_CreateListener(&made, id, onEvent, kLocal, "A", nullptr)),
    ANSWER(kTransport,
           pelmoEvent_CreateVectorListener(&made, queue, onBatch, id, "A", nullptr),
           pelmoEvent_CreateVectorListener(nullptr, queue, onBatch, id, "A", nullptr),
           kStatusInvalidEvent),
    ANSWER(kTransport,
           pelmoEvent_CreateVectorListenerEx(&made, queue, onBatch, id, "A", nullptr, &made),
           pelmoEvent_CreateVectorListenerEx(nullptr, queue, onBatch, id, "A", nullptr, &made),
           kStatusInvalidEvent),
    ANSWER(kTransport,
           _pelmoTransport_AddPolledListener(&made, queue, id, "A"),
           _pelmoTransport_AddPolledListener(nullptr, queue, id, "A"),
           kStatusInvalidEvent),
    ENDING(kEvent, pelmoEvent_DestroyEx(id, nullptr)),
    GETTER(kEvent, pelmoEvent_GetType, most),
    GETTER(kEvent, pelmoEvent_GetQueue, most),
    GETTER(kListener, pelmoEvent_GetListenerSubject, name),
    GETTER(kListener, pelmoEvent_GetListenerTransport, most),
    GETTER(kTimer, pelmoEvent_GetTimerInterval, seconds),
    CALL(kTimer, pelmoEvent_ResetTimerInterval(id, 60)),
    GETTER(kIo, pelmoEvent_GetIOSource, source),
    GETTER(kIo, pelmoEvent_GetIOType, most),

    GETTER(kNamedDispatcher, pelmoDispatcher_GetName, name),
    ANSWER(kDispatcher, pelmoDispatcher_SetName(id, "name"), pelmoDispatcher_SetName(id, nullptr)),
    CALL(kDispatcher, pelmoDispatcher_Join(id)),
    ENDING(kDispatcher, pelmoDispatcher_Destroy(id)),

    ANSWER(kTransport,
           pelmoTransport_Send(id, sent),
           pelmoTransport_Send(id, nullptr),
           kStatusInvalidMessage),
    ANSWER(kTransport, pelmoTransport_Sendv(id, &sent, 1), pelmoTransport_Sendv(id, nullptr, 1)),
    ANSWER(kTransport,
           pelmoTransport_SendRequest(id, sent, &polled, 0),
           pelmoTransport_SendRequest(id, sent, nullptr, 0)),
    ANSWER(kTransport,
           pelmoTransport_SendReply(id, sent, asked),
           pelmoTransport_SendReply(id, nullptr, asked),
           kStatusInvalidMessage),
    ANSWER(
        kTransport, distribute(id), pelmoTransport_Distribute(id, nullptr), kStatusInvalidMessage),
    ANSWER(kTransport,
           pelmoTransport_CreateInbox(id, text, sizeof text),
           pelmoTransport_CreateInbox(id, nullptr, sizeof text)),
    ANSWER(kTransport,
           pelmoTransport_SendAdvisory(id, "INFO", "A", "B", nullptr),
           pelmoTransport_SendAdvisory(id, nullptr, "A", "B", nullptr)),
    CALL(kTransport, pelmoTransport_SetDescription(id, "text")),
    CALL(kTransport, pelmoTransport_SetHttpAddress(id, "text")),
    CALL(kTransport, pelmoTransport_SetEcho(id, true)),
    CALL(kTransport, pelmoTransport_RequestReliability(id, 1)),
    CALL(kTransport, pelmoTransport_SetBatchMode(id, 1)),
    CALL(kTransport, pelmoTransport_SetBlockingOnExcessiveBacklog(id, true)),
    CALL(kTransport, pelmoTransport_SetSendingWaitLimit(id, 1)),
    CALL(kTransport, pelmoTransport_HoldSends(id)),
    CALL(kTransport, pelmoTransport_ReleaseSends(id)),
    CALL(kTransport, pelmoTransport_SetHidden(id, false)),
    CALL(kTransport, pelmoTransport_GetService(id, &name)),
    CALL(kTransport, pelmoTransport_GetNetwork(id, &name)),
    CALL(kTransport, pelmoTransport_GetDaemon(id, &name)),
    CALL(kTransport, pelmoTransport_GetDescription(id, &name)),
    CALL(kTransport, pelmoTransport_GetHttpAddress(id, &name)),
    CALL(kTransport, pelmoTransport_GetSendingWaitLimit(id, &most)),
    CALL(kTransport, pelmoTransport_SetFirstListenerOnly(id)),
    CALL(kTransport, pelmoTransport_SetQuietUnhandled(id)),
    ENDING(kTransport, pelmoTransport_Destroy(id)),
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

    [[nodiscard]] uint32_t sound(const Target& target) const {
        switch (target.type) {
            case IdType::kQueue:
                return queue;
            case IdType::kQueueGroup:
                return group;
            case IdType::kTransport:
                return kIntraProcessTransportId;
            case IdType::kDispatcher:
                return dispatcher;
            default:
                return target.kind == kEventIo         ? io
                       : target.kind == kEventListener ? listener
                                                       : timer;
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
        const Target& target = call.target;
        for (const uint32_t none : {kNoId, UINT32_MAX, objects.gone(target.type)}) {
            EXPECT_EQ(call.call(none, objects.queue), target.badId) << none;
        }
        std::vector<uint32_t> others = {objects.queue, objects.group, objects.dispatcher};
        if (target.type != IdType::kEvent || target.kind != 0) {
            others.insert(others.end(), {objects.timer, objects.io, objects.listener});
        }
        std::erase(others, objects.sound(target));
        for (const uint32_t other : others) {
            EXPECT_EQ(call.call(other, objects.queue), target.badId) << other;
        }
    }
}

TEST(PublicCalls, RefuseToAnswerNowhere) {
    const Objects objects;
    for (const Call& call : kCalls) {
        if (call.withoutOutput == nullptr) continue;
        EXPECT_EQ(call.withoutOutput(objects.sound(call.target), objects.queue), call.noOutput)
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
        const pelmoStatus expected = call.endsObjects ? call.target.badId : kStatusNotInitialized;
        EXPECT_EQ(call.call(objects.sound(call.target), objects.queue), expected) << call.name;
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
