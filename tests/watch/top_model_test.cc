#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "lib/base/bytes.h"
#include "tests/watch/snapshot_maker.h"
#include "watch/core/text.h"
#include "watch/top/model.h"

namespace {

constexpr size_t kRoom = 5;
constexpr const char* kGroup = "239.1.1.1";

struct TopModelTest : testing::Test {
    TopModelTest() { topInit(model); }

    void press(std::string_view keys) {
        for (const char key : keys)
            press(static_cast<uint8_t>(key));
    }

    void press(uint32_t key) {
        topPress(model, key, kRoom);
        topArrange(model, kRoom);
    }

    void take(const SnapHeader& snapshot) {
        topTake(model, snapshot);
        topArrange(model, kRoom);
    }

    std::string nameOf(const PaneLine& line) const {
        const TopRows& rows = topRows(model);
        if (line.host != PaneLine::kNoHost) {
            const TopHost& host = rows.hosts[line.host];
            const char* const sides[] = {"", ">", "<"};
            return sides[static_cast<size_t>(host.side)] + std::to_string(host.address & 0xff);
        }
        const TopRow& row = rows.rows[line.row];
        if (!topTableInfo(rows.table).hasSubjects) return std::to_string(row.shownPort);
        char text[kSafeSubjectBytes];
        return std::string(subjectSafeText(rowSubject(rows, row), text));
    }

    // All lines, the one under the cursor in brackets.
    std::string shown() const {
        const Pane& pane = topPane(model);
        std::string all;
        for (size_t at = 0; at < paneLineCount(pane); ++at) {
            const std::string name = nameOf(paneLine(pane, at));
            all += (all.empty() ? "" : " ") + (at == pane.cursor ? "[" + name + "]" : name);
        }
        return all;
    }

