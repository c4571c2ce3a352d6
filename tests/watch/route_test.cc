#include "watch/serve/route.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "watch/serve/crowd.h"
#include "watch/serve/events.h"
#include "watch/serve/listen_address.h"
#include "watch/serve/shared_text.h"

namespace {

using Query = std::vector<QueryPart>;

constexpr WebAsset kAssets[] = {{"/", "text/html", "page"}, {"/page.js", "text/javascript", "js"}};

Route routed(RouteRequest request, const std::string& path, const char* host = "bus.example:9471") {
    static const char* const kNames[] = {"bus.example"};
    if (request.method.empty()) request.method = "GET";
    request.path = path;
    request.host = host;
    Route route;
    routeFind(request, {kNames, kAssets}, &route);
    return route;
}

TEST(Route, RefusesWhatOtherSitesPagesAskFor) {
    const struct {
        const char *path, *site, *mode, *destination, *origin;
        uint16_t status;
    } cases[] = {
        {"/events", "same-origin", "cors", "", "", 200},
        {"/events", "none", "", "", "", 200},
        {"/events", "cross-site", "no-cors", "", "", 403},
        {"/events", "same-site", "cors", "", "", 403},
        {"/metrics", "", "", "", "http://bus.example:9471", 200},
        {"/metrics", "", "", "", "http://bus.example", 403},
        {"/metrics", "", "", "", "null", 403},
        // A link to the page is followed, one to its data isn't; nor is a frame or a script.
        {"/", "cross-site", "navigate", "document", "", 200},
        {"/history.json", "cross-site", "navigate", "document", "", 403},
        {"/", "cross-site", "navigate", "iframe", "", 403},
        {"/page.js", "cross-site", "no-cors", "script", "", 403},
    };
    for (const auto& [path, site, mode, destination, origin, status] : cases) {
        const Route route = routed({.origin = origin,
                                    .fetchSite = site,
                                    .fetchMode = mode,
                                    .fetchDestination = destination},
                                   path);
        EXPECT_EQ(route.status, status) << path << ' ' << origin << ' ' << site << destination;
    }
    // One that has no place may still scrape.
    for (const auto& [path, status] : {std::pair{"/metrics", 200}, {"/healthz", 200}, {"/", 503}})
        EXPECT_EQ(routed({.isExtra = true}, path).status, status) << path;
}

CrowdAddress addressOf(uint8_t number) {
    CrowdAddress address{};
    address.back() = number;
    return address;
}

// Eight places: six of an address at most, four for events, three of these of an address.
struct CrowdOfTests {
    Crowd crowd = {.most = 8, .members = nullptr, .count = 0, .eventCount = 0};
    std::deque<CrowdMember> members;
    double now = 100;

