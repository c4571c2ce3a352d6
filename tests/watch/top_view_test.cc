#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/watch/snapshot_maker.h"
#include "watch/top/replay_pace.h"
#include "watch/top/view.h"

namespace {

using Lines = std::vector<std::string>;

struct TopViewTest : testing::Test {
    TopViewTest() {
        std::setlocale(LC_CTYPE, "C.UTF-8");
        setenv("TZ", "UTC", 1);
        tzset();
        topInit(model);
        model.source = "eth0";
    }

    // The screen's lines, without blanks at their ends.
    Lines draw(ScreenSize size) {
        topArrange(model, viewRoom(size));
        viewDraw(model, size, screen);
        Lines lines;
        for (const ScreenLine& line : screen.lines) {
            EXPECT_LE(line.columns, size.columns) << line.text;
            lines.push_back(line.text.substr(0, line.text.find_last_not_of(' ') + 1));
        }
        EXPECT_EQ(lines.size(), size.lines);
        return lines;
    }

    void press(std::string_view keys, size_t room = 5) {
        for (const char key : keys)
            topPress(model, static_cast<uint8_t>(key), room);
    }

    // The styles of a line, a letter for each byte that isn't a blank.
    std::string styles(size_t line) const {
        std::string all;
        size_t at = 0;
        for (const StyledPiece& piece : screen.lines[line].pieces) {
            for (size_t end = at + piece.bytes; at < end; ++at) {
                if (screen.lines[line].text[at] == ' ') continue;
                all += "pSfhHT"[static_cast<size_t>(piece.style)];
            }
        }
        return all;
    }

