#include "watch/serve/route.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "watch/serve/events.h"
#include "watch/serve/listen_address.h"

namespace {

using Query = std::vector<QueryPart>;

constexpr WebAsset kAssets[] = {{"/", "text/html", "page"}, {"/page.js", "text/javascript", "js"}};

Route routed(const std::string& method,
             const std::string& path,
             const Query& query = {},
             const std::string& host = "localhost") {
    static const char* const kNames[] = {"bus.example"};
    Route route;
    routeFind({method, path, host, query}, {true, kNames, kAssets}, &route);
    return route;
}

TEST(Route, KnowsItsPathsAndNothingElse) {
    const std::pair<const char*, RouteKind> cases[] = {
        {"/", RouteKind::kAsset},          {"/page.js", RouteKind::kAsset},
        {"/metrics", RouteKind::kMetrics}, {"/snapshot.json", RouteKind::kSnapshot},
        {"/events", RouteKind::kEvents},   {"/history.json", RouteKind::kHistoryOfTotals},
        {"/healthz", RouteKind::kHealth},
    };
    for (const auto& [path, kind] : cases) {
        EXPECT_EQ(routed("GET", path).kind, kind) << path;
        EXPECT_EQ(routed("get", path).status, 405) << path;
        EXPECT_EQ(routed("GET", std::string(path) + "x").status, 404) << path;
        EXPECT_EQ(routed("GET", path, {}, "evil.example").status, 403) << path;
    }
    EXPECT_EQ(routed("GET", "/page.js").asset, &kAssets[1]);
    EXPECT_EQ(routed("POST", "/nosuch").status, 404);
    EXPECT_EQ(routed("GET", "").status, 404);
    EXPECT_EQ(routed("GET", "/metrics", {}, "BUS.example:1").kind, RouteKind::kMetrics);

    Route route;
    routeFind({"GET", "/metrics", "anything", {}}, {false, {}, {}}, &route);
    EXPECT_EQ(route.kind, RouteKind::kMetrics);
}

TEST(Route, ReadsARowFromItsQuery) {
    const Query subject = {{"table", "subjects"},    {"port", "7500"},     {"group", "239.1.1.1"},
                           {"subject", "A\\x2eB.C"}, {"host", "10.0.0.1"}, {"scid", "65535"}};
    const Route route = routed("GET", "/history.json", subject);
    ASSERT_EQ(route.kind, RouteKind::kHistoryOfRow) << route.reason;
    EXPECT_EQ(route.row.table, HistoryTable::kSubjects);
    EXPECT_TRUE(route.row.hasHost);
    EXPECT_EQ(route.row.port, htons(7500));
    EXPECT_EQ(route.row.scid, 65535);
    EXPECT_EQ(route.row.group, inet_addr("239.1.1.1"));
    EXPECT_EQ(route.row.host, inet_addr("10.0.0.1"));
    EXPECT_EQ(subjectElementCount(route.subject), 2u);

    // What is to change of it, and what is then wrong.
    const struct {
        const char* name;
        const char* value;
        const char* reason;
    } cases[] = {
        {"table", "subject", "no such table"},
        {"table", "multicast", "this table has no subjects"},
        {"table", "retransmission", "this table has no groups"},
        {"port", "65536", "port isn't a number from 0 to 65535"},
        {"port", "", "port isn't a number from 0 to 65535"},
        {"port", " 1", "port isn't a number from 0 to 65535"},
        {"scid", "0", "scid isn't a number from 1 to 65535"},
        {"group", "239.1.1", "group isn't an address"},
        {"host", "10.0.0.1000000000", "host isn't an address"},
        {"subject", "\\", "no subject has this text"},
        {"Port", "1", "no such name in a query"},
    };
    for (const auto& [name, value, reason] : cases) {
        Query query = subject;
        bool found = false;
        for (QueryPart& part : query) {
            if (part.name != name) continue;
            part.value = value;
            found = true;
        }
        if (!found) query.push_back({name, value});
        const Route refused = routed("GET", "/history.json", query);
        EXPECT_EQ(refused.status, 400);
        EXPECT_STREQ(refused.reason, reason);
    }
    for (size_t left = 0; left < 4; ++left) {
        Query query = subject;
        query.erase(query.begin() + static_cast<ptrdiff_t>(left));
        EXPECT_EQ(routed("GET", "/history.json", query).status, 400) << left;
    }
}

TEST(ListenAddress, IsAnAddressAndAPort) {
    const struct {
        const char* text;
        bool isLoopback;
    } sound[] = {{"127.0.0.1:9471", true}, {"127.255.0.1:0", true}, {"0.0.0.0:65535", false},
                 {"10.0.0.1:80", false},   {"[::1]:9471", true},    {"[::]:1", false},
                 {"[fe80::1]:1", false}};
    for (const auto& [text, isLoopback] : sound) {
        ListenAddress listen{};
        ASSERT_EQ(listenAddressParse(text, &listen), nullptr) << text;
        EXPECT_EQ(listenAddressIsLoopback(listen), isLoopback) << text;
        char shown[kListenTextBytes];
        EXPECT_EQ(listenAddressText(listen, shown), text);
    }
    for (const char* text :
         {"", ":", ":9471", "9471", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1",
          "127.1:1", "localhost:1", "::1:9471", "[::1]", "[::1:1", "[127.0.0.1]:1", "[]:1"}) {
        ListenAddress listen{};
        EXPECT_NE(listenAddressParse(text, &listen), nullptr) << text;
    }
}

// An event and its bytes.
Event eventOf(uint64_t number, const std::string& text) {
    Event event{BodyHold::make(), number};
    event.body.buffer().append(text);
    return event;
}

TEST(Events, ALateReaderSkipsToTheNewest) {
    EventClient client{};
    EXPECT_EQ(eventsNext(client, {}, 100, 0), "");
    const Event first = eventOf(1, "first"), second = eventOf(2, "second"),
                third = eventOf(3, "third");
    EXPECT_TRUE(eventsWakes(client, first.number, 1));
    EXPECT_EQ(eventsNext(client, first, 3, 1), "fir");
    EXPECT_EQ(eventsNext(client, second, 3, 2), "st");  // an event is told whole
    EXPECT_EQ(eventsNext(client, third, 100, 3), "third");
    EXPECT_EQ(eventsNext(client, third, 100, 4), "");
    EXPECT_FALSE(client.body);  // the bytes of what was read are given back
    EXPECT_FALSE(eventsWakes(client, third.number, 5));
}

TEST(Events, SilenceIsBrokenAndStallsAreSeen) {
    EventClient client{};
    const Event event = eventOf(1, "event");
    EXPECT_EQ(eventsNext(client, event, 100, 0), "event");
    EXPECT_FALSE(eventsIsStalled(client, kEventsReadSeconds));
    EXPECT_TRUE(eventsIsStalled(client, kEventsReadSeconds + 1));
    EXPECT_EQ(eventsNext(client, event, 100, 5), "");
    EXPECT_FALSE(eventsIsStalled(client, 1000));
    EXPECT_FALSE(eventsWakes(client, event.number, 5 + kEventsSilenceSeconds - 1));
    EXPECT_TRUE(eventsWakes(client, event.number, 5 + kEventsSilenceSeconds));
    EXPECT_EQ(eventsNext(client, event, 100, 5 + kEventsSilenceSeconds), ":\n\n");
    EXPECT_EQ(eventsNext(client, event, 100, 6 + kEventsSilenceSeconds), "");
}

}  // namespace
