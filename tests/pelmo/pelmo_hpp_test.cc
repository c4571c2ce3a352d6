// pelmo.hpp: what its objects free and when, and that values arrive as what they were. The examples
// hold the rest, against a daemon.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lib/pelmo.hpp"
#include "tests/support/test.h"

namespace {

using namespace std::chrono_literals;
using pelmo::Message;
using pelmo::MessageView;

// One row of the table: a value that is added, read as its own type, and updated.
template <typename Value, typename Read = Value>
void expectRoundTrip(const char* name, const Value& value, const Read& expected) {
    Message message;
    for (const bool isUpdate : {false, true}) {
        const auto status =
            isUpdate ? message.update("a", value).status() : message.add("a", value).status();
        ASSERT_TRUE(status) << name << ": " << status.error().text();
        const auto read = message.get<Read>("a");
        ASSERT_TRUE(read) << name << ": " << read.error().text();
        if constexpr (requires { read->data(); }) {
            EXPECT_TRUE(std::ranges::equal(*read, expected)) << name;
        } else {
            EXPECT_EQ(*read, expected) << name;
        }
    }
    EXPECT_EQ(message.fieldCount(), 1u) << name;
}

template <typename Value>
void expectNumber(const char* name) {
    for (const Value value :
         {std::numeric_limits<Value>::lowest(), Value{0}, std::numeric_limits<Value>::max()}) {
        expectRoundTrip(name, value, value);
    }
    const std::vector<Value> values = {Value{1}, std::numeric_limits<Value>::max()};
    expectRoundTrip(name, values, std::span<const Value>(values));
    using Other = std::conditional_t<std::is_same_v<Value, int32_t>, double, int32_t>;
    EXPECT_EQ(Message().add("a", values).template get<std::span<const Other>>("a").error().status(),
              kStatusConversionFailed + 0)
        << name;
}

TEST(PelmoHpp, GivesEachValueBackAsItWas) {
    std::apply([](auto... each) { (expectNumber<decltype(each)>(typeid(each).name()), ...); },
               pelmo::detail::AllNumbers());
    expectRoundTrip("long long", 1LL << 40, 1LL << 40);
    expectRoundTrip("bool", true, true);
    expectRoundTrip("literal", "text", std::string_view("text"));
    expectRoundTrip("text", std::string("a\0b", 3), std::string("a\0b", 3));
    expectRoundTrip("no text", std::string_view(), std::string_view());
    const std::array bytes = {std::byte{0}, std::byte{255}};
    expectRoundTrip("bytes", pelmo::Bytes(bytes), pelmo::Bytes(bytes));
    expectRoundTrip("no bytes", pelmo::Bytes(), pelmo::Bytes());
    for (const auto time : {pelmo::Time(1'234'567'890'123'456'000ns), pelmo::Time(-1us)})
        expectRoundTrip("time", time, time);
    const Message inner = Message("A.B").add("x", 7);
    Message outer;
    EXPECT_EQ(outer.add("m", inner).get<MessageView>("m")->get<int>("x").value(), 7);
    EXPECT_EQ(Message::fromBytes(inner.bytes())->get<int>("x").value(), 7);
    EXPECT_EQ(inner.subject(), "A.B");
    EXPECT_EQ(inner.text(), "{x=7}");
    EXPECT_EQ(inner.field(0)->type, FIELD_I32);
    const std::vector<std::string> texts = {"a", "", "c"};
    expectRoundTrip("texts", texts, texts);
    expectRoundTrip("views", texts, std::vector<std::string_view>{"a", "", "c"});
    expectRoundTrip("literals", std::array{"a", "b"}, std::vector<std::string>{"a", "b"});
    std::vector<Message> parts;
    parts.push_back(Message().add("x", 1));
    parts.push_back(Message().add("x", 2));
    const auto read = outer.reset().add("parts", parts).get<std::vector<MessageView>>("parts");
    EXPECT_EQ(read->at(1).get<int>("x").value(), 2);
}

// Each number of an array is read as another type where nothing is lost, or none.
template <typename To, typename From>
void expectArray(std::vector<From> values, bool fits) {
    const auto got = Message().add("a", values).template get<std::vector<To>>("a");
    EXPECT_EQ(got.has_value(), fits) << values.back();
    EXPECT_EQ(got.error().status(), fits ? kStatusSuccess + 0 : kStatusConversionFailed + 0);
    for (size_t i = 0; fits && i < values.size(); ++i)
        EXPECT_EQ(got->at(i), static_cast<To>(values[i]));
}

TEST(PelmoHpp, ReadsArraysAsOtherNumbersWhereAllFit) {
    constexpr double kTo63 = 9'223'372'036'854'775'808.0;
    expectArray<uint8_t, int64_t>({0, 255}, true);
    expectArray<uint8_t, int64_t>({0, 256}, false);
    expectArray<uint64_t, int8_t>({0, -1}, false);
    expectArray<int64_t, uint64_t>({0, UINT64_MAX}, false);
    expectArray<int64_t, double>({-kTo63, 1e15}, true);
    expectArray<int64_t, double>({0, kTo63}, false);
    expectArray<int16_t, double>({1, 0.5}, false);
    expectArray<int16_t, double>({1, NAN}, false);
    expectArray<double, uint64_t>({0, uint64_t{1} << 63}, true);
    expectArray<double, uint64_t>({0, UINT64_MAX}, false);
    expectArray<float, int32_t>({0, (1 << 24) + 1}, false);
    expectArray<float, double>({0.5, INFINITY}, true);
    expectArray<float, double>({0.5, 0.1}, false);
    expectArray<float, double>({0.5, 1e300}, false);
    EXPECT_FALSE(Message().add("a", 1).get<std::vector<int>>("a")) << "no array";
    EXPECT_FALSE(Message().add("a", std::array{1}).get<std::vector<std::string>>("a"));
    EXPECT_EQ(Message().add("a", std::vector<std::string>()).status().error().status(),
              kStatusInvalidFieldCount + 0);
}

// A failure on the way stays until it is asked for, and value() throws it.
TEST(PelmoHpp, AnswersWhatFailed) {
    Message message;
    message.add(std::string(200, 'n'), 1).add("b", 2);
    EXPECT_EQ(message.status().error().status(), kStatusInvalidName + 0);
    EXPECT_EQ(message.fieldCount(), 0u);
    EXPECT_TRUE(message.reset().add("a", 300).status());
    EXPECT_EQ(message.get<uint8_t>("a").error().status(), kStatusConversionFailed + 0);
    EXPECT_EQ(message.get<int>("z").value_or(5), 5);
    const Message moved = std::move(message);
    EXPECT_EQ(message.status().error().status(), kStatusInvalidMessage + 0);
    EXPECT_STREQ(moved.get<int>("z").error().text(), "Item not found");
    EXPECT_THROW(pelmo::Queue::make().value(), pelmo::Failure) << "the library is closed";
}

struct Work : NoCopy {
    const pelmo::Library library;
    const pelmo::Transport bus = pelmo::Transport::local();
    pelmo::Queue queue = pelmo::Queue::make().value();
    std::shared_ptr<int> token = std::make_shared<int>(0);