    // The number of the one that goes, or -1.
    ptrdiff_t enter(uint8_t address, CrowdPhase phase) {
        CrowdMember& member = members.emplace_back();
        member.address = addressOf(address);
        const CrowdMember* const cut = crowdEnter(crowd, member, ++now);
        if (phase != CrowdPhase::kRequest) crowdSetPhase(crowd, member, phase, now);
        for (size_t at = 0; at < members.size(); ++at)
            if (&members[at] == cut) return static_cast<ptrdiff_t>(at);
        return -1;
    }
};

TEST(Crowd, TheLongestSilentGoes) {
    CrowdOfTests test;
    for (uint8_t i = 0; i < 8; ++i)
        EXPECT_EQ(test.enter(i, i < 2 ? CrowdPhase::kIdle : CrowdPhase::kAnswer), -1);
    EXPECT_EQ(test.enter(8, CrowdPhase::kAnswer), 0);
    EXPECT_EQ(test.enter(9, CrowdPhase::kAnswer), 1);
    // All have answers under way, and three of them no longer take them.
    test.now += kCrowdTakeSeconds;
    for (size_t i : {3, 5, 7, 8, 9})
        crowdTook(test.members[i], 1, test.now);
    crowdTook(test.members[2], 1, test.now - kCrowdTakeSeconds);
    EXPECT_EQ(test.enter(10, CrowdPhase::kAnswer), 4);
    EXPECT_EQ(test.enter(11, CrowdPhase::kAnswer), 6);
    EXPECT_EQ(test.crowd.count, 8u);
}

TEST(Crowd, OneAddressLeavesPlacesToOthers) {
    CrowdOfTests test;
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(test.enter(1, CrowdPhase::kEvents), -1);
    // One that waits for the next event isn't silent. So the seventh of the address is an extra,
    // and others find places.
    EXPECT_EQ(test.enter(1, CrowdPhase::kAnswer), -1);
    EXPECT_TRUE(test.members.back().isExtra);
    EXPECT_EQ(test.enter(2, CrowdPhase::kRequest), -1);
    EXPECT_FALSE(test.members.back().isExtra);
    for (size_t i = 0; i < 3; ++i)
        crowdSetPhase(test.crowd, test.members[i], CrowdPhase::kIdle, 1);
    EXPECT_FALSE(crowdHasRoomForEvents(test.crowd, test.members[0]));
    EXPECT_TRUE(crowdHasRoomForEvents(test.crowd, test.members.back()));
    // The silent one of the address itself goes, not the longer silent one of another.
    EXPECT_EQ(test.enter(1, CrowdPhase::kRequest), 0);
}

TEST(Crowd, OfExtrasTheOldestGoes) {
    CrowdOfTests test;
    for (uint8_t i = 0; i < 8 + kCrowdExtras; ++i)
        EXPECT_EQ(test.enter(i, CrowdPhase::kEvents), -1);
    EXPECT_EQ(test.enter(99, CrowdPhase::kRequest), 8);
    EXPECT_EQ(test.enter(99, CrowdPhase::kRequest), 9);
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

TEST(Route, ReadsARowFromItsQuery) {
    const Query subject = {{"table", "subjects"},    {"port", "7500"},     {"group", "239.1.1.1"},
                           {"subject", "A\\x2eB.C"}, {"host", "10.0.0.1"}, {"scid", "65535"}};
    const Route route = routed({.query = subject}, "/history.json");
    ASSERT_EQ(route.kind, RouteKind::kHistoryOfRow) << route.reason;
    EXPECT_EQ(route.row.table, BusTable::kSubjects);
    EXPECT_TRUE(route.row.hasHost);
    EXPECT_EQ(route.row.port, htons(7500));
    EXPECT_EQ(route.row.scid, 65535);
    EXPECT_EQ(route.row.group, inet_addr("239.1.1.1"));
    EXPECT_EQ(route.row.host, inet_addr("10.0.0.1"));
    EXPECT_EQ(subjectElementCount(route.subject), 2u);

    const std::string longText(253, 'A'), manyElements(127, '.');
    // What is to change of it, and what is then wrong.
    const char* const cases[][3] = {
        {"table", "subject", "no such table"},
        {"table", "multicast", "this table has no subjects"},
        {"table", "retransmission", "this table has no groups"},
        {"port", "65536", "port isn't a number from 0 to 65535"},
        {"port", "", "port isn't a number from 0 to 65535"},
        {"port", " 1", "port isn't a number from 0 to 65535"},
        {"scid", "0", "scid isn't a number from 1 to 65535"},
        {"group", "239.1.1", "group isn't an address"},
        {"host", "10.0.0.1000000000", "host isn't an address"},
        {"subject", "A\\", "no subject has this text"},
        {"subject", "\\y41", "no subject has this text"},
        {"subject", "\\x4g", "no subject has this text"},
        {"subject", "A.\\x+1", "no subject has this text"},
        {"subject", longText.c_str(), "no subject has this text"},
        {"subject", manyElements.c_str(), "no subject has this text"},
        {"Port", "1", "no such name in a query"},
    };
    for (const auto& [name, value, reason] : cases) {
        Query query = subject;
        const auto found = std::ranges::find(query, name, &QueryPart::name);
        if (found != query.end()) query.erase(found);
        query.push_back({name, value});
        const Route refused = routed({.query = query}, "/history.json");
        EXPECT_EQ(refused.status, 400);
        EXPECT_STREQ(refused.reason, reason);
    }
    for (size_t left = 0; left < 4; ++left) {
        Query query = subject;
        query.erase(query.begin() + static_cast<ptrdiff_t>(left));
        EXPECT_EQ(routed({.query = query}, "/history.json").status, 400) << left;
    }
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
