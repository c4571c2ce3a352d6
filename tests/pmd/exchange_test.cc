// The exchange: who gets what, in which runs, and who is cut off.

#include "pmd/exchange.h"

#include "tests/pmd/bus_fixture.h"
#include "tests/support/fail_alloc.h"

namespace {

constexpr const char* kSession = "7F000001.U0001.G1";
constexpr const char* kOwnSession = "7F000001.U0001.18C0FFEE0001234000009";

struct Routing {
    const char* what;
    std::initializer_list<const char*> interest;  // of "b"
    const char* subject;                          // that "a" sends on
    bool reaches;
};

TEST(Exchange, RoutesBySubject) {
    const Routing cases[] = {
        {"the same", {"A.B"}, "A.B", true},
        {"another", {"A.B"}, "A.C", false},
        {"one element", {"A.*"}, "A.C", true},
        {"the rest", {"A.>"}, "A.B.C", true},
        {"once for two interests", {"A.>", "A.B", "*.B"}, "A.B", true},
        {"no inbox for a listener on all",
         {">", "*.*", "*.>"},
         "_INBOX.7F000001.U0001.G1.5",
         false},
        {"a daemon's inbox", {"_INBOX.X.DAEMON.>"}, "_INBOX.X.DAEMON.1", true},
        {"no pattern of inboxes", {"_INBOX.X.DAEMON.1"}, "_INBOX.X.DAEMON.*", false},
        {"nothing reserved from one that isn't hidden", {">"}, "_PM.WARN.X", false},
        {"what only begins like it", {">"}, "_PMX.WARN", true},
    };
    for (const Routing& c : cases) {
        TestBus bus;
        bus.join("a", {});
        bus.join("b", c.interest);
        bus.join("other network", {">"}, {.network = "10.0.0.1"});
        bus.join("other service", {">"}, {.service = "7501"});
        EXPECT_EQ(bus.take("a", dataOn(c.subject)), nullptr) << c.what;
        const Journal wanted = {std::string("b < 1 on ") + c.subject};
        EXPECT_EQ(bus.takeJournal(), c.reaches ? wanted : Journal()) << c.what;
    }
}

TEST(Exchange, BringsInboxesToTheirOwnerAlone) {
    TestBus bus;
    bus.join("a", {}, {.session = kSession});
    bus.join("b", {">"}, {.session = "7F000001.U0002.G1"});
    EXPECT_EQ(bus.take("a", interest("L", "_INBOX.7F000001.U0001.G1.>")), nullptr);
    EXPECT_EQ(bus.take("b", dataOn("_INBOX.7F000001.U0001.G1.12")), nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{"a < 1 on _INBOX.7F000001.U0001.G1.12"});

    // Nobody reads along: neither an inbox of another, nor all, nor one that only begins alike.
    for (const char* subject :
         {"_INBOX.7F000001.U0001.G1.>", "_INBOX.>", "_INBOX.7F000001.U0002.G1",
          "_INBOX.7F000001.U0002.G12.>", "_INBOX.*.*.*.*"}) {
        EXPECT_EQ(bus.take("b", interest("L", subject)), nullptr) << subject;
    }
    EXPECT_EQ(bus.take("b", dataOn("_INBOX.7F000001.U0001.G1.12"), dataOn("X")), nullptr);
    EXPECT_EQ(bus.takeJournal(), (Journal{"a < 1 on _INBOX.7F000001.U0001.G1.12", "b < 1 on X"}));
}

TEST(Exchange, GathersRunsOfTheSameReceivers) {
    TestBus bus(true);
    bus.join("a", {});
    bus.join("b", {"X.>", "Y"});
    bus.join("c", {"X.2", "W"});
    EXPECT_EQ(
        bus.take("a", dataOn("X.1"), dataOn("X.1"), dataOn("Y"), dataOn("X.2"), dataOn("Z"),
                 dataOn("W"), dataOn("X.1"), interest("L", "X.1"), dataOn("X.1"), dataOn("X.3")),
        nullptr);
    EXPECT_EQ(bus.takeJournal(),
              (Journal{"b < 3 on X.1", "wire 3", "b < 1 on X.2", "c < 1 on X.2", "wire 1", "wire 1",
                       "c < 1 on W", "wire 1", "b < 1 on X.1", "wire 1", "b < 1 on X.1",
                       "a < 1 on X.1", "wire 1", "b < 1 on X.3", "wire 1"}));
    EXPECT_EQ(bus.exchange.routed, 9u);
    EXPECT_EQ(bus.exchange.delivered, 10u);
}

TEST(Exchange, EchoesAndHidesAsItsClientsAsk) {
    TestBus bus;
    bus.join("a", {"X"});
    bus.join("b", {"X"}, {.echo = false});
    const Journal both = {"a < 1 on X", "b < 1 on X"};
    const Journal onlyA = {"a < 1 on X"}, onlyB = {"b < 1 on X"};
    EXPECT_EQ(bus.take("a", dataOn("X")), nullptr);
    EXPECT_EQ(bus.takeJournal(), both);
    EXPECT_EQ(bus.take("b", dataOn("X")), nullptr);
    EXPECT_EQ(bus.takeJournal(), onlyA);
    EXPECT_EQ(bus.take("a", control("E", false), dataOn("X")), nullptr);
    EXPECT_EQ(bus.takeJournal(), onlyB);
    EXPECT_EQ(bus.take("b", control("E", true), dataOn("X")), nullptr);
    EXPECT_EQ(bus.takeJournal(), both);
    // Reserved subjects are a hidden client's.
    bus.join("c", {"_PM.>"});
    EXPECT_EQ(bus.take("a", control("C", true), dataOn("_PM.X"), control("C", false),
                       dataOn("_PM.X"), control("?", true)),
              nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{"c < 1 on _PM.X"});
    EXPECT_EQ(bus.take("c", interest("C", "_PM.>"), interest("C", "never")), nullptr);
    EXPECT_EQ(bus.take("a", control("C", true), dataOn("_PM.X")), nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{});
}

TEST(Exchange, AnswersTheFirstOfTwoStartMessages) {
    TestBus bus;
    bus.enter("a");
    EXPECT_EQ(bus.take("a", startMessage()), nullptr);
    const std::string first = bus.answers["a"];
    EXPECT_EQ(first,
              "{mtype=\"R\" data={ipaddr=127.0.0.1 ipport=7500 cid=1 vmaj=8 vmin=5 vupd=2 "
              "gob=\"18C0FFEE0001234000001\" dtyp=\"PMD\"}}");
    EXPECT_EQ(bus.take("a", startMessage({.session = "7F000001.U0001.18C0FFEE0001234000001"})),
              nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{"a < R"});

    // Back with its session it has its id again; one whose id is taken gets another.
    exchangeLeave(&bus.exchange, bus.peers["a"].get());
    bus.join("b", {});
    bus.join("c", {}, {.session = "7F000001.U0001.G7"});
    bus.join("d", {}, {.session = "7F000001.U0001.G8"});
    bus.join("e", {}, {.session = "7F000001.P0005.G9"});
    EXPECT_EQ(bus.peers["b"]->clientId, 2);
    EXPECT_EQ(bus.peers["c"]->clientId, 1);
    EXPECT_EQ(bus.peers["d"]->clientId, 3);
    EXPECT_EQ(bus.peers["e"]->clientId, 4);
    EXPECT_NE(bus.take("b", startMessage({.session = "7F000001.U0007.G1"})), nullptr);
    bus.enter("f");
    EXPECT_EQ(bus.take("f", startMessage({.user = "j\x1b[2J\noe\\\xff", .bare = "network"})),
              nullptr);
    EXPECT_STREQ(bus.peers["f"]->start.user, "j\\x1b[2J\\x0aoe\\x5c\\xff");
}

TEST(Exchange, RefusesAStartThatIsWrong) {
    struct Case {
        StartFields fields;
        const char* answer;
    };
    const std::string longText(300, 'x');
    const Case cases[] = {
        {{.without = "userid"}, "3"},
        {{.without = "service"}, "3"},
        {{.without = "network"}, "3"},
        {{.without = "vmin"}, "3"},
        {{.without = "pid"}, "3"},
        {{.without = "rc"}, "3"},
        {{.session = "x.y"}, "3"},
        {{.session = "7F000001"}, "3"},
        {{.session = "7F000001."}, "3"},
        {{.session = "7F000001.a..b"}, "3"},
        {{.session = "7F000001.>"}, "3"},
        {{.session = "7F000001.*"}, "3"},
        {{.session = longText.c_str()}, "3"},
        {{.service = longText.c_str()}, "16"},
        {{.network = longText.c_str()}, "17"},
        // Another client's: the same from another process, its id, its inboxes.
        {{.session = kSession, .pid = 8}, "91"},
        {{.session = kOwnSession}, "91"},  // that the daemon gave out, or will, with the owner's id
        {{.session = "7F000001.U0001"}, "3"},
        {{.session = "7F000001.U0001.G1.2"}, "3"},
        {{.session = "7F000001.X0001.G1"}, "3"},
        {{.session = "7F000001.U001.G1"}, "3"},
        {{.session = "7F000001.U0001.G\n"}, "3"},
    };
    for (const Case& c : cases) {
        TestBus bus;
        bus.join("owner", {}, {.session = kSession});
        bus.enter("a");
        EXPECT_NE(bus.take("a", startMessage(c.fields)), nullptr);
        EXPECT_EQ(bus.answers["a"], std::string("{mtype=\"R\" data={error=") + c.answer + "}}")
            << c.fields.session << c.fields.without;
    }
}

TEST(Exchange, LetsASessionGoOnOnAnotherConnection) {
    TestBus bus;
    bus.join("old", {"_INBOX.7F000001.U0001.G1.>", "X"}, {.session = kSession});
    bus.join("a", {});
    bus.enter("new");
    EXPECT_EQ(bus.take("new", startMessage({.session = kSession}),
                       interest("L", "_INBOX.7F000001.U0001.G1.>")),
              nullptr);
    EXPECT_EQ(bus.takeJournal(), (Journal{"old cut", "new < R"}));
    EXPECT_EQ(bus.peers["new"]->clientId, 1);
    EXPECT_EQ(bus.take("a", dataOn("_INBOX.7F000001.U0001.G1.1"), dataOn("X")), nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{"new < 1 on _INBOX.7F000001.U0001.G1.1"});

    // From another address it's another's, also while it is absent.
    Peer absent;
    const char* const kWords = "its session is another client's";
    for (const bool isParked : {false, true}) {
        if (isParked) {
            ASSERT_TRUE(exchangePark(&bus.exchange, bus.peers["new"].get(), &absent));
        }
        bus.enter("thief", 2);
        EXPECT_STREQ(bus.take("thief", startMessage({.session = kSession})), kWords);
        exchangeLeave(&bus.exchange, bus.peers["thief"].get());
    }
    bus.journal.clear();
    EXPECT_EQ(bus.peers["new"]->member.realm, nullptr);
    EXPECT_EQ(bus.take("a", dataOn("_INBOX.7F000001.U0001.G1.1")), nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{});  // nobody is there to get it
    bus.enter("back");
    EXPECT_EQ(bus.take("back", startMessage({.session = kSession})), nullptr);
    EXPECT_EQ(bus.takeJournal(), (Journal{"? cut", "back < R"}));
    EXPECT_EQ(bus.peers["back"]->clientId, 1);
}

TEST(Exchange, CutsOffWhoBreaksTheRules) {
    const auto bytes = [](const Bytes& fields) { return messageFrom(outer(fields)); };
    TestBus bus;
    bus.join("listener", {">"});
    const auto fault = [&](bool started, const Message& message) {
        bus.enter("a");
        if (started) {
            EXPECT_EQ(bus.take("a", startMessage()), nullptr);
        }
        const std::string text = bus.take("a", dataOn("X"), message, dataOn("X"));
        exchangeLeave(&bus.exchange, bus.peers["a"].get());
        return text;
    };
    EXPECT_EQ(fault(false, dataOn("X")), "it sent a message before its start message");
    bus.journal.clear();

    // What came ahead of the fault is delivered, what came behind it isn't.
    EXPECT_EQ(fault(true, bytes({4, 's', 'u', 'b'})), "it sent a message that is corrupt");
    EXPECT_EQ(bus.takeJournal(), (Journal{"a < R", "listener < 1 on X"}));
    const Bytes noElements = {4, 's', 'u', 'b', 0, 2, 121, 0, 3, 0};
    EXPECT_EQ(fault(true, bytes(noElements)), "it sent a message that is corrupt");
    const Bytes tooLong = {4, 's', 'u', 'b', 0, 2, 121, 0, 9, 2, 3, 'A', 0, 9, 'B', 0};
    EXPECT_EQ(fault(true, bytes(tooLong)), "it sent a message that is corrupt");
    const Bytes listen = {6, 'm', 't', 'y', 'p', 'e', 0, 8, 2, 'L', 0};
    EXPECT_EQ(fault(true, bytes(listen)), "its interest has no subject");
    EXPECT_EQ(fault(true, startMessage({.service = "7501"})),
              "its start messages contradict each other");
}

TEST(Exchange, IgnoresWhatHasNoMeaning) {
    TestBus bus;
    bus.join("a", {">"});
    const Message unknownKind =
        messageFrom(outer(kSubAB + Bytes{6, 'm', 't', 'y', 'p', 'e', 0, 8, 2, 'Q', 0}));
    const Message noSubject = messageFrom(outer(kMtypeD));
    const Message noFields = messageFrom(outer({}));
    EXPECT_EQ(bus.take("a", unknownKind, noSubject, noFields, dataOn("X")), nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{"a < 1 on X"});
    EXPECT_EQ(bus.exchange.ignored, 3u);
}

// A subject of so many elements, "*" where the number has a bit.
std::string patternOf(uint32_t bits, uint32_t elements) {
    std::string text;
    for (uint32_t i = 0; i < elements; ++i) {
        text += i == 0 ? "" : ".";
        text += (bits >> i & 1) != 0 ? "*" : "a";
    }
    return text;
}

std::string deepSubject(uint32_t number, uint32_t elements) {
    std::string text = "e" + std::to_string(number);
    while (elements-- > 0) {
        text += ".x";
    }
    return text;
}

// Interest of which the daemon keeps a part only, and by what.
struct Flood {
    const char* what;
    std::string (*subject)(uint32_t number);
    uint32_t count;
    uint32_t keptAtLeast, keptAtMost;
};

// Who listens to more than the daemon keeps hears of each subject refused and stays; others can go
// on listening, and a message takes a bounded number of steps.
TEST(Exchange, BoundsWhatAMemberMayListenTo) {
    const Flood floods[] = {
        {"subjects", [](uint32_t i) { return "A.item" + std::to_string(i); }, kMostInterests + 5,
         90'000, kMostInterests},
        {"bytes", [](uint32_t i) { return deepSubject(i, 60); }, 5'000, 3'000, 4'500},
        {"patterns", [](uint32_t i) { return patternOf(i, 16); }, 8'192, 10, 512},
    };
    for (const Flood& flood : floods) {
        TestBus bus;
        bus.join("a", {});
        bus.join("other", {"A.*.c", "A.item0"});
        bus.quiet = true;
        const uint64_t before = bus.exchange.ignored;
        for (uint32_t i = 0; i < flood.count; ++i) {
            ASSERT_EQ(bus.take("a", interest("L", flood.subject(i).c_str())), nullptr);
        }
        const uint64_t kept = flood.count - (bus.exchange.ignored - before);
        EXPECT_GE(kept, flood.keptAtLeast) << flood.what;
        EXPECT_LE(kept, flood.keptAtMost) << flood.what;
        EXPECT_LE(bus.exchange.router.bytes, kMostInterestBytes + 20'000) << flood.what;
        EXPECT_LE(bus.exchange.router.shapes, kMostShapes + 3) << flood.what;
        bus.quiet = false;
        EXPECT_EQ(bus.take("a", interest("L", flood.subject(flood.count - 1).c_str())), nullptr);
        EXPECT_EQ(bus.takeJournal(), Journal{"a < 1 on _PM.WARN.SYSTEM.INTEREST.REFUSED"});
        EXPECT_EQ(bus.take("other", interest("L", "B.*.*"), dataOn("B.b.c")), nullptr);
        EXPECT_EQ(bus.takeJournal(), Journal{"other < 1 on B.b.c"}) << flood.what;
        const std::string all = patternOf(0, 16);
        EXPECT_EQ(bus.take("other", dataOn(all.c_str())), nullptr);
        EXPECT_LE(bus.exchange.router.lastSteps, kMostShapes + 16 + 3) << flood.what;

        // What it listened to is taken down in pieces, and nothing reaches it meanwhile.
        bus.takeJournal();
        exchangeLeave(&bus.exchange, bus.peers["a"].get());
        EXPECT_EQ(bus.take("other", dataOn(flood.subject(0).c_str())), nullptr);
        EXPECT_EQ(bus.takeJournal(),
                  flood.subject(0) == "A.item0" ? Journal{"other < 1 on A.item0"} : Journal{});
        uint64_t last = bus.exchange.router.bytes;
        uint32_t pieces = 0;
        for (bool more = true; more; ++pieces) {
            more = routerSweep(&bus.exchange.router);
            EXPECT_LE(last - bus.exchange.router.bytes, uint64_t{kSweepNodes} * 400);
            last = bus.exchange.router.bytes;
        }
        EXPECT_GT(kept < 1000 ? 2u : pieces, 1u);
        EXPECT_LE(last, 4'000u) << flood.what;
    }
}

// A subject that has wildcards itself asks for as many steps as there are nodes.
TEST(Exchange, GivesUpOnWildcardsThatMatchTooMuch) {
    TestBus bus;
    bus.join("a", {});
    bus.join("b", {"X.Y"});
    bus.quiet = true;
    for (uint32_t i = 0; i < kMostWildcardSteps / 2; ++i) {
        ASSERT_EQ(bus.take("b", interest("L", deepSubject(i, 0).c_str())), nullptr);
    }
    bus.quiet = false;
    EXPECT_EQ(bus.take("a", dataOn("*"), dataOn(">"), dataOn("*.Z"), dataOn("X.Y")), nullptr);
    EXPECT_EQ(bus.takeJournal(),
              (Journal{"b < 1 on *", "a < 1 on _PM.WARN.SYSTEM.SEND.REFUSED",
                       "a < 1 on _PM.WARN.SYSTEM.SEND.REFUSED", "b < 1 on X.Y"}));
    EXPECT_EQ(bus.take("a", dataOn(">")), nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{"b < 1 on >"});
    EXPECT_EQ(bus.exchange.lost, 2u);
}

// Whatever fails, a peer is either served or cut off, and the others go on.
TEST(Exchange, StandsLackOfMemory) {
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
        const bool all = allocationsFailed() == 0;
        allocationsHeal();
        if (all) {
            EXPECT_EQ(fault, nullptr);
        }
        exchangeLeave(&bus.exchange, &peer);
    });
    EXPECT_GT(failing, 5u);
    bus.quiet = false;
    EXPECT_EQ(bus.take("b", data), nullptr);
    EXPECT_EQ(bus.takeJournal(), Journal{"b < 1 on A.B"});
}

}  // namespace