    void send(const char* subject) const { bus.send(Message(subject)).value(); }
    void runAll() const {
        while (queue.dispatch(0s).value()) {
        }
    }
};

// What a callback has captured is freed with its object, by whatever end: outside, within its own
// callback, by another object's value, after the library's end.
TEST(PelmoHpp, FreesACallbackAfterItsLastCall) {
    auto work = std::make_unique<Work>();
    std::shared_ptr<int> token = work->token;
    std::optional<pelmo::Listener> own;
    const auto make = [&](const char* subject) {
        const auto run = [token, &own](MessageView) {
            ++*token;
            own.reset();
            EXPECT_GT(token.use_count(), 2) << "freed while it runs";
        };
        return work->queue.listen(work->bus, subject, run).value();
    };
    own = make("A");
    EXPECT_EQ(token.use_count(), 3);
    work->send("A");
    work->runAll();
    EXPECT_EQ(token.use_count(), 2) << "ended within its callback";
    EXPECT_EQ(*token, 1);
    {
        pelmo::Listener first = make("A");
        first = make("B");
        EXPECT_EQ(token.use_count(), 3) << "replaced";
        EXPECT_EQ(first.subject(), "B");
        work->send("A");
        work->runAll();
        EXPECT_EQ(*token, 1);
    }
    EXPECT_EQ(token.use_count(), 2) << "ended outside";
    EXPECT_FALSE(work->queue.listen(work->bus, "A..B", [token](MessageView) {}));
    EXPECT_EQ(token.use_count(), 2) << "never made";
    work->queue.hook([token] { ++*token; }).value();
    const pelmo::Listener last = make("C");
    work->send("C");
    EXPECT_EQ(*token, 2) << "hook";
    work.reset();
    EXPECT_EQ(token.use_count(), 2) << "the listener outlives its library";
}

TEST(PelmoHpp, EndsAListenerWhileManyThreadsDispatch) {
    const Work work;
    std::vector<pelmo::Dispatcher> threads;
    for (int i = 0; i < 3; ++i)
        threads.push_back(pelmo::Dispatcher::start(work.queue).value());
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> runs{0}, inside{0};
        const auto run = [&](MessageView) {
            ++inside;
            ++runs;
            for (int i = 0; i < 20; ++i)
                std::this_thread::yield();
            --inside;
        };
        pelmo::Listener listener = work.queue.listen(work.bus, "A", run).value();
        for (int i = 0; i < 20; ++i)
            work.send("A");
        while (runs == 0)
            std::this_thread::yield();
        listener.end();
        EXPECT_EQ(inside, 0);
    }
}

