#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <set>
#include <tuple>

#include "bridge/body.h"
#include "bridge/group.h"
#include "bridge/nats_link.h"
#include "bridge/outbox.h"
#include "bridge/subjects.h"
#include "programs/steady_time.h"

namespace {

TEST(BridgeSubjects, ComeBackAsTheyWereOrDontCross) {
    const SubjectMap map = {"BUS.", "NATS."};
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string subject = "BUS.";
        for (size_t left = random() % 40; left > 0; --left) {
            subject += static_cast<char>(random() % 8 == 0 ? '.' : random() % 256);
        }
        std::string nats, back;
        if (!subjectToNats(map, subject, nats)) continue;
        EXPECT_EQ(nats.find_first_of(" \t\r\n*>"), std::string::npos) << nats;
        ASSERT_TRUE(subjectToBus(map, nats, back)) << nats;
        EXPECT_EQ(back, subject);
    }
}

TEST(BridgeSubjects, PatternsOverlapWhereASubjectFitsBoth) {
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"A", "A", true},     {"A.B", "A", false},       {"A.*", "A.B", true},
        {"A.*", "*.B", true}, {"A.>", "A", false},       {"A.>", "A.B.C", true},
        {">", "A.B", true},   {"A.*.C", "A.B.D", false}, {"A.>", "B.>", false},
        {"*.>", "A.B", true}};
    for (const auto& [first, second, overlap] : rows) {
        EXPECT_EQ(subjectPatternsOverlap(first, second), overlap) << first << " " << second;
        EXPECT_EQ(subjectPatternsOverlap(second, first), overlap) << first << " " << second;
    }
}

// A stream that takes, refuses and forgets to answer, and a connection that breaks, at random.
struct Life {
    std::mt19937 random;
    Outbox outbox = {};
    std::deque<uint64_t> onItsWay = {};
    std::set<uint64_t> stored = {};
    std::vector<uint64_t> firstTimes = {};  // unmarked, in the order they were published
    int64_t now = 1;

    bool chance(int of) { return random() % static_cast<unsigned>(of) == 0; }

    void publish() {
        while (const OutboxItem* item = outboxNext(outbox, now)) {
            if (!item->mayBeRepeat) firstTimes.push_back(item->number);
            onItsWay.push_back(item->number);
        }
    }

    void answer() {
        while (!onItsWay.empty() && !chance(4)) {
            const uint64_t number = onItsWay.front();
            onItsWay.pop_front();
            if (chance(20)) continue;  // lost on its way
            if (chance(30)) {
                outboxRepeatFrom(outbox, number);
                continue;
            }
            stored.insert(number);
            if (!chance(20)) outboxAcknowledge(outbox, number);  // else the answer is lost
        }
        if (chance(50)) {
            onItsWay.clear();
            outboxBreak(outbox);
        }
    }
};

TEST(Outbox, StoresOrCountsEachMessageInOrderWhateverBreaks) {
    for (uint32_t seed = 0; seed < 200; ++seed) {
        Life life{std::mt19937(seed)};
        life.outbox.limits = {.mostBytes = seed % 2 == 0 ? size_t{1} << 20 : size_t{20'000},
                              .window = 16,
                              .answerTime = 100};
        for (int step = 0; step < 3000; ++step) {
            life.now += 5;
            if (step < 2000) {
                OutboxItem item;
                item.body = std::string(life.random() % 300, 'x');
                outboxAdd(life.outbox, item, life.now);
            }
            if (!life.chance(3)) life.publish();
            life.answer();
            (void)outboxTick(life.outbox, life.now);
            ASSERT_LE(life.outbox.bytes, life.outbox.limits.mostBytes);
            ASSERT_LE(life.outbox.unacknowledged, life.outbox.limits.window);
        }
        const Outbox& outbox = life.outbox;
        EXPECT_TRUE(outbox.items.empty()) << seed;
        EXPECT_EQ(outbox.acknowledged + outbox.dropped, outbox.added) << seed;
        EXPECT_GE(life.stored.size(), outbox.acknowledged) << seed;
        EXPECT_TRUE(std::ranges::is_sorted(life.firstTimes)) << seed;
        EXPECT_EQ(outbox.bytes, 0u);
    }
}

// Beats between members, each second, but for those that can hear none.
TEST(Group, HasOneLeaderOfThoseThatHearEachOtherWithinSeconds) {
    for (uint32_t seed = 0; seed < 100; ++seed) {
        std::mt19937 random(seed);
        std::vector<Group> members(4);
        std::vector<bool> isThere(4, true);
        for (size_t at = 0; at < members.size(); ++at) {
            members[at].name = std::string(1, static_cast<char>('a' + at));
            groupBegin(members[at], 1);
            groupConnected(members[at], true, 1);
        }
        int64_t now = 1;
        for (int change = 0; change < 20; ++change) {
            const size_t other = random() % members.size();
            isThere[other] = !isThere[other];
            groupConnected(members[other], isThere[other], now);
            for (int step = 0; step < 40; ++step) {
                now += kGroupBeatTime / 4;
                for (Group& from : members) {
                    bool isBeat = false;
                    (void)groupTick(from, now, isBeat);
                    for (size_t to = 0; isBeat && to < members.size(); ++to) {
                        if (isThere[to])
                            (void)groupHear(members[to], {from.name, from.leads, 0, 0}, now);
                    }
                }
            }
            const auto leaders =
                std::ranges::count_if(members, [](const Group& member) { return member.leads; });
            EXPECT_EQ(leaders, std::ranges::count(isThere, true) > 0 ? 1 : 0)
                << seed << " " << change;
        }
    }
}

TEST(StreamAnswer, IsReadWhateverItSays) {
    const std::pair<const char*, StreamAnswer> rows[] = {
        {R"({"stream":"S","seq":1})", StreamAnswer::kTaken},
        {R"({"stream":"S","seq":1,"duplicate":true})", StreamAnswer::kTaken},
        {R"({"error":{"code":503,"err_code":10077,"description":"full"}})", StreamAnswer::kPassing},
        {R"({"error":{"code":400,"err_code":10054}})", StreamAnswer::kRefused},
        {R"({"error":1})", StreamAnswer::kPassing},
        {"[1]", StreamAnswer::kPassing},
        {"{", StreamAnswer::kPassing},
        {"", StreamAnswer::kPassing}};
    for (const auto& [body, answer] : rows) {
        std::string fault;
        EXPECT_EQ(streamAnswerRead(body, false, fault), answer) << body;
    }
}

}  // namespace