    TopModel model;
};

// Ports 1 to 9, of which each has `data` of its digit.
SnapshotMaker portsWith(std::string_view digits) {
    SnapshotMaker maker;
    for (uint16_t port = 1; const char digit : digits) {
        if (digit != '-')
            maker.host(port, kGroup, "10.0.0.1").data = static_cast<uint64_t>(digit - '0');
        ++port;
    }
    return maker;
}

// Each step: keys, and the data of the ports an interval later; none where no interval ends.
TEST_F(TopModelTest, TheCursorStaysAtTheTopOrWithItsRowAndAFrozenScreenWithItsInterval) {
    const char* const steps[][3] = {
        {"", "123", "[3] 2 1"},     {"", "321", "[1] 2 3"},  // not moved: at the top
        {"j", "321", "1 [2] 3"},                             // moved: with its row
        {"", "391", "[2] 1 3"},     {"", "319", "3 1 [2]"},  //
        {"", "3-19", "4 1 3 [2]"},                           // silent, and still there
        {"k", "3-19", "4 1 [3] 2"}, {"g", "9-19", "[1] 4 3 2"}, {"G", "9-19", "1 4 3 [2]"},
        {"i", "9-19", "[2] 3 1 4"},  // the order turned: places stay for equal values
        {" ", "5-67", "[2] 3 1 4"}, {"i", "", "1 4 3 [2]"},  // frozen
        {" ", "", "4 3 1 [2]"},
    };
    int32_t seconds = 10;
    for (const auto& [keys, data, wanted] : steps) {
        SCOPED_TRACE(wanted);
        press(keys);
        SnapshotMaker maker = portsWith(data);
        if (data[0] != '\0') take(maker.at(seconds += 2));
        EXPECT_EQ(shown(), wanted);
    }
    model.isLive = false;  // a saved capture is paused by its reader
    press(" ");
    SnapshotMaker last = portsWith("1");
    take(last.at(100));
    EXPECT_TRUE(model.isHeld);
    EXPECT_EQ(topState(model).head.time.seconds, 100);
}

TEST_F(TopModelTest, SilentRowsGoAfterTenMinutesAndFirstWhereRoomIsShort) {
    SnapshotMaker both = portsWith("12");
    SnapshotMaker one = portsWith("1");
    take(both.at(1000));
    take(one.at(1000 + kRowKeepSeconds - 1));
    EXPECT_EQ(shown(), "[1] 2");
    take(one.at(1000 + kRowKeepSeconds));
    EXPECT_EQ(shown(), "[1]");

    TopRows rows{.table = TopTable::kMulticast};
    TopRows spare = rows;
    Trail trail{.columns = topTableInfo(rows.table).columnCount};
    const std::pair<const char*, const char*> steps[] = {
        {"11111", "123+2"},
        {"-1-11", "2+2"},  // all silent ones go; the next interval has room
        {"-1-11", "245+0"}};
    for (const auto& [data, wanted] : steps) {
        SnapshotMaker maker = portsWith(data);
        rowsTake(rows, spare, trail, maker.at(1000), 2, 3);
        std::string ports;
        for (const TopRow& row : rows.rows)
            ports += std::to_string(row.port);
        EXPECT_EQ(ports + "+" + std::to_string(rows.leftOut), wanted);
    }
}

TEST_F(TopModelTest, EveryColumnSorts) {
    SnapshotMaker maker;
    maker.subject(7501, "239.1.1.1", {"B"}, "10.0.0.1", 5);
    maker.subject(7500, "239.1.1.2", {"C"}, "10.0.0.1", 1);
    maker.subject(7500, "239.1.1.2", {"A", "Z"}, "10.0.0.1", 9);
    maker.subject(7500, "239.1.1.3", {"A"}, "10.0.0.1", 5);
    press("4");
    take(maker.at(10));
    // Messages and bytes, most first and equal ones by port; port; group; subject.
    for (const char* const order : {"[A.Z] A B C", "[A.Z] A B C", "[A.Z] C A B", "[B] A.Z C A",
                                    "[A] A.Z B C", "[A.Z] A B C"}) {
        EXPECT_EQ(shown(), order);
        press(kKeyRight);
    }
    press("<<i");
    EXPECT_EQ(shown(), "[C] B A.Z A");
}

TEST_F(TopModelTest, AnOpenRowHasItsHostsInItsColumnsOrder) {
    SnapshotMaker maker;
    maker.host(1, kGroup, "10.0.0.1").data = 1;
    maker.host(1, kGroup, "10.0.0.2").data = 3;
    maker.host(1, kGroup, "10.0.0.3").reliability = 60;
    maker.host(2, kGroup, "10.0.0.4").data = 9;
    take(maker.at(10));
    press("j\r");
    EXPECT_EQ(shown(), "2 [1] 2 1 3");
    press("jj");
    maker.host(2, kGroup, "10.0.0.5").data = 1;
    maker.host(3, kGroup, "10.0.0.5").data = 11;
    take(maker.at(12));
    EXPECT_EQ(shown(), "3 2 1 2 [1] 3");  // at its place below its row
    press("<<<");                         // past the group and the port: the reliability
    EXPECT_EQ(shown(), "1 3 [1] 2 2 3");
    press("\r");
    EXPECT_EQ(shown(), "[1] 2 3");
}

TEST_F(TopModelTest, HostsOfPortsHaveTwoSidesThatStayTogether) {
    SnapshotMaker maker;
    maker.servicePort(7600, 7500);
    maker.retransmission(7600, "10.0.0.1").rreqSent = 2;
    maker.retransmission(7600, "10.0.0.2").rreqRecv = 5;
    maker.pointToPoint(7600, "10.0.0.3").dataRecv = 1;
    take(maker.at(10));
    press("2\r");
    EXPECT_EQ(shown(), "[7500] <2 >2 <1 >1");
    EXPECT_EQ(rowNumbers(topRows(model), 0)[0], 2u);  // what was sent
    press("3\r");
    EXPECT_EQ(shown(), "[7600] <3 >3");
}

TEST_F(TopModelTest, FiltersWhileOneTypes) {
    SnapshotMaker maker;
    maker.subject(7500, kGroup, {"PRICES", "GOLD"}, "10.0.0.1", 5);
    maker.subject(7500, kGroup, {"PRICES", "OIL", "7501"}, "10.0.0.15", 4);
    maker.subject(7501, "239.1.1.2", {"A.B", "x\x1b"}, "10.0.1.1", 3);
    maker.subject(7501, "239.1.1.2", {"A"}, "10.0.1.1", 2);
    take(maker.at(10));
    const std::pair<const char*, const char*> cases[] = {
        {"PRICES.*", "PRICES.GOLD"},
        {"PRICES.>", "PRICES.GOLD PRICES.OIL.7501"},
        {"PRICES.*.", "PRICES.GOLD"},  // the next element is still to be typed
        {"*.*", "PRICES.GOLD A\\x2eB.x\\x1b"},
        {">", "PRICES.GOLD PRICES.OIL.7501 A\\x2eB.x\\x1b A"},
        {"PRICES.GOLD.>", ""},
        {"7501", "PRICES.OIL.7501 A\\x2eB.x\\x1b A"},
        {"239.1.1.2", "A\\x2eB.x\\x1b A"},
        {"10.0.0.", "PRICES.GOLD PRICES.OIL.7501"},
        {"10.0.0.1", "PRICES.GOLD"},
        {"x1B", "A\\x2eB.x\\x1b"},
        {"10.0.1.77/24 !x", "A"},
        {":7501", "A\\x2eB.x\\x1b A"},
        {":20000 oil", "PRICES.OIL.7501"},
        {"msgs>=2 bytes<2.5", "PRICES.OIL.7501"},
        {"messages!=2.5 !msgs=1", "PRICES.OIL.7501 A\\x2eB.x\\x1b"},
        {"msgs>0.001k", "PRICES.GOLD PRICES.OIL.7501 A\\x2eB.x\\x1b"},
        {"\"PRICES.*\"", ""},
        {"!10.0.0.1 pri", "PRICES.OIL.7501"},
    };
    press("4");
    for (const auto& [text, wanted] : cases) {
        press(std::string("/\x15") + text + "\r");
        std::string rows = shown();
        std::erase_if(rows, [](char byte) { return byte == '[' || byte == ']'; });
        EXPECT_EQ(rows, wanted) << text;
    }
    for (const auto& [text, fault] : {std::pair{"999.1.1.1", "999.1.1.1 is no address"},
                                      {"10.0/8", "10.0/8 is no network"},
                                      {"gold 10.0.0.0/33", "10.0.0.0/33 is no network"},
                                      {"!:70000", ":70000 is no port"},
                                      {"gaps>0", "no column gaps here"}}) {
        press(std::string("/\x15") + text + "\r");
        EXPECT_EQ(topPane(model).filter.fault, fault);
        EXPECT_EQ(shown(), "") << text;
    }
    press("/\x15!10.0.0.1 pri\r");

    // Escape brings back what was; a further one clears it.
    press("/\x15gold");
    press(kKeyBackspace);
    for (const char* wanted : {"gol", "!10.0.0.1 pri", ""}) {
        EXPECT_EQ(topPane(model).filter.text, wanted);
        press(kKeyEscape);
    }
    press("1/*\r");
    EXPECT_EQ(shown(), "");  // no subjects here
}

TEST_F(TopModelTest, WhatIsTypedIsWholeCharactersAndNotWithoutEnd) {
    press("/");
    for (const uint32_t key : {0xe9u, 0x20acu, 0x1f600u, uint32_t{kKeyPageUp}, 0x9bu})
        press(key);
    EXPECT_EQ(topPane(model).filter.text, "é€😀");
    press(kKeyBackspace);
    press(kKeyBackspace);
    EXPECT_EQ(topPane(model).filter.text, "é");
    press(std::string(1000, 'x'));
    EXPECT_LE(topPane(model).filter.text.size(), kMostFilterBytes);
}

TEST_F(TopModelTest, ScrollKeepsTheCursorInSight) {
    SnapshotMaker maker = portsWith("987654321");
    take(maker.at(10));
    const struct {
        uint32_t key;
        size_t cursor, scroll;
    } steps[] = {{kKeyPageDown, 5, 1}, {kKeyPageDown, 8, 4}, {kKeyDown, 8, 4}, {kKeyUp, 7, 4},
                 {kKeyPageUp, 2, 2},   {kKeyHome, 0, 0},     {kKeyUp, 0, 0},   {kKeyEnd, 8, 4}};
    for (const auto& [key, cursor, scroll] : steps) {
        press(key);
        EXPECT_EQ(topPane(model).cursor, cursor);
        EXPECT_EQ(topPane(model).scroll, scroll);
    }
}

// Two subjects that look the same, as elements end at their first NUL, are two rows for good.
TEST_F(TopModelTest, SubjectsThatLookTheSameStayApart) {
    using namespace std::string_literals;
    press("4");
    const struct {
        uint64_t first, second;
        const char* wanted;
    } intervals[] = {{1, 2, "[A] A\\x00Y A\\x00X"},
                     {1, 0, "[A] A\\x00X A\\x00Y"},
                     {0, 2, "[A] A\\x00Y A\\x00X"}};
    for (const auto& [first, second, wanted] : intervals) {
        SnapshotMaker maker;
        if (first != 0) maker.subject(7500, kGroup, {"A\0X"s}, "10.0.0.1", first);
        if (second != 0) maker.subject(7500, kGroup, {"A\0Y"s}, "10.0.0.1", second);
        maker.subject(7500, kGroup, {"A"s}, "10.0.0.1", 3);
        SnapHeader& snapshot = maker.at(10);
        const SnapNet& net = snapshot.ports[0].nets[0];
        std::reverse(net.subjects, net.subjects + net.subjectCount);  // as a Snapshot may have them
        take(snapshot);
        EXPECT_EQ(shown(), wanted);
    }
}

TEST(Trail, FollowsARowUntilItsEntriesAreOverwritten) {
    Trail trail{.columns = 1, .mostBytes = 5 * (sizeof(TrailLink) + sizeof(float))};
    uint64_t mine = kNoEntry, other = kNoEntry;
    for (const uint64_t number : {10, 0, 30, 40}) {
        trailBegin(trail);
        if (number != 0) mine = trailAdd(trail, mine, std::vector<uint64_t>{number}, 2);
        other = trailAdd(trail, other, std::vector<uint64_t>{1}, 2);
    }
    const auto read = [&](uint64_t entry, uint64_t interval, size_t count) {
        std::vector<float> series(count, -1);
        EXPECT_EQ(trailRead(trail, entry, interval, 0, series),
                  std::min<uint64_t>(count, interval));
        return series;
    };
    // Seven entries came, the first two of them are gone.
    EXPECT_EQ(read(mine, 4, 4), (std::vector<float>{0, 0, 15, 20}));
    EXPECT_EQ(read(mine, 6, 3), (std::vector<float>{20, 0, 0}));
    EXPECT_EQ(read(other, 4, 6), (std::vector<float>{0, 0, 0, 0.5, 0.5, 0.5}));
    EXPECT_EQ(read(kNoEntry, 4, 2), (std::vector<float>{0, 0}));
}

}  // namespace