TEST(PelmoHpp, RunsUntilAStopFromAnotherThreadOrACallback) {
    const Work work;
    {
        std::stop_source stop;
        const auto tick = work.queue.every(1ms, [&] { stop.request_stop(); });
        work.queue.every(1h, [] {}).value().reset(1h).value();
        EXPECT_TRUE(work.queue.run(stop.get_token()));
    }
    // Of a stop that all share, and of their own: each then ends its thread and leaves the others.
    for (int round = 0; round < 200; ++round) {
        std::stop_source shared;
        std::atomic<int> runs{0};
        std::vector<std::jthread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&](const std::stop_token& own) {
                ++runs;
                EXPECT_TRUE(work.queue.run(round % 10 == 0 ? own : shared.get_token()));
            });
        }
        EXPECT_TRUE(within(60, [&] { return runs == 3; }));
        if (round % 10 != 0) shared.request_stop();
        for (std::jthread& thread : threads) {
            thread.request_stop();
            thread.join();
        }
    }
    std::optional<pelmo::Queue> ended = pelmo::Queue::make().value();
    const auto ends = work.queue.every(0s, [&] { ended.reset(); });
    const uint32_t id = pelmo::number(ended->id());
    while (ended)
        (void)work.queue.dispatch(10s).value();  // a wake of the last run may be left
    EXPECT_EQ(pelmoQueue_TimedDispatch(id, 0), kStatusInvalidQueue);
}

TEST(PelmoHpp, DispatchesAGroupByPriority) {
    const Work work;
    const auto urgent = pelmo::Queue::make({.priority = 9}).value();
    pelmo::QueueGroup group = pelmo::QueueGroup::make().value();
    group.add(work.queue).value();
    group.add(urgent).value();
    std::vector<int> order;
    std::stop_source stop;
    const auto low = work.queue.listen(work.bus, "A", [&] { order.push_back(1); });
    const auto high = urgent.listen(work.bus, "A", [&] { order.push_back(9); });
    const auto last = work.queue.listen(work.bus, "END", [&] { stop.request_stop(); });
    work.send("A");
    work.send("END");
    group.run(stop.get_token()).value();
    EXPECT_EQ(order, (std::vector{9, 1}));
    group.remove(urgent).value();
    EXPECT_EQ(group.remove(urgent).error().status(), kStatusInvalidQueue + 0);
    const auto thread = pelmo::Dispatcher::start(group).value();
    work.send("A");
    EXPECT_TRUE(within(60, [&] { return work.queue.count() == 0; }));
}

TEST(PelmoHpp, AsksAndAnswersAndHandsOverMessages) {
    const Work work;
    std::vector<std::string> got;
    const auto server = work.queue.listen(work.bus, "ADD", [&](MessageView asked) {
        const int sum = asked.get<int>("a").value_or(0) + asked.get<int>("b").value_or(0);
        work.bus.reply(asked, Message().add("sum", sum)).value();
    });
    const auto once = [&](const char* subject, pelmo::Seconds limit) {
        const Message asked = Message(subject).add("a", 2).add("b", 3);
        const auto take = [&, token = work.token](pelmo::Result<MessageView> answer) {
            got.push_back(answer ? std::string(answer->text()) : answer.error().text());
        };
        return work.bus.request(work.queue, asked, limit, take).value();
    };
    std::vector<pelmo::Request> requests;
    requests.push_back(once("ADD", 10s));
    requests.push_back(once("NO.ANSWER", 0s));
    (void)once("NO.ANSWER", 0s);  // ends at once, and is cancelled
    while (got.size() < 2)
        (void)work.queue.dispatch(10s).value();
    std::ranges::sort(got);
    EXPECT_EQ(got, (std::vector<std::string>{"Operation timed out", "{sum=5}"}));
    requests.clear();
    EXPECT_EQ(work.token.use_count(), 1);
    std::jthread dispatching([&](std::stop_token stop) { (void)work.queue.run(stop); });
    EXPECT_EQ(work.bus.request(Message("ADD").add("a", 1), 10s)->get<int>("sum").value(), 1);
    EXPECT_EQ(work.bus.request(Message(".."), 10s).error().status(), kStatusInvalidSubject + 0);
    EXPECT_GT(work.bus.inbox()->size(), 7u);
}

TEST(PelmoHpp, GivesABatchOfOneListenerAndLetsMessagesBeKept) {
    const Work work;
    std::vector<Message> kept;
    std::vector<size_t> sizes;
    const auto take = [&](std::span<const MessageView> batch) {
        sizes.push_back(batch.size());
        kept.push_back(Message::take(batch.back()).value());
    };
    const auto first = work.queue.listenMany(work.bus, "A", take);
    const auto second = work.queue.listenMany(work.bus, "B", take);
    const Message sent[] = {Message("A").add("n", 1), Message("A").add("n", 2),
                            Message("B").add("n", 3)};
    work.bus.send(sent).value();
    work.runAll();
    EXPECT_EQ(sizes, (std::vector<size_t>{2, 1}));
    EXPECT_EQ(kept[0].get<int>("n").value() + kept[1].get<int>("n").value(), 5);
}

TEST(PelmoHppDeathTest, EndsTheProcessByAnExceptionThatLeavesACallback) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const Work work;
            const auto listener = work.queue.listen(
                work.bus, "A", [] { throw std::runtime_error("out of a callback"); });
            work.send("A");
            work.runAll();
        },
        "out of a callback");
}

}  // namespace
