#include "watch/serve/route.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "watch/serve/crowd.h"
#include "watch/serve/events.h"
#include "watch/serve/listen_address.h"
#include "watch/serve/shared_text.h"

namespace {

TEST(Route, AnExtraMayStillScrape) {
    constexpr WebAsset kAssets[] = {{"/", "text/html", "page"}};
    for (const auto& [path, status] : {std::pair{"/metrics", 200}, {"/healthz", 200}, {"/", 503}}) {
        const RouteRequest request = {
            .method = "GET", .path = path, .host = "localhost", .isExtra = true};
        Route route;
        routeFind(request, {{}, kAssets}, &route);
        EXPECT_EQ(route.status, status) << path;
    }
}

// Eight places: six of an address at most, four for events, three of these of an address.
struct CrowdOfTests {
    Crowd crowd = {.most = 8, .members = nullptr, .count = 0, .eventCount = 0};
    std::deque<CrowdMember> members;
    double now = 100;

    // The one that goes, or null.
    const CrowdMember* enter(uint8_t address, CrowdPhase phase) {
        CrowdMember& member = members.emplace_back();
        member.address = {};
        member.address.back() = address;
        const CrowdMember* const cut = crowdEnter(crowd, member, ++now);
        if (phase != CrowdPhase::kRequest) crowdSetPhase(crowd, member, phase, now);
        return cut;
    }
};

TEST(Crowd, TheLongestSilentGoes) {
    CrowdOfTests test;
    for (uint8_t i = 0; i < 8; ++i)
        EXPECT_EQ(test.enter(i, i < 2 ? CrowdPhase::kIdle : CrowdPhase::kAnswer), nullptr);
    EXPECT_EQ(test.enter(8, CrowdPhase::kAnswer), &test.members[0]);
    EXPECT_EQ(test.enter(9, CrowdPhase::kAnswer), &test.members[1]);
    // All have answers under way, and three of them no longer take them.
    test.now += kCrowdTakeSeconds;
    for (size_t i : {3, 5, 7, 8, 9})
        crowdTook(test.members[i], 1, test.now);
    crowdTook(test.members[2], 1, test.now - kCrowdTakeSeconds);
    EXPECT_EQ(test.enter(10, CrowdPhase::kAnswer), &test.members[4]);
    EXPECT_EQ(test.enter(11, CrowdPhase::kAnswer), &test.members[6]);
}

TEST(Crowd, OneAddressLeavesPlacesToOthers) {
    CrowdOfTests test;
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(test.enter(1, CrowdPhase::kEvents), nullptr);
    // One that waits for the next event isn't silent. So the seventh of the address is an extra,
    // and others find places.
    EXPECT_EQ(test.enter(1, CrowdPhase::kAnswer), nullptr);
    EXPECT_TRUE(test.members.back().isExtra);
    EXPECT_EQ(test.enter(2, CrowdPhase::kRequest), nullptr);
    EXPECT_FALSE(test.members.back().isExtra);
    for (size_t i = 0; i < 3; ++i)
        crowdSetPhase(test.crowd, test.members[i], CrowdPhase::kIdle, 1);
    EXPECT_FALSE(crowdHasRoomForEvents(test.crowd, test.members[0]));
    EXPECT_TRUE(crowdHasRoomForEvents(test.crowd, test.members.back()));
    // The silent one of the address itself goes, not the longer silent one of another.
    EXPECT_EQ(test.enter(1, CrowdPhase::kRequest), &test.members[0]);
}

TEST(Crowd, OfExtrasTheOldestGoes) {
    CrowdOfTests test;
    for (uint8_t i = 0; i < 8 + kCrowdExtras; ++i)
        EXPECT_EQ(test.enter(i, CrowdPhase::kEvents), nullptr);
    EXPECT_EQ(test.enter(99, CrowdPhase::kRequest), &test.members[8]);
    EXPECT_EQ(test.enter(99, CrowdPhase::kRequest), &test.members[9]);
    EXPECT_EQ(test.crowd.count, 8u);
    EXPECT_EQ(test.crowd.eventCount, 8u);
    for (CrowdMember& member : test.members)
        crowdLeave(test.crowd, member);
    EXPECT_EQ(test.crowd.count + test.crowd.eventCount, 0u);
    EXPECT_EQ(test.crowd.members, nullptr);
}

BodyHold textOf(const char* text) {
    BodyHold body = BodyHold::make();
    body.buffer().append(text);
    body.count();
    return body;
}

TEST(SharedText, SlowReadersHoldOneOldTextAtMost) {
    const size_t before = bodyBytes();
    SharedText text;
    EXPECT_TRUE(sharedTextMayRenew(text));
    sharedTextRenew(text, textOf("first"), 1);
    BodyHold slow = text.newest;
    EXPECT_TRUE(sharedTextMayRenew(text));
    sharedTextRenew(text, textOf("second"), 2);
    EXPECT_TRUE(sharedTextMayRenew(text));
    sharedTextRenew(text, textOf("third"), 3);  // the second wasn't held
    BodyHold slower = text.newest;
    EXPECT_FALSE(sharedTextMayRenew(text));
    EXPECT_EQ(bodyBytes() - before, std::string_view("firstthird").size());
    slow = {};
    EXPECT_TRUE(sharedTextMayRenew(text));
    sharedTextRenew(text, textOf("fourth"), 4);
    EXPECT_EQ(text.old.text(), "third");
    text.old = slower = {};

    // At the bound a text that nobody reads makes room, where that is enough.
    const size_t fourth = text.newest.text().size();
    bodyBytesHeld += kMostBodyBytes - before;
    EXPECT_FALSE(sharedTextMayRenew(text));
    bodyBytesHeld -= fourth;
    slow = text.newest;
    EXPECT_FALSE(sharedTextMayRenew(text));
    slow = {};
    EXPECT_TRUE(text.newest);
    EXPECT_TRUE(sharedTextMayRenew(text));
    EXPECT_FALSE(text.newest);
    bodyBytesHeld -= kMostBodyBytes - before - fourth;
    text = {};
    EXPECT_EQ(bodyBytes(), before);
}

TEST(ListenAddress, IsAnAddressAndAPort) {
    for (const char* text : {"127.0.0.1:9471", "127.255.0.1:0", "0.0.0.0:65535", "10.0.0.1:80",
                             "[::1]:9471", "[::]:1", "[fe80::1]:1"}) {
        ListenAddress listen{};
        ASSERT_EQ(listenAddressParse(text, &listen), nullptr) << text;
        char shown[kListenTextBytes];
        EXPECT_EQ(listenAddressText(listen, shown), text);
    }
    for (const char* text : {":9471", "9471", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1",
                             "localhost:1", "::1:9471", "[::1]", "[::1:1", "[127.0.0.1]:1"}) {
        ListenAddress listen{};
        EXPECT_NE(listenAddressParse(text, &listen), nullptr) << text;
    }
}

Events snapshotOf(uint64_t number, const char* text) {
    Events events{};
    events.of[static_cast<size_t>(StreamEvent::kSnapshot)] = {textOf(text), number};
    return events;
}

EventNumbers numbersOf(const Events& events) {
    return {{events.of[0].number, events.of[1].number}};
}

TEST(Events, ALateReaderSkipsToTheNewest) {
    EventClient client{};
    EXPECT_EQ(eventsNext(client, {}, 100, 0), "");
    const Events first = snapshotOf(1, "first"), second = snapshotOf(2, "second");
    Events third = snapshotOf(3, "third");
    third.of[0] = {textOf("source"), 7};
    EXPECT_TRUE(eventsWakes(client, numbersOf(first), 1));
    EXPECT_EQ(eventsNext(client, first, 3, 1), "fir");
    EXPECT_EQ(eventsNext(client, second, 3, 2), "st");  // an event goes out whole
    EXPECT_EQ(eventsNext(client, third, 100, 3), "source");
    EXPECT_EQ(eventsNext(client, third, 100, 3), "third");
    EXPECT_EQ(eventsNext(client, third, 100, 4), "");
    EXPECT_FALSE(client.body);  // the bytes of what was read are given back
    EXPECT_FALSE(eventsWakes(client, numbersOf(third), 5));
    ++third.of[0].number;
    EXPECT_TRUE(eventsWakes(client, numbersOf(third), 5));
}

TEST(Events, SilenceIsBrokenAndStallsAreSeen) {
    EventClient client{};
    const Events event = snapshotOf(1, "event");
    EXPECT_EQ(eventsNext(client, event, 100, 0), "event");
    EXPECT_FALSE(eventsIsStalled(client, 0, kEventsReadSeconds));
    EXPECT_TRUE(eventsIsStalled(client, kEventsLeastBytes - 1, kEventsReadSeconds + 1));
    for (int round = 1; round < 10; ++round) {  // slow, but steady
        const double now = round * (kEventsReadSeconds + 1);
        EXPECT_FALSE(eventsIsStalled(client, round * kEventsLeastBytes, now));
    }
    EXPECT_TRUE(eventsIsStalled(client, 9 * kEventsLeastBytes, 10 * (kEventsReadSeconds + 1)));
    EXPECT_EQ(eventsNext(client, event, 100, 5), "");
    EXPECT_FALSE(eventsIsStalled(client, 0, 1000));
    EXPECT_FALSE(eventsWakes(client, numbersOf(event), 5 + kEventsSilenceSeconds - 1));
    EXPECT_TRUE(eventsWakes(client, numbersOf(event), 5 + kEventsSilenceSeconds));
    EXPECT_EQ(eventsNext(client, event, 100, 5 + kEventsSilenceSeconds), ":\n\n");
    EXPECT_EQ(eventsNext(client, event, 100, 6 + kEventsSilenceSeconds), "");
}

}  // namespace
