#include "trace/packets/scan.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "tests/support/trace_run.h"

namespace {

struct Scanned {
    int result;
    Lines charged;
    Lines logged;

    bool operator==(const Scanned&) const = default;
};

void PrintTo(const Scanned& scanned, std::ostream* stream) {
    *stream << scanned.result;
    for (const Lines& lines : {scanned.charged, scanned.logged}) {
        for (const std::string& line : lines) {
            *stream << "\n    " << line;
        }
    }
}

Scanned scanOnce(const Bytes& payload, bool strict, bool complain) {
    TraceRun run(complain);
    PortEntry* port = portEntry(htons(7500));
    NetEntry* net = netEntry(*port, htonl(ipv4(239, 1, 1, 1)));
    const ScanSource source = {*net, htonl(ipv4(10, 0, 0, 1)), htons(7001), strict};
    const int result = scanMessages(source, payload);
    const Lines tree = treeText();
    return {result, Lines(tree.begin() + 3, tree.end()), run.logged()};
}

// Told or not, it comes to the same.
Scanned scan(const Bytes& payload, bool strict) {
    Scanned told = scanOnce(payload, strict, true);
    EXPECT_EQ(scanOnce(payload, strict, false), (Scanned{told.result, told.charged, {}}));
    return told;
}

Lines charged(const std::string& subject, size_t bytes, int msgs = 1) {
    return {"  subject " + subject + " live",
            "   from 10.0.0.1:7001 live msgs=" + std::to_string(msgs) +
                " bytes=" + std::to_string(bytes)};
}

Lines both(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Bytes subjectOf(const char* text) {
    return subjectField(packedSubject(text));
}

TEST(Scan, ChargesEachSubjectFieldWithTheWholeMessage) {
    const Bytes ab = subjectOf("A.B");  // 16 bytes
    const Bytes other = field(named("x"), 11, be32(5));
    const std::string longest(250, 'x');
    Bytes empties = {0, 255, 126};
    for (int i = 0; i < 126; ++i) {
        empties = joined({empties, {2, 0}});
    }
    const Bytes empty = {0, 3, 0};
    const Bytes withId = joined({{6, 's', 'u', 'b', 0, 0, 9, 2, 121}, packedSubject("A.B")});
    const Bytes longName = joined({{5, 's', 'u', 'b', 'x', 0, 2, 121}, packedSubject("A.B")});
    const Bytes otherCase = joined({{4, 'S', 'u', 'b', 0, 2, 121}, packedSubject("A.B")});
    const Bytes otherType = joined({{4, 's', 'u', 'b', 0, 8, 121}, packedSubject("A.B")});
    const Bytes cOnly = message({subjectOf("C")});

    const struct {
        const char* name;
        Bytes payload;
        Lines charged;
    } cases[] = {
        {"nothing", {}, {}},
        {"no subject", message({other}), {}},
        {"subject among others", message({other, ab, other}), charged("A.B", 42)},
        {"two messages", joined({message({ab}), cOnly}),
         both(charged("A.B", 24), charged("C", 21))},
        {"same subject", joined({message({ab}), message({other, ab})}), charged("A.B", 57, 2)},
        {"two subjects", message({ab, subjectOf("C")}), both(charged("A.B", 37), charged("C", 37))},
        {"twice the same", message({ab, ab}), charged("A.B", 80, 2)},
        {"name with id", message({withId}), charged("A.B", 26)},
        {"longer name", message({longName}), {}},
        {"other case", message({otherCase}), {}},
        {"other type", message({otherType}), {}},
        {"most elements", message({subjectField(empties)}), charged(std::string(125, '.'), 270)},
        {"longest element", message({subjectOf(longest.c_str())}), charged(longest, 270)},
        {"no elements", joined({message({subjectField(empty), ab}), cOnly}),
         both(charged("A.B", 34), charged("C", 21))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(scan(c.payload, true), (Scanned{0, c.charged, {}}));
        EXPECT_EQ(scan(c.payload, false), (Scanned{0, c.charged, {}}));
    }
}

TEST(Scan, PassesFieldsOfEachSize) {
    for (const size_t valueBytes : {0u, 118u, 119u, 120u, 121u, 254u, 29999u, 30000u, 70000u}) {
        SCOPED_TRACE(valueBytes);
        const Bytes bytes =
            message({field(named("v"), 7, Bytes(valueBytes, 0x77)), subjectOf("A")});
        EXPECT_EQ(scan(bytes, true), (Scanned{0, charged("A", bytes.size()), {}}));
    }
}

TEST(Scan, KnowsTheSubjectByItsFirstFourBytes) {
    for (const size_t nameBytes : {0u, 3u, 4u, 5u, 127u, 255u}) {
        SCOPED_TRACE(nameBytes);
        Bytes name = {'s', 'u', 'b', 0};
        name.resize(nameBytes, 0xff);
        const Bytes packed = packedSubject("A");
        const Bytes bytes =
            message({joined({{static_cast<uint8_t>(nameBytes)}, name, {2, 121}, packed})});
        EXPECT_EQ(scan(bytes, true),
                  (Scanned{0, nameBytes < 4 ? Lines() : charged("A", bytes.size()), {}}));
    }
}

// A length word that doesn't even cover itself: the next field lies within it.
TEST(Scan, StaysInStepWithLengthsBelowTheirOwnWord) {
    const Bytes cases[] = {
        {0, 7, 121, 0, 0, 0},                    // 00 00 00
        {0, 7, 121, 0, 1, 'n', 7, 0},            // 01 n 07 00
        {0, 7, 121, 0, 2},                       // nothing
        {0, 7, 122, 0, 0, 0, 0, 7, 0},           // 00 00 00, 00 07 00
        {0, 7, 122, 0, 0, 0, 3, 1, 2, 3, 7, 0},  // 03 01 02 03 07 00
        {0, 7, 122, 0, 0, 0, 4},                 // nothing
    };
    for (const Bytes& odd : cases) {
        SCOPED_TRACE(hexText(odd));
        const Bytes bytes = message({odd, subjectOf("A")});
        EXPECT_EQ(scan(bytes, true), (Scanned{0, charged("A", bytes.size()), {}}));
        EXPECT_EQ(scan(bytes, false), (Scanned{0, charged("A", bytes.size()), {}}));
    }
}

const std::string kTooSmall = "OSKA payload too small to contain message from 10.0.0.1";
const std::string kMagic = "Invalid message from 10.0.0.1 - bad magic";
const std::string kLength = "Invalid message from 10.0.0.1 - invalid message length";
const std::string kTooLong = "Invalid message from 10.0.0.1 - message length greater than payload";
const std::string kField = "Invalid message from 10.0.0.1 - invalid field";
const std::string kSubject = "Invalid message from 10.0.0.1 - corrupt subject field";

TEST(Scan, TellsShortfallsOnlyWhenStrict) {
    const Bytes ab = subjectOf("A.B");
    const Bytes whole = message({ab});
    const struct {
        const char* name;
        Bytes payload;
        Lines charged;
        std::string told;
    } cases[] = {
        {"7 bytes", cut(message({}), 7), {}, kTooSmall},
        {"stray bytes", joined({whole, {1, 2, 3, 4}}), charged("A.B", 24), kTooSmall},
        {"name runs into the next message", joined({message({{9, 'a', 'b'}}), whole}), {}, kField},
        {"half a 16-bit length", message({{0, 7, 121, 0}}), {}, kField},
        {"three quarters of a length", message({{0, 7, 122, 0, 0, 0}}), {}, kField},
        {"widest length", message({{0, 7, 122, 255, 255, 255, 255, 1}}), {}, kField},
        {"field behind the subject cut", joined({message({ab, {0}}), whole}), charged("A.B", 25),
         kField},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(scan(c.payload, true), (Scanned{1, c.charged, {c.told}}));
        EXPECT_EQ(scan(c.payload, false), (Scanned{0, c.charged, {}}));
    }
}

TEST(Scan, ChargesMessagesThatRunOnWhenNotStrict) {
    const Bytes whole = message({subjectOf("A.B"), field(named("x"), 11, be32(5))});
    for (const uint32_t declared : {35u, 36u, 1000000u, 0xffffffffu}) {
        SCOPED_TRACE(declared);
        const Bytes payload = patched(whole, 0, be32(declared));
        EXPECT_EQ(scan(payload, true), (Scanned{1, {}, {kTooLong}}));
        EXPECT_EQ(scan(payload, false), (Scanned{0, charged("A.B", declared), {}}));
    }
}

TEST(Scan, TellsDamageInAnyCase) {
    const Bytes ab = packedSubject("A.B");
    const auto sub = [](uint8_t sizeClass, const Bytes& rest) {
        return message({joined({{4, 's', 'u', 'b', 0, 2, sizeClass}, rest})});
    };
    const auto shortOfMagic = [](size_t at) { return patched(message({}), at, {0}); };
    const struct {
        const char* name;
        Bytes payload;
        std::string told;
    } cases[] = {
        {"magic, last byte", shortOfMagic(7), kMagic},
        {"magic before length", Bytes(8), kMagic},
        {"length 7", patched(message({}), 0, be32(7)), kLength},
        {"size class 123", message({{0, 7, 123}}), kField},
        {"short subject", sub(9, ab), kSubject},
        {"32-bit subject", sub(122, {0, 0, 0, 9, 2, 3, 'A', 0, 0}), kSubject},
        {"length 0 of a subject", sub(121, {0, 0}), kSubject},
        {"elements without bytes", sub(121, {0, 3, 1}), kSubject},
        {"too many elements", sub(121, patched(ab, 2, {3})), kSubject},
        {"element beyond the end", sub(121, patched(ab, 6, {4})), kSubject},
        {"subject of 256 bytes", sub(121, joined({{1, 0, 1, 253}, Bytes(252)})), kSubject},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(scan(c.payload, true), (Scanned{1, {}, {c.told}}));
        EXPECT_EQ(scan(c.payload, false), (Scanned{1, {}, {c.told}}));
        // What came ahead stays charged, what follows is never looked at.
        const Bytes between = joined({message({subjectOf("A.B")}), c.payload, busMessage("C")});
        EXPECT_EQ(scan(between, true), (Scanned{1, charged("A.B", 24), {c.told}}));
    }
}

TEST(Scan, StandsACutAtEachByte) {
    const Bytes first = busMessage("A.B");
    const Bytes second = busMessage("_PM.INFO.SYSTEM.HOST.x");
    const Bytes payload = joined({first, second});
    const size_t firstCharged = 8 + 7 + packedSubject("A.B").size();
    const size_t secondCharged = first.size() + 15 + packedSubject("_PM.INFO.SYSTEM.HOST.x").size();
    for (size_t sizeBytes = 0; sizeBytes <= payload.size(); ++sizeBytes) {
        SCOPED_TRACE(sizeBytes);
        const auto expected = [&](size_t firstFrom, size_t secondFrom) {
            Lines lines;
            if (sizeBytes >= firstFrom) lines = charged("A.B", first.size());
            if (sizeBytes >= secondFrom) {
                lines = both(lines, charged("_PM.INFO.SYSTEM.HOST.x", second.size()));
            }
            if (sizeBytes == payload.size()) {
                lines.push_back("  held 1 in " + std::to_string((second.size() + 3) / 4 * 4));
            }
            return lines;
        };
        const Bytes inHand = cut(payload, sizeBytes);
        EXPECT_EQ(scan(inHand, false), (Scanned{0, expected(firstCharged, secondCharged), {}}));

        const bool sound =
            sizeBytes == 0 || sizeBytes == first.size() || sizeBytes == payload.size();
        const Scanned strict = scan(inHand, true);
        EXPECT_EQ(strict.result, sound ? 0 : 1);
        EXPECT_EQ(strict.charged, expected(first.size(), payload.size()));
        EXPECT_EQ(strict.logged.size(), sound ? 0u : 1u);
    }
}

}  // namespace
