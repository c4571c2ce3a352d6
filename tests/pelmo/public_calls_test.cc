// Every public call against what it must refuse: a closed library, an id that is none, was
// destroyed or is of another type, and no place for its answer; those of messages against no
// message, a destroyed one, and no place.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lib/containers/subject.h"
#include "lib/msg/field_rows.h"
#include "lib/msg/message_internal.h"
#include "lib/pelmo.h"
#include "lib/runtime/id.h"
#include "tests/support/test.h"

namespace {

void onEvent(uint32_t, pelmoMsg*, void*) {}
void onBatch(pelmoMsg**, uint32_t) {}

// Those from timers to events are events; kEvents are events of any kind.
enum Kind : int { kQueues, kGroups, kDispatchers, kTimers, kIos, kListeners, kEvents, kTransports };
constexpr Kind kDispatchables{kTransports + 1};  // queues and groups
constexpr size_t kKinds = kDispatchables + 1;

// What an id is wanted of, and what is answered to another.
struct Target {
    Kind kind;
    pelmoStatus badId;
};

constexpr Target kQueue = {kQueues, kStatusInvalidQueue};
constexpr Target kGroup = {kGroups, kStatusInvalidQueueGroup};
constexpr Target kEvent = {kEvents, kStatusInvalidEvent};
constexpr Target kTimer = {kTimers, kStatusInvalidEvent};
constexpr Target kIo = {kIos, kStatusInvalidEvent};
constexpr Target kListener = {kListeners, kStatusInvalidEvent};
constexpr Target kTransport = {kTransports, kStatusInvalidTransport};
constexpr Target kDispatchable = {kDispatchables, kStatusInvalidArgument};
constexpr Target kDispatcher = {kDispatchers, kStatusInvalidDispatcher};
constexpr Target kNamedDispatcher = {kDispatchers, kStatusInvalidQueue};

// A place that a call shall refuse to go without, for its answer or with its text: null while
// `nowhere` holds, and then answered by `refusal`.
bool nowhere;
pelmoStatus refusal;

template <typename Value>
Value* place(Value* value, pelmoStatus withoutIt = kStatusInvalidArgument) {
    refusal = withoutIt;
    return nowhere ? nullptr : value;
}

struct Call {
    const char* name;
    Target target;
    pelmoStatus (*call)(uint32_t id);  // whole but for the id of what it is about
    bool hasPlace = false;
    bool endsObjects = false;  // works on a closed library
};

#define BY_ID(call) []([[maybe_unused]] uint32_t id) { return call; }
#define CALL(target, call) \
    { #call, target, BY_ID(call) }
#define ANSWER(target, call) \
    { #call, target, BY_ID(call), true }
#define ENDING(target, call) \
    { #call, target, BY_ID(call), false, true }
#define GETTER(target, call, out) ANSWER(target, call(id, place(&(out))))

uint32_t queue, group;  // sound ones
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
pelmoDirectTraffic traffic;
pelmoUnsent unsent = {};

pelmoStatus distribute(uint32_t id) {
    pelmoMsg* given = nullptr;
    if (place(&given, kStatusInvalidMessage) != nullptr) (void)pelmoMsg_Create(&given);
    return pelmoTransport_Distribute(id, given);
}

constexpr uint32_t kLocal = kIntraProcessTransportId;
uint32_t* newEvent() {
    return place(&made, kStatusInvalidEvent);
}

// Of calls that only a network transport can serve, a bad id is reported first.
const Call kCalls[] = {
    GETTER(kQueue, pelmoQueue_GetCount, most),
    GETTER(kQueue, pelmoQueue_GetHook, hook),
    GETTER(kQueue, pelmoQueue_GetName, name),
    GETTER(kQueue, pelmoQueue_GetPriority, most),
    CALL(kQueue, pelmoQueue_SetHook(id, nullptr, nullptr)),
    ANSWER(kQueue, pelmoQueue_GetLimitPolicy(id, &policy, place(&most), &discard)),
    CALL(kQueue, pelmoQueue_SetLimitPolicy(id, kLimitNone, 0, 0)),
    ANSWER(kQueue, pelmoQueue_SetName(id, place("name"))),
    CALL(kQueue, pelmoQueue_SetPriority(id, 2)),
    ANSWER(kQueue, pelmoQueue_Poll(id, place(&polled), 0)),
    ANSWER(kQueue, pelmoQueue_PollMany(id, &polled, 1, place(&made), 0)),
    CALL(kQueue, pelmoQueue_TimedDispatch(id, 0)),
    CALL(kQueue, pelmoQueue_TimedDispatchSingle(id, 0)),
    ENDING(kQueue, pelmoQueue_DestroyEx(id, nullptr, nullptr)),

    CALL(kGroup, pelmoQueueGroup_Add(id, queue)),
    CALL(kQueue, pelmoQueueGroup_Add(group, id)),
    CALL(kGroup, pelmoQueueGroup_Remove(id, queue)),
    CALL(kGroup, pelmoQueueGroup_TimedDispatch(id, 0)),
    ENDING(kGroup, pelmoQueueGroup_Destroy(id)),

    ANSWER(kQueue, pelmoEvent_CreateTimer(newEvent(), id, onEvent, 60, nullptr)),
    ANSWER(kQueue, pelmoEvent_CreateIO(newEvent(), id, onEvent, -1, kIoRead, nullptr)),
    ANSWER(kTransport, pelmoEvent_CreateListener(newEvent(), queue, onEvent, id, "A", nullptr)),
    CALL(kQueue, pelmoEvent_CreateListener(&made, id, onEvent, kLocal, "A", nullptr)),
    ANSWER(kTransport,
           pelmoEvent_CreateVectorListener(newEvent(), queue, onBatch, id, "A", nullptr)),
    ANSWER(kTransport,
           pelmoEvent_CreateVectorListenerEx(newEvent(), queue, onBatch, id, "A", nullptr, &made)),
    ANSWER(kTransport, _pelmoTransport_AddPolledListener(newEvent(), queue, id, "A")),
    ENDING(kEvent, pelmoEvent_DestroyEx(id, nullptr)),
    ENDING(kEvent, pelmoEvent_DestroyWait(id)),
    GETTER(kEvent, pelmoEvent_GetType, most),
    GETTER(kEvent, pelmoEvent_GetQueue, most),
    GETTER(kListener, pelmoEvent_GetListenerSubject, name),
    GETTER(kListener, pelmoEvent_GetListenerTransport, most),
    GETTER(kTimer, pelmoEvent_GetTimerInterval, seconds),
    CALL(kTimer, pelmoEvent_ResetTimerInterval(id, 60)),
    GETTER(kIo, pelmoEvent_GetIOSource, source),
    GETTER(kIo, pelmoEvent_GetIOType, most),

    {"pelmoDispatcher_CreateEx", kDispatchable,
     BY_ID(pelmoDispatcher_CreateEx(place(&made), id, 0.0)), true, true},
    GETTER(kNamedDispatcher, pelmoDispatcher_GetName, name),
    ANSWER(kDispatcher, pelmoDispatcher_SetName(id, place("name"))),
    CALL(kDispatcher, pelmoDispatcher_Join(id)),
    ENDING(kDispatcher, pelmoDispatcher_Destroy(id)),

    ANSWER(kTransport, pelmoTransport_Send(id, place(sent, kStatusInvalidMessage))),
    ANSWER(kTransport, pelmoTransport_Sendv(id, place(&sent), 1)),
    ANSWER(kTransport, pelmoTransport_SendvTaken(id, place(&sent), 1, &most)),
    ANSWER(kTransport, pelmoTransport_SendRequest(id, sent, place(&polled), 0)),
    ANSWER(kTransport,
           pelmoTransport_SendRequestAsync(place(&made), id, queue, sent, onEvent, 0, nullptr)),
    CALL(kQueue, pelmoTransport_SendRequestAsync(&made, kLocal, id, sent, onEvent, 0, nullptr)),
    ANSWER(kTransport, pelmoTransport_SendReply(id, place(sent, kStatusInvalidMessage), asked)),
    ANSWER(kTransport, distribute(id)),
    ANSWER(kTransport, pelmoTransport_CreateInbox(id, place(text), sizeof text)),
    ANSWER(kTransport, pelmoTransport_SendAdvisory(id, place("INFO"), "A", "B", nullptr)),
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
    CALL(kTransport, pelmoTransport_GetDirectTraffic(id, &traffic)),
    CALL(kTransport, pelmoTransport_GetUnsent(id, &unsent)),
    CALL(kTransport, pelmoTransport_GetDescription(id, &name)),
    CALL(kTransport, pelmoTransport_GetHttpAddress(id, &name)),
    CALL(kTransport, pelmoTransport_GetSendingWaitLimit(id, &most)),
    CALL(kTransport, pelmoTransport_SetFirstListenerOnly(id)),
    CALL(kTransport, pelmoTransport_SetQuietUnhandled(id)),
    ENDING(kTransport, pelmoTransport_Destroy(id)),
    ENDING(kTransport, pelmoTransport_DestroyWithin(id, 0)),
};

// Those that make an object of nothing.
pelmoStatus (*const kCreators[])(uint32_t* out) = {
    pelmoQueue_Create,
    pelmoQueue_CreateSynchronous,
    pelmoQueueGroup_Create,
    [](uint32_t* out) { return pelmoTransport_CreateNetwork(out, nullptr, nullptr, nullptr); },
    [](uint32_t* out) {
        return pelmoTransport_CreateNetworkNoResume(out, nullptr, nullptr, nullptr);
    },
};

// An object of each kind, and one of each that is gone.
struct Objects : NoCopy {
    Objects() {
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_Create(&sent), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_SetSendSubject(sent, "B"), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_Create(&asked), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_SetReplySubject(asked, "R"), kStatusSuccess);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
        make(gone, sockets[0]);
        pelmoDispatcher_Destroy(gone[kDispatchers]);
        for (const Kind kind : {kTimers, kIos, kListeners})
            pelmoEvent_DestroyEx(gone[kind], nullptr);
        pelmoQueueGroup_Destroy(gone[kGroups]);
        pelmoQueue_DestroyEx(gone[kQueues], nullptr, nullptr);
        gone[kTransports] = gone[kTimers];
        make(sound, sockets[1]);
        queue = sound[kQueues];
        group = sound[kGroups];
    }
    ~Objects() {
        nowhere = false;
        pelmo_Close();
        pelmoMsg_Destroy(sent);
        pelmoMsg_Destroy(asked);
        for (const int socket : sockets)
            close(socket);
    }

    static void make(uint32_t (&ids)[kKinds], int socket) {
        EXPECT_EQ(pelmoQueue_Create(&ids[kQueues]), kStatusSuccess);
        const uint32_t on = ids[kQueues];
        EXPECT_EQ(pelmoQueueGroup_Create(&ids[kGroups]), kStatusSuccess);
        EXPECT_EQ(pelmoDispatcher_CreateEx(&ids[kDispatchers], on, -1.0), kStatusSuccess);
        EXPECT_EQ(pelmoEvent_CreateTimer(&ids[kTimers], on, onEvent, 60, nullptr), kStatusSuccess);
        EXPECT_EQ(pelmoEvent_CreateIO(&ids[kIos], on, onEvent, socket, kIoRead, nullptr),
                  kStatusSuccess);
        EXPECT_EQ(pelmoEvent_CreateListener(&ids[kListeners], on, onEvent, kLocal, "A", nullptr),
                  kStatusSuccess);
        ids[kEvents] = ids[kTimers];
        ids[kTransports] = kLocal;
        ids[kDispatchables] = on;
    }

    int sockets[2] = {-1, -1};
    uint32_t sound[kKinds] = {}, gone[kKinds] = {};
};

TEST(PublicCalls, RefuseIdsThatAreNone) {
    const Objects objects;
    for (const Call& call : kCalls) {
        SCOPED_TRACE(call.name);
        const auto [kind, badId] = call.target;
        for (const uint32_t none : {kNoId, UINT32_MAX, objects.gone[kind]}) {
            EXPECT_EQ(call.call(none), badId) << none;
        }
        for (const Kind other : {kQueues, kGroups, kDispatchers, kTimers, kIos, kListeners}) {
            const bool fits = other == kind || (kind == kEvents && other >= kTimers) ||
                              (kind == kDispatchables && other <= kGroups);
            if (fits) continue;
            EXPECT_EQ(call.call(objects.sound[other]), badId) << other;
        }
    }
}

TEST(PublicCalls, RefuseToAnswerNowhere) {
    const Objects objects;
    nowhere = true;
    for (const Call& call : kCalls) {
        if (!call.hasPlace) continue;
        const pelmoStatus status = call.call(objects.sound[call.target.kind]);  // sets the refusal
        EXPECT_EQ(status, refusal) << call.name;
    }
    for (auto* const create : kCreators)
        EXPECT_EQ(create(nullptr), kStatusInvalidArgument);
}

TEST(PublicCalls, RefuseAClosedLibrary) {
    Objects objects;
    pelmo_Close();
    for (const Call& call : kCalls) {
        const pelmoStatus expected = call.endsObjects ? call.target.badId : kStatusNotInitialized;
        EXPECT_EQ(call.call(objects.sound[call.target.kind]), expected) << call.name;
    }
    uint32_t out = 0;
    for (auto* const create : kCreators)
        EXPECT_EQ(create(&out), kStatusNotInitialized);
    for (auto* const wake : {pelmoQueue_Wake, pelmoQueueGroup_Wake})
        EXPECT_EQ(wake(objects.sound[kQueues]), kStatusNotInitialized);
    EXPECT_EQ(pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr), kStatusInvalidQueue);
    EXPECT_EQ(out, 0u);
}

// These answer a truth value, and it is no.
TEST(PublicCalls, NothingListensThroughATransportThatIsNone) {
    Objects objects;
    uint8_t subject[kSubjectMaxBytes];
    ASSERT_GT(subjectFromText(subject, sizeof subject, "A"), 0);
    uint32_t found = 0;
    const auto answers = [&](uint32_t id, const char* words, const uint8_t* coded) {
        return pelmoTransport_HasInterest(id, words) +
               pelmoTransport_FindInterest(id, coded, &found);
    };
    EXPECT_EQ(answers(kLocal, "A", subject), 2u);
    EXPECT_EQ(found, objects.sound[kListeners]);
    for (const uint32_t id : {kNoId, queue, objects.sound[kListeners], UINT32_MAX})
        EXPECT_EQ(answers(id, "A", subject), 0u) << id;
    EXPECT_EQ(answers(kLocal, nullptr, nullptr), 0u);
    pelmo_Close();
    EXPECT_EQ(answers(kLocal, "A", subject), 0u);
}

struct MessageCall {
    const char* name;
    pelmoStatus (*call)(pelmoMsg* msg);
    bool hasPlace = false;
};

// Outputs of the calls below; inputs are their zeros.
alignas(8) char value[16];
uint32_t number;
size_t length;
pelmoMsgField field;

template <typename Out>
Out* valuePlace() {
    return place(reinterpret_cast<Out*>(value));
}

#define MESSAGE_CALL(call)                         \
    {                                              \
#call, [](pelmoMsg * msg) { return call; } \
    }
#define MESSAGE_ANSWER(call)                             \
    {                                                    \
#call, [](pelmoMsg * msg) { return call; }, true \
    }
#define MESSAGE_GETTER(call, Out) MESSAGE_ANSWER(call(msg, valuePlace<Out>()))
#define WRITERS(word)                                  \
    MESSAGE_CALL(pelmoMsg_Add##word(msg, "a", {}, 0)), \
        MESSAGE_CALL(pelmoMsg_Update##word(msg, "a", {}, 0)),
#define READER(word, Out) MESSAGE_ANSWER(pelmoMsg_Get##word(msg, "a", valuePlace<Out>(), 0)),
#define EXACT_READER(word, type, Type, member) \
    MESSAGE_ANSWER(pelmoMsg_Get##word##Exact(msg, "a", valuePlace<Type>(), 0)),
#define SCALAR_CALLS(word, type, Type, size, member) WRITERS(word) READER(word, Type)
#define LIST_CALLS(word, type, Type, size)                            \
    MESSAGE_CALL(pelmoMsg_Add##word(msg, "a", nullptr, 1, 0)),        \
        MESSAGE_CALL(pelmoMsg_Update##word(msg, "a", nullptr, 1, 0)), \
        MESSAGE_ANSWER(pelmoMsg_Get##word(msg, "a", valuePlace<Type const*>(), &number, 0)),

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
    MESSAGE_CALL(pelmoMsg_GetFieldBytes(msg, &field, 0)),
    MESSAGE_CALL(pelmoMsg_GetFieldInstance(msg, "a", &field, 1)),
    MESSAGE_CALL(pelmoMsg_SetSendSubject(msg, "A")),
    MESSAGE_CALL(pelmoMsg_SetReplySubject(msg, "A")),
    MESSAGE_CALL(pelmoMsg_SetSourcePort(msg, 1)),
    MESSAGE_CALL(pelmoMsg_GetAsBytesCopy(msg, text, sizeof text)),
    MESSAGE_GETTER(pelmoMsg_CreateCopy, pelmoMsg*),
    MESSAGE_GETTER(pelmoMsg_GetAsBytes, const void*),
    MESSAGE_GETTER(pelmoMsg_GetByteSize, uint32_t),
    MESSAGE_GETTER(pelmoMsg_GetNumFields, uint32_t),
    MESSAGE_GETTER(pelmoMsg_ConvertToString, const char*),
    MESSAGE_GETTER(pelmoMsg_GetSendSubject, const char*),
    MESSAGE_GETTER(pelmoMsg_GetReplySubject, const char*),
    MESSAGE_GETTER(pelmoMsg_GetSource, uint16_t),
    MESSAGE_GETTER(pelmoMsg_GetEvent, uint32_t),
    MESSAGE_GETTER(pelmoMsg_GetClosure, void*),
    MESSAGE_CALL(pelmoMsg_SetSendSubjectN(msg, "A", 1)),
    MESSAGE_CALL(pelmoMsg_SetReplySubjectN(msg, "A", 1)),
    MESSAGE_ANSWER(pelmoMsg_GetAsBytesN(msg, valuePlace<const void*>(), &length)),
    MESSAGE_ANSWER(pelmoMsg_ConvertToStringN(msg, valuePlace<const char*>(), &length)),
    MESSAGE_ANSWER(pelmoMsg_GetSendSubjectN(msg, valuePlace<const char*>(), &length)),
    MESSAGE_ANSWER(pelmoMsg_GetReplySubjectN(msg, valuePlace<const char*>(), &length)),
    MESSAGE_CALL(pelmoMsg_AddStringN(msg, "a", "", 0, 0)),
    MESSAGE_CALL(pelmoMsg_UpdateStringN(msg, "a", "", 0, 0)),
    MESSAGE_ANSWER(pelmoMsg_GetStringN(msg, "a", valuePlace<const char*>(), &length, 0)),
    PELMO_NUMBER_FIELDS(EXACT_READER) PELMO_SCALAR_FIELDS(SCALAR_CALLS)
        PELMO_NUMBER_ARRAY_FIELDS(LIST_CALLS) PELMO_LIST_FIELDS(LIST_CALLS)
            PELMO_BLOCK_FIELDS(LIST_CALLS) WRITERS(DateTime) READER(DateTime, pelmoMsgDateTime)
                WRITERS(String) READER(String, const char*) WRITERS(Msg) READER(Msg, pelmoMsg*)
                    WRITERS(Subject) READER(Subject, const uint8_t*) WRITERS(SubjectText)
                        READER(SubjectText, const char*)};

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
        if (!call.hasPlace) continue;
        nowhere = true;
        EXPECT_EQ(call.call(sound), kStatusInvalidArgument) << call.name;
        EXPECT_EQ(call.call(nullptr), kStatusInvalidMessage) << call.name;
        nowhere = false;
    }
    EXPECT_EQ(pelmoMsg_CreateFromBytesN(nullptr, text, sizeof text), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_CreateFromBytesN(&sound, nullptr, 8), kStatusInvalidMessage);
    EXPECT_EQ(pelmoMsg_Destroy(sound), kStatusSuccess);
    msgRelease(dead);
}

}  // namespace
