// A message and a plain list of named values are driven side by side by the same random steps.
// After each step the image is that of the list, the index says where each record is, and all that
// was ever read and not released still has its value.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "lib/containers/i32map.h"
#include "lib/containers/subject.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/text.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/message_values.h"
#include "tests/support/test.h"

namespace {

constexpr uint32_t kSeeds = 24;
constexpr uint32_t kSteps = 600;
constexpr size_t kMostFields = 40;

const char* charsOf(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}

struct Key {
    std::optional<std::string> name;
    uint16_t id;

    [[nodiscard]] const char* text() const { return charsOf(name); }
};

struct ModelField : Key {
    SharedValue value;
};

// What a read gave, and what it has to show until it is let go of.
struct Held {
    pelmoMsgField field;
    ModelField model;
};

struct ModelEnvelope {
    bool there = false;
    bool portKnown = true;  // a copy finds the port out at its next opening
    std::optional<std::string> subject, reply;
    std::optional<uint16_t> port;
};

// A message beside its model.
struct Pair {
    Message msg;
    std::vector<ModelField> fields;
    std::vector<Held> held;
    std::vector<size_t> marks;  // how much was held at each
    bool markedEver = false;
    ModelEnvelope envelope = {};
};

// Few, so that they meet; a null and an empty one among them.
const std::optional<std::string> kNames[] = {
    std::nullopt, "", "a", "b", "ab", "sub", "longer", std::string(kMaxNameChars, 'n')};
constexpr uint32_t kIds = 12;

constexpr uint32_t kKinds = kSimpleKinds + 2;  // messages and lists of them

SharedValue randomValue(Random& random, uint32_t kind) {
    const auto number = static_cast<uint32_t>(random.engine());
    if (kind < kSimpleKinds) return simpleValue(kind, number);
    const Bytes image = imageOf({recordOf("x", 1, *randomValue(random, number % kSimpleKinds))});
    if (kind == kSimpleKinds) return messageValue(image);
    return messageArrayValue({image, imageOf(std::vector<Bytes>{}), image});
}

Key randomKey(Random& random) {
    Key key{kNames[random.below(std::size(kNames))], 0};
    if (key.name && random.oneIn(2)) key.id = static_cast<uint16_t>(1 + random.below(kIds));
    return key;
}

// Mirrors nothing of the index: a search over the list.
pelmoStatus modelFind(const std::vector<ModelField>& fields, const Key& key, size_t& position) {
    for (size_t i = 0; i < fields.size() && key.id != 0; ++i) {
        if (fields[i].id != key.id) continue;
        position = i;
        return kStatusSuccess;
    }
    for (size_t i = 0; i < fields.size(); ++i) {
        if (fields[i].name != key.name) continue;
        position = i;
        const bool conflict = key.id != 0 && fields[i].id != 0;
        return conflict ? kStatusIdConflict : kStatusSuccess;
    }
    return kStatusNotFound;
}

// The operation may be made to run out of memory. Then nothing may have changed, and the step ends.
template <typename Operation>
pelmoStatus attempt(Random& random, Operation operation, uint32_t mostAfter = 4) {
    if (!random.oneIn(6)) return operation();
    FailAlloc fail{.after = random.below(mostAfter), .forGood = random.oneIn(2)};
    const pelmoStatus status = operation();
    allocationsHeal();
    // Growing a value may go on with what it has.
    EXPECT_TRUE(status != kStatusNoMemory || allocationsFailed() > 0);
    return status;
}

pelmoMsgField keyed(const Key& key, const FieldValue& value) {
    pelmoMsgField field = value.field();
    field.name = key.text();
    field.id = key.id;
    return field;
}

const uint8_t* bytesAt(const void* pointer) {
    return static_cast<const uint8_t*>(pointer);
}

const char* charsAt(const void* pointer) {
    return static_cast<const char*>(pointer);
}

// By the call of its type, where that has a road of its own.
#define WRITE_TYPED(Verb)                                                              \
    [](pelmoMsg* msg, const pelmoMsgField& f) {                                        \
        const void* const at = f.data.pointer;                                         \
        switch (f.type) {                                                              \
            case FIELD_I64:                                                            \
                return pelmoMsg_##Verb##I64(msg, f.name, f.data.i64, f.id);            \
            case FIELD_STRING:                                                         \
                return pelmoMsg_##Verb##String(msg, f.name, charsAt(at), f.id);        \
            case FIELD_OPAQUE:                                                         \
                return pelmoMsg_##Verb##Opaque(msg, f.name, at, f.size, f.id);         \
            case FIELD_DATETIME:                                                       \
                return pelmoMsg_##Verb##DateTime(msg, f.name, &f.data.dateTime, f.id); \
            case FIELD_SUBJECT: {                                                      \
                char text[kSubjectMaxBytes];                                           \
                if (f.size % 2 == 0) {                                                 \
                    return pelmoMsg_##Verb##Subject(msg, f.name, bytesAt(at), f.id);   \
                }                                                                      \
                subjectToText(text, sizeof text, bytesAt(at));                         \
                return pelmoMsg_##Verb##SubjectText(msg, f.name, text, f.id);          \
            }                                                                          \
            default:                                                                   \
                return pelmoMsg_##Verb##Field(msg, &f);                                \
        }                                                                              \
    }
constexpr auto addTyped = WRITE_TYPED(Add);
constexpr auto updateTyped = WRITE_TYPED(Update);

void stepAdd(Random& random, Pair& pair) {
    if (pair.fields.size() >= kMostFields) return;
    const Key key = randomKey(random);
    const SharedValue value = randomValue(random, random.below(kKinds));
    const pelmoMsgField field = keyed(key, *value);
    const bool typed = random.oneIn(2);
    const pelmoStatus status = attempt(random, [&] {
        return typed ? addTyped(pair.msg.get(), field) : pelmoMsg_AddField(pair.msg.get(), &field);
    });
    if (status == kStatusNoMemory) return;
    const bool inUse = key.id != 0 && std::ranges::count(pair.fields, key.id, &ModelField::id) != 0;
    ASSERT_EQ(status, inUse ? kStatusIdInUse : kStatusSuccess);
    if (!inUse) pair.fields.push_back({key, value});
}

void stepUpdate(Random& random, Pair& pair) {
    const Key key = randomKey(random);
    size_t position = 0;
    const pelmoStatus found = modelFind(pair.fields, key, position);
    if (found == kStatusNotFound && pair.fields.size() >= kMostFields) return;
    SharedValue value = randomValue(random, random.below(kKinds));
    // Mostly another value of the same type; by chance it is of another one.
    for (int i = 0; i < 40 && found == kStatusSuccess; ++i) {
        if (value->type == pair.fields[position].value->type) break;
        value = randomValue(random, random.below(kKinds));
    }
    const pelmoMsgField field = keyed(key, *value);
    pelmoStatus expected = found;
    if (found == kStatusNotFound) expected = kStatusSuccess;
    if (found == kStatusSuccess && value->type != pair.fields[position].value->type) {
        expected = kStatusInvalidType;
    }
    const bool typed = random.oneIn(2);
    const pelmoStatus status = attempt(random, [&] {
        return typed ? updateTyped(pair.msg.get(), field)
                     : pelmoMsg_UpdateField(pair.msg.get(), &field);
    });
    if (status == kStatusNoMemory) return;
    ASSERT_EQ(status, expected);
    if (status != kStatusSuccess) return;
    if (found == kStatusNotFound) return pair.fields.push_back({key, value});
    pair.fields[position].value = value;
}

// The n-th of that name, from 1; 0 for the one that name and id select.
pelmoStatus modelInstance(const Pair& pair, const Key& key, uint32_t instance, size_t& position) {
    if (instance == 0) return modelFind(pair.fields, key, position);
    for (position = 0; position < pair.fields.size(); ++position) {
        if (pair.fields[position].name == key.name && --instance == 0) return kStatusSuccess;
    }
    return kStatusNotFound;
}

void stepRemove(Random& random, Pair& pair) {
    const Key key = randomKey(random);
    const uint32_t instance = random.below(4);
    size_t position = 0;
    const pelmoStatus expected = modelInstance(pair, key, instance, position);
    const pelmoStatus status = attempt(random, [&] {
        return instance == 0 ? pelmoMsg_RemoveFieldEx(pair.msg.get(), key.text(), key.id)
                             : pelmoMsg_RemoveFieldInstance(pair.msg.get(), key.text(), instance);
    });
    if (status == kStatusNoMemory) return;
    ASSERT_EQ(status, expected);
    if (status != kStatusSuccess) return;
    pair.fields.erase(pair.fields.begin() + static_cast<ptrdiff_t>(position));
}

void stepRead(Random& random, Pair& pair) {
    pelmoMsg* msg = pair.msg.get();
    const Key key = randomKey(random);
    const uint32_t instance = random.below(4);
    const bool byIndex = random.oneIn(3);
    size_t position = random.below(static_cast<uint32_t>(kMostFields));
    const auto index = static_cast<uint32_t>(position);
    pelmoStatus expected = index < pair.fields.size() ? kStatusSuccess : kStatusNotFound;
    if (!byIndex) expected = modelInstance(pair, key, instance, position);
    pelmoMsgField field;
    const pelmoStatus status = attempt(random, [&] {
        if (byIndex) return pelmoMsg_GetFieldByIndex(msg, &field, index);
        return instance == 0 ? pelmoMsg_GetFieldEx(msg, key.text(), &field, key.id)
                             : pelmoMsg_GetFieldInstance(msg, key.text(), &field, instance);
    });
    if (status == kStatusNoMemory) return;
    ASSERT_EQ(status, expected);
    if (status == kStatusSuccess) pair.held.push_back({field, pair.fields[position]});
}

// The message as text, or one field. Without memory there is none, and nothing is kept.
void stepShow(Random& random, Pair& pair) {
    pelmoMsg* msg = pair.msg.get();
    const Key key = randomKey(random);
    const bool isWhole = random.oneIn(2);
    const char* text = nullptr;
    const auto show = [&] {
        return isWhole ? pelmoMsg_ConvertToString(msg, &text)
                       : pelmoMsg_GetString(msg, key.text(), &text, key.id);
    };
    const ReferenceMark before = msgMark(msg);
    const pelmoStatus expected = show();
    const std::string shown = text != nullptr ? text : "";
    msgCutBack(msg, before);
    text = nullptr;
    const pelmoStatus status = attempt(random, show, 20);
    if (status == kStatusNoMemory) {
        const ReferenceMark now = msgMark(msg);
        ASSERT_EQ(std::memcmp(&now, &before, sizeof now), 0);
        ASSERT_EQ(text, nullptr);
        return;
    }
    ASSERT_EQ(status, expected);
    ASSERT_EQ(text != nullptr ? text : "", shown);
    msgCutBack(msg, before);
}

void stepMark(Random& random, Pair& pair) {
    const pelmoStatus status =
        attempt(random, [&] { return pelmoMsg_MarkReferences(pair.msg.get()); });
    pair.markedEver |= pair.msg->markStack != nullptr;
    if (status == kStatusSuccess) pair.marks.push_back(pair.held.size());
}

void stepClear(Pair& pair) {
    const pelmoStatus status = pelmoMsg_ClearReferences(pair.msg.get());
    if (pair.marks.empty()) {
        ASSERT_EQ(status, pair.markedEver ? kStatusNotPermitted : kStatusInvalidMessage);
        return;
    }
    ASSERT_EQ(status, kStatusSuccess);
    pair.held.resize(std::min(pair.held.size(), pair.marks.back()));
    pair.marks.pop_back();
}

void stepReset(Random& random, Pair& pair) {
    const pelmoStatus status = attempt(random, [&] { return pelmoMsg_Reset(pair.msg.get()); });
    if (status == kStatusNoMemory) return;
    ASSERT_EQ(status, kStatusSuccess);
    pair.fields.clear();
    pair.held.clear();
    pair.marks.assign(pair.marks.size(), 0);
    pair.envelope = {};
}

std::string randomSubject(Random& random) {
    return std::string(1 + random.below(90), 's') + "." + std::to_string(random.below(1000));
}

// Closing and opening again finds all values again. Without memory for that it is still closed.
pelmoStatus reopen(pelmoMsg* msg) {
    pelmoStatus status = msgCloseEnvelope(msg);  // one that is lent takes memory
    if (status != kStatusSuccess) return status;
    status = msgOpenEnvelope(msg);
    allocationsHeal();
    EXPECT_TRUE(status == kStatusSuccess || msg->dataOffset == 0);
    return status == kStatusNoMemory ? msgOpenEnvelope(msg) : status;
}

void stepEnvelope(Random& random, Pair& pair) {
    pelmoMsg* msg = pair.msg.get();
    ModelEnvelope next = pair.envelope;
    std::optional<std::string> text;
    if (random.oneIn(2)) text = randomSubject(random);
    const uint32_t dice = random.below(4);
    if (dice == 3 && !next.there) return;
    auto& changed = dice == 0 ? next.subject : next.reply;
    // Taking away what isn't there looks at nothing.
    const bool looks = dice >= 2 || text || changed;
    if (dice < 2) changed = text;
    if (dice == 2) next.port = static_cast<uint16_t>(random.below(65536));
    const pelmoStatus status = attempt(random, [&] {
        if (dice == 0) return pelmoMsg_SetSendSubject(msg, charsOf(text));
        if (dice == 1) return pelmoMsg_SetReplySubject(msg, charsOf(text));
        return dice == 2 ? pelmoMsg_SetSourcePort(msg, *next.port) : reopen(msg);
    });
    if (status == kStatusNoMemory) return;
    ASSERT_EQ(status, kStatusSuccess);
    next.there |= looks;
    next.portKnown |= looks;
    pair.envelope = next;
}

// The other message becomes a second object of this one's buffer, or a copy of its bytes.
void stepCopy(Random& random, Pair& from, Pair& to) {
    pelmoMsg* copy = nullptr;
    const bool shared = !random.oneIn(3);
    const pelmoStatus status = attempt(random, [&] {
        return shared ? msgShareCopy(&copy, from.msg.get())
                      : pelmoMsg_CreateCopy(from.msg.get(), &copy);
    });
    if (status == kStatusNoMemory) return;
    ASSERT_EQ(status, kStatusSuccess);
    to = Pair{Message(copy), from.fields, {}, {}, false, {}};
    if (!shared) return;
    to.envelope = from.envelope;
    to.envelope.portKnown = false;
}

// The other message gets the same fields within the image of one more, as what comes through a
// circuit does; its envelope is that one's.
void stepLend(Random& random, const Pair& from, Pair& to) {
    ModelEnvelope envelope;
    envelope.there = true;
    envelope.subject = randomSubject(random);
    if (random.oneIn(2)) envelope.reply = randomSubject(random);
    std::vector<Bytes> outer, inner;
    EnvelopePlaces places{};
    uint32_t offset = kMessageHeadBytes;
    const auto put = [&](const char* name, const FieldValue& value) {
        outer.push_back(recordOf(name, 0, value));
        const uint32_t begin = std::exchange(offset, offset + outer.back().size());
        return begin + static_cast<uint32_t>(std::strlen(name)) +
               4;  // name, its size, type, prefix
    };
    if (random.oneIn(2)) put("vct", *stringValue("D"));
    if (envelope.reply) places.reply = put("return", *stringValue(*envelope.reply));
    places.subject = put("sub", *subjectValue(envelope.subject->c_str()));
    for (const ModelField& field : from.fields) {
        inner.push_back(recordOf(field.text(), field.id, *field.value));
    }
    places.data = put("data", *messageValue(imageOf(inner)));
    if (random.oneIn(2)) put("after", *noneValue());
    const Message carrier = messageFrom(imageOf(outer));
    pelmoMsg* made = nullptr;
    const pelmoStatus status =
        attempt(random, [&] { return msgCreateWithin(&made, carrier.get(), places); });
    if (status == kStatusNoMemory) return;
    ASSERT_EQ(status, kStatusSuccess);
    to = Pair{Message(made), from.fields, {}, {}, false, envelope};
}

// The image, and where each record is in it.
void expectSame(Pair& pair) {
    std::vector<Bytes> records;
    ASSERT_EQ(pair.msg->dataOffset != 0, pair.envelope.there);
    uint32_t offset = pair.msg->dataOffset + kMessageHeadBytes;
    ASSERT_EQ(msgParse(pair.msg.get()), kStatusSuccess);
    ASSERT_EQ(pair.msg->fieldCount, pair.fields.size());
    for (size_t i = 0; i < pair.fields.size(); ++i) {
        const ModelField& field = pair.fields[i];
        const FieldIndexEntry& entry = pair.msg->index[i];
        const uint32_t nameSize = field.name ? static_cast<uint32_t>(field.name->size()) + 1 : 0;
        ASSERT_EQ(entry.nameOffset, offset + 1);
        ASSERT_EQ(entry.nameSize, nameSize);
        ASSERT_EQ(entry.nameAreaSize, nameSize + (field.id != 0 ? 2 : 0));
        ASSERT_EQ(entry.id, field.id);
        records.push_back(recordOf(field.text(), field.id, *field.value));
        offset += static_cast<uint32_t>(records.back().size());
    }
    ASSERT_EQ(imageOf(pair.msg.get()), imageOf(records));
}

void expectHeld(const Pair& pair) {
    for (const Held& held : pair.held) {
        ASSERT_STREQ(held.field.name, held.model.text());
        ASSERT_EQ(held.field.id, held.model.id);
        ASSERT_TRUE(fieldHolds(held.field, *held.model.value));
    }
}

// Without leaving anything with the message: its marks count what it holds.
void expectEnvelope(const Pair& pair) {
    const ReferenceMark before = msgMark(pair.msg.get());
    const auto& [there, portKnown, subject, reply, port] = pair.envelope;
    const char* text = nullptr;
    const auto found = [](bool is) { return is ? kStatusSuccess : kStatusNotFound; };
    ASSERT_EQ(pelmoMsg_GetSendSubject(pair.msg.get(), &text), found(subject.has_value()));
    ASSERT_STREQ(text, charsOf(subject));
    ASSERT_EQ(pelmoMsg_GetReplySubject(pair.msg.get(), &text), found(reply.has_value()));
    ASSERT_STREQ(text, charsOf(reply));
    uint16_t number = 0;
    const pelmoStatus status = pelmoMsg_GetSource(pair.msg.get(), &number);
    ASSERT_EQ(status, port && portKnown ? kStatusSuccess : kStatusNotFound);
    ASSERT_EQ(number, status == kStatusSuccess ? *port : 0);
    msgCutBack(pair.msg.get(), before);
}

void step(Random& random, Pair& pair, Pair& other) {
    const uint32_t dice = random.below(120);
    if (dice >= 112) return stepShow(random, pair);
    if (dice >= 108) return stepLend(random, pair, other);
    if (dice >= 100) return stepEnvelope(random, pair);
    if (dice < 30) return stepAdd(random, pair);
    if (dice < 50) return stepUpdate(random, pair);
    if (dice < 63) return stepRemove(random, pair);
    if (dice < 83) return stepRead(random, pair);
    if (dice < 88) return stepMark(random, pair);
    if (dice < 93) return stepClear(pair);
    if (dice < 94) return stepReset(random, pair);
    if (dice < 97) return stepCopy(random, pair, other);
    const auto more = static_cast<int32_t>(random.below(300));
    const auto expand = [&] { return pelmoMsg_Expand(pair.msg.get(), more - 100); };
    ASSERT_NE(attempt(random, expand), kStatusInvalidMessage);
}

class MessageModel : public testing::TestWithParam<uint32_t> {};

TEST_P(MessageModel, StaysTheSame) {
    Random random{std::mt19937(GetParam())};
    Pair pairs[2];
    pairs[0].msg = newMessage();
    pairs[1].msg = newMessage();
    for (uint32_t i = 0; i < kSteps; ++i) {
        SCOPED_TRACE(testing::Message() << "step " << i);
        for (const Pair& pair : pairs) {
            // The generations of the ids' map end soon, again and again.
            I32Map* ids = pair.msg->idMap;
            const bool mayJump = ids != nullptr && ids->count == 0 && ids->generation < 100;
            if (mayJump) ids->generation = UINT32_MAX - 1;
        }
        const uint32_t which = random.below(2);
        step(random, pairs[which], pairs[1 - which]);
        for (Pair& pair : pairs) {
            expectSame(pair);
            expectHeld(pair);
            expectEnvelope(pair);
        }
        if (HasFatalFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, MessageModel, testing::Range(1u, kSeeds + 1));

}  // namespace
