#include "pmd/exchange.h"

#include "tests/pmd/bus_fixture.h"
#include "tests/support/fail_alloc.h"

namespace {

constexpr const char* kSession = "7F000001.U0001.G1";
constexpr const char* kInbox = "_INBOX.7F000001.U0001.G1.12";

TEST(Exchange, RoutesBySubject) {
    const std::string kOwn = "_INBOX.7F000001.U0002.G1";
    const struct {
        const char* what;
        std::vector<std::string> interest;  // of "b"
        std::string subject;                // that "a" sends on
        bool reaches;
    } cases[] = {
        {"the same", {"A.B"}, "A.B", true},
        {"another", {"A.B"}, "A.C", false},
        {"one element", {"A.*"}, "A.C", true},
        {"the rest", {"A.>"}, "A.B.C", true},
        {"once for two interests", {"A.>", "A.B", "*.B"}, "A.B", true},
        {"no inbox for a listener on all", {">", "*.*", "*.>"}, kInbox, false},
        {"nor for one who asks", {"_INBOX.7F000001.U0001.G1.>", "_INBOX.>"}, kInbox, false},
        {"nor by a pattern", {"_INBOX.*.*.*.*"}, kInbox, false},
        {"no inbox that begins alike", {kOwn + "2.>"}, kOwn + "2.1", false},
        {"nor what all of its own begin with", {kOwn}, kOwn, false},
        {"its own inbox", {kOwn + ".>"}, kOwn + ".12", true},
        {"a daemon's inbox", {"_INBOX.X.DAEMON.>"}, "_INBOX.X.DAEMON.1", true},
        {"no pattern of inboxes", {"_INBOX.X.DAEMON.1"}, "_INBOX.X.DAEMON.*", false},
        {"nothing reserved from one that isn't hidden", {">"}, "_PM.WARN.X", false},
        {"what only begins like it", {">"}, "_PMX.WARN", true},
    };
    for (const auto& [what, interest, subject, reaches] : cases) {
        TestBus bus;
        bus.join("a", {}, {.session = kSession});
        bus.join("b", interest, {.session = "7F000001.U0002.G1"});
        bus.join("other network", {">"}, {.network = "10.0.0.1"});
        bus.join("other service", {">"}, {.service = "7501"});
        EXPECT_EQ(bus.sends("a", dataOn(subject)), reaches ? "b < 1 on " + subject : "") << what;
    }
}

TEST(Exchange, GathersRunsOfTheSameReceivers) {
    TestBus bus(true);
    bus.join("a", {});
    bus.join("b", {"X.>", "Y"});
    bus.join("c", {"X.2", "W"});
    EXPECT_EQ(
        bus.sends("a", dataOn("X.1"), dataOn("X.1"), dataOn("Y"), dataOn("X.2"), dataOn("Z"),
                  dataOn("W"), dataOn("X.1"), interest("L", "X.1"), dataOn("X.1"), dataOn("X.3")),
        "b < 3 on X.1; wire 3; b < 1 on X.2; c < 1 on X.2; wire 1; wire 1; c < 1 on W; wire 1; "
        "b < 1 on X.1; wire 1; b < 1 on X.1; a < 1 on X.1; wire 1; b < 1 on X.3; wire 1");
    EXPECT_EQ(bus.exchange.routed, 9u);
    EXPECT_EQ(bus.exchange.delivered, 10u);
}

TEST(Exchange, LetsASessionGoOnOnAnotherConnection) {
    TestBus bus;
    bus.join("old", {"_INBOX.7F000001.U0001.G1.>", "X"}, {.session = kSession});
    bus.join("a", {});
    bus.enter("new");
    EXPECT_EQ(bus.sends("new", startMessage({.session = kSession}),
                        interest("L", "_INBOX.7F000001.U0001.G1.>")),
              "old cut; new < R");
    EXPECT_EQ(bus.sends("a", dataOn(kInbox), dataOn("X")), std::string("new < 1 on ") + kInbox);
    // From another address it's another's, also while it is absent.
    Peer absent;
    for (const bool isParked : {false, true}) {
        EXPECT_EQ(isParked && exchangePark(&bus.exchange, bus.peers["new"].get(), &absent),
                  isParked);
        bus.enter("thief", 2);
        EXPECT_STREQ(bus.take("thief", startMessage({.session = kSession})),
                     "its session is another client's");
        bus.leave("thief");
    }
    EXPECT_EQ(bus.sends("a", dataOn(kInbox)), "");  // no client is there to get it
    bus.enter("back");
    EXPECT_EQ(bus.sends("back", startMessage({.session = kSession})), "? cut; back < R");
    EXPECT_EQ(bus.peers["back"]->clientId, 1);
}

// A subject of so many elements, "*" where the number has a bit.
std::string patternOf(uint32_t bits, uint32_t elements) {
    std::string text;
    for (uint32_t i = 0; i < elements; ++i)
        text += (i == 0 ? "" : ".") + std::string((bits >> i & 1) != 0 ? "*" : "a");
    return text;
}

std::string deepSubject(uint32_t number, uint32_t elements) {
    std::string text = "e" + std::to_string(number);
    while (elements-- > 0)
        text += ".x";
    return text;
}

// Who listens to more than the daemon keeps hears of each subject refused and stays; others can go
// on listening, and a message takes a bounded number of steps.
TEST(Exchange, BoundsWhatAMemberMayListenTo) {
    const struct {
        const char* what;
        std::string (*subject)(uint32_t number);
        uint32_t count, keptAtLeast, keptAtMost;
    } floods[] = {
        {"subjects", [](uint32_t i) { return "A.item" + std::to_string(i); }, kMostInterests + 5,
         90'000, kMostInterests},
        {"bytes", [](uint32_t i) { return deepSubject(i, 60); }, 5'000, 3'000, 4'500},
        {"patterns", [](uint32_t i) { return patternOf(i, 16); }, 8'192, 10, 512},
    };
    for (const auto& [what, subject, count, keptAtLeast, keptAtMost] : floods) {
        SCOPED_TRACE(what);
        TestBus bus;
        Router& router = bus.exchange.router;
        bus.join("a", {});
        bus.join("other", {"A.*.c", "A.item0"});
        bus.quiet = true;
        const uint64_t before = bus.exchange.ignored;
        for (uint32_t i = 0; i < count; ++i)
            ASSERT_EQ(bus.take("a", interest("L", subject(i))), nullptr);
        const uint64_t kept = count - (bus.exchange.ignored - before);
        EXPECT_TRUE(kept >= keptAtLeast && kept <= keptAtMost) << kept;
        EXPECT_LE(router.bytes, kMostInterestBytes + 20'000);
        EXPECT_LE(router.shapes, kMostShapes + 3);
        bus.quiet = false;
        EXPECT_EQ(bus.sends("a", interest("L", subject(count - 1))),
                  "a < 1 on _PM.WARN.SYSTEM.INTEREST.REFUSED");
        EXPECT_EQ(bus.sends("other", interest("L", "B.*.*"), dataOn("B.b.c")),
                  "other < 1 on B.b.c");
        (void)bus.sends("other", dataOn(patternOf(0, 16)));
        EXPECT_LE(router.lastSteps, kMostShapes + 16 + 3);

        // What it listened to is taken down in pieces, and nothing reaches it meanwhile.
        bus.leave("a");
        EXPECT_EQ(bus.sends("other", dataOn(subject(0))),
                  subject(0) == "A.item0" ? "other < 1 on A.item0" : "");
        uint64_t last = router.bytes;
        uint32_t pieces = 0;
        for (bool more = true; more; ++pieces) {
            more = routerSweep(&router);
            EXPECT_LE(last - router.bytes, uint64_t{kSweepNodes} * 400);
            last = router.bytes;
        }
        EXPECT_GT(kept < 1000 ? 2u : pieces, 1u);
        EXPECT_LE(last, 4'000u);
    }
}

// A subject that has wildcards itself asks for as many steps as there are nodes.
TEST(Exchange, GivesUpOnWildcardsThatMatchTooMuch) {
    TestBus bus;
    bus.join("a", {});
    bus.join("b", {"X.Y"});
    for (uint32_t i = 0; i < kMostWildcardSteps / 2; ++i)
        (void)bus.sends("b", interest("L", deepSubject(i, 0)));
    EXPECT_EQ(bus.sends("a", dataOn("*"), dataOn(">"), dataOn("*.Z"), dataOn("X.Y")),
              "b < 1 on *; a < 1 on _PM.WARN.SYSTEM.SEND.REFUSED; "
              "a < 1 on _PM.WARN.SYSTEM.SEND.REFUSED; b < 1 on X.Y");
    EXPECT_EQ(bus.sends("a", dataOn(">")), "b < 1 on >");
    EXPECT_EQ(bus.exchange.lost, 2u);
}

TEST(Exchange, ServesOrCutsOffWithoutMemory) {
    const Message start = startMessage({.session = kSession});
    const Message listen = interest("L", "A.*"), data = dataOn("A.B");
    TestBus bus;
    bus.join("b", {"A.B"});
    bus.quiet = true;
    const size_t failing = eachAllocationFails([&] {
        Peer peer;
        exchangeEnter(&bus.exchange, &peer, &bus, 1);
        pelmoMsg* const batch[] = {start.get(), listen.get(), data.get()};
        const char* fault = exchangeTake(&bus.exchange, &peer, batch);
        EXPECT_TRUE(fault == nullptr || allocationsFailed() != 0);
        allocationsHeal();
        exchangeLeave(&bus.exchange, &peer);
    });
    EXPECT_GT(failing, 5u);
    bus.quiet = false;
    EXPECT_EQ(bus.sends("b", data), "b < 1 on A.B");
}

}  // namespace