    TopModel model;
    Screen screen;
};

// A group with two senders and trouble, one that falls silent, and what else a bus has.
void fill(SnapshotMaker& maker, bool hasSecond) {
    SnapHost& host = maker.host(7500, "239.1.1.1", "10.0.0.1", 20000);
    host.data = 246913;
    host.bytes = 24;
    host.gaps = 1;
    host.reliability = 60;
    maker.host(7500, "239.1.1.1", "255.255.255.255", 65535).data = 1;
    if (hasSecond) maker.host(7501, "239.100.100.100", "10.0.0.1").nulls = 3;
    maker.pointToPoint(7500, "10.0.0.1", 7).dataSent = 4;
    maker.pointToPoint(7500, "10.0.0.2").dataRecv = 4;
    maker.subject(7500, "239.1.1.1", {"PRICES", "GOLD"}, "10.0.0.1", 10);
    maker.subject(7500, "239.1.1.1", {"漢字", "é"}, "10.0.0.1", 5);
    maker.head.frames = 200;
    maker.head.oskaPackets = 100;
    maker.head.faults[3].packets = 7;
    maker.head.source.kernelDrops = 2;
}

// top_views.txt has sections "@ COLUMNS LINES KEYS" (\r for Enter) and the screen then.
TEST_F(TopViewTest, ScreensAreThoseOfTheFile) {
    SnapshotMaker before, maker;
    fill(before, true);
    fill(maker, false);
    topTake(model, before.at(1700000000));
    topTake(model, maker.at(1700000002));

    std::ifstream file(TOP_VIEWS);
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    while (!line.empty()) {
        SCOPED_TRACE(line);
        std::istringstream head(line.substr(1));
        ScreenSize size{};
        std::string keys;
        head >> size.columns >> size.lines >> keys;
        press(keys == "\\r" ? "\r" : keys);
        Lines wanted;
        while (std::getline(file, line) && !line.starts_with('@'))
            wanted.push_back(line);
        EXPECT_EQ(draw(size), wanted);
        if (keys == "\\r") {
            EXPECT_EQ(styles(8).substr(21), "ppppfffffff");  // zeros are faint
            EXPECT_EQ(styles(6), std::string(styles(6).size(), 'H'));
            EXPECT_EQ(styles(9), std::string(styles(9).size(), 'f'));
            EXPECT_EQ(styles(1), "pppSSSSppppppppTTTpppppppTTTppppppppSSSpp");
        }
        if (!file) break;
    }
    screen.signs = {.isUtf8 = false, .hasBlocks = false};
    press("3r\r");
    EXPECT_EQ(draw({80, 14})[8].substr(0, 16), " > 10.0.0.1:7   ");
    press("4");
    const Lines ascii = draw({80, 14});
    EXPECT_EQ(ascii[7],
              "  7500  239.1.1.1               2.5        2.5  \\xe6\\xbc\\xa2\\xe5\\xad\\x97.~");
    EXPECT_EQ(ascii[12], " Msgs/s ##  4 s, most 5.0");
}

TEST_F(TopViewTest, TheFirstLineSaysWhatTheScreenWaitsFor) {
    EXPECT_EQ(draw({80, 14})[0], " eth0  waiting for the first interval");
    EXPECT_EQ(draw({39, 14})[0], "needs 40 x 10");
    EXPECT_EQ(draw({200, 9})[0], "needs 40 x 10");
    draw({0, 0});

    SnapshotMaker maker;
    fill(maker, true);
    maker.head.source.readBytes = 1;
    maker.head.source.fileBytes = 3;
    topTake(model, maker.at(1700000000));
    press(" ");
    EXPECT_EQ(draw({40, 10})[0], " 22:13:20  Bus 50.0/s            FROZEN");
    press(" ");
    model.isLive = false;
    const std::pair<const char*, const char*> ends[] = {
        {"+", "33%  x2  replay"}, {" ", "33%  x2  PAUSED"}, {"", "end of file"}};
    for (const auto& [keys, wanted] : ends) {
        press(keys);
        if (keys[0] == '\0') topSetSource(model, {WatchState::kRead, {}, ""});
        EXPECT_TRUE(draw({80, 14})[0].ends_with(std::string("  ") + wanted)) << wanted;
    }

    model.isLive = true;
    topSetSource(model, {WatchState::kWaiting, {}, "it is gone"});
    for (const char* const key : {"j", "k"}) {  // trouble stays
        press(key);
        EXPECT_EQ(draw({80, 14})[13], " waiting for the interface: it is gone");
        EXPECT_TRUE(draw({40, 10})[0].ends_with("  WAITING"));
    }
    topSetSource(model, {WatchState::kLive, {}, ""});

    model.note = "eth0 is down.";
    EXPECT_EQ(draw({80, 14})[13], " eth0 is down.");
    press("/zzz");
    const Lines typed = draw({80, 14});
    EXPECT_EQ(typed[13], " /zzz" + std::string(68, ' ') + "0 of 2");
    EXPECT_TRUE(screen.hasCursor);
    EXPECT_EQ(screen.cursorColumn, 5u);
    EXPECT_EQ(typed[6], "        No row passes the filter.");
    press(std::string(150, 'y'));
    EXPECT_NE(draw({80, 14})[13].find("yyy  0 of 2"), std::string::npos);
}

TEST_F(TopViewTest, ACaptureWithNothingOfTheBusSaysWhatItHas) {
    SnapshotMaker none, maker;
    fill(maker, true);
    none.head.source.notRead[2] = 2;
    none.head.source.notRead[3] = 2;
    topTake(model, none.at(1700000002));
    EXPECT_EQ(draw({80, 14})[2], " none of 4 frames is the bus's: 2 not IP, 2 IPv6");
    EXPECT_EQ(styles(2).find_first_not_of('T'), std::string::npos);
    EXPECT_EQ(draw({40, 10})[0], " 22:13:22 none of 4 frames is the bus's…");
    topTake(model, maker.at(1700000004));
    EXPECT_EQ(draw({80, 14})[2], " not the bus's: 2 not IP, 2 IPv6");
}

TEST_F(TopViewTest, HelpScrollsToItsEnd) {
    press("?");
    for (int i = 0; i < 100; ++i) {
        draw({40, 10});
        topPress(model, kKeyDown, 5);
    }
    EXPECT_EQ(draw({40, 10})[8], "              in the column that sorts.");
}

TEST_F(TopViewTest, TextIsCutToItsColumns) {
    const struct {
        const char* text;
        size_t columns;
        const char* wanted;
    } cases[] = {
        {"abc", 5, "abc  "},     {"abcdef", 4, "abc…"},
        {"漢字", 4, "漢字"},     {"漢字", 3, "漢…"},
        {"漢字x", 4, "漢… "},    {"e\u0301\u0301\u0301", 9, "e\u0301\u0301\\xcc\\x81"},
        {"\x1b[", 6, "\\x1b[ "}, {"\u0301x", 9, "\\xcc\\x81x"},
    };
    for (const auto& [text, columns, wanted] : cases) {
        screenClear(screen, {12, 1});
        screenPutIn(screen, 0, Style::kPlain, text, columns);
        EXPECT_EQ(screen.lines[0].text, wanted);
    }
    screenClear(screen, {6, 1});
    screenPutRight(screen, 0, Style::kPlain, "12", 4);
    screenPut(screen, 0, Style::kHere, "漢字");  // half a character has no place
    EXPECT_EQ(screen.lines[0].text, "  12漢");
}

TEST(ReplayPace, FollowsTheCapturesTimeAtItsSpeed) {
    ReplayPace pace;
    EXPECT_EQ(paceWait(pace, 100, 5000), 0);
    paceShow(pace, 100, 5000);
    EXPECT_EQ(paceWait(pace, 100, 5010), 10);
    EXPECT_EQ(paceWait(pace, 104, 5010), 6);
    paceSet(pace, 104, 2, false);
    EXPECT_EQ(paceWait(pace, 105, 5010), 2);
    paceSet(pace, 105, 2, true);
    EXPECT_EQ(paceWait(pace, 500, 5010), HUGE_VAL);
    paceSet(pace, 500, 4, false);
    EXPECT_EQ(paceWait(pace, 501, 5010), 0);
    // After a slow reading nothing is caught up with.
    paceShow(pace, 900, 5010);
    EXPECT_EQ(paceWait(pace, 900, 5014), 1);
}

TEST_F(TopViewTest, WhatIsDrawnCanBeClicked) {
    SnapshotMaker maker;
    fill(maker, true);
    topTake(model, maker.at(1700000000));
    const auto clickOn = [&](const std::string& text) {
        const Lines lines = draw({80, 24});
        const auto has = [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        };
        const auto found = std::ranges::find_if(lines, has);
        ASSERT_NE(found, lines.end()) << text;
        const auto line = static_cast<size_t>(found - lines.begin());
        const ScreenSpot* const spot = screenSpotAt(screen, {found->find(text), line});
        if (spot != nullptr) topClick(model, *spot);
    };
    clickOn("Subjects");
    EXPECT_EQ(model.table, TopTable::kSubjects);
    clickOn("Multicast");
    for (const bool isAscending : {false, true}) {
        clickOn("Gaps");
        EXPECT_EQ(topPane(model).sortColumn, kSortNumbers + 5);
        EXPECT_EQ(topPane(model).isAscending, isAscending);
    }
    for (const bool hasOpen : {false, true}) {
        clickOn("7500");
        EXPECT_EQ(topPane(model).cursor, 1u);
        EXPECT_EQ(topPane(model).hasOpen, hasOpen);
    }
    topTake(model, maker.at(1700000002));
    topClick(model, {SpotKind::kRow, 0, 7, 0, 80});  // the row may be another by now
    EXPECT_EQ(topPane(model).cursor, 1u);
    clickOn("? help");  // a hint
    EXPECT_EQ(model.mode, TopMode::kTables);
}

}  // namespace
