#include "watch/top/model.h"

#include <algorithm>
#include <new>
#include <utility>

#include "watch/core/span.h"
#include "watch/top/tables.h"

namespace {

constexpr size_t kWheelLines = 3;

Pane& paneOf(TopModel& model) {
    return model.panes[static_cast<size_t>(model.table)];
}

// 0 where a capture's stamps didn't change.
double intervalSeconds(const SnapHeader& snapshot) {
    return secondsOf(snapshot.span.elapsedNanoseconds);
}

TopHead headOf(const SnapHeader& snapshot) {
    TopHead head = {.isThere = true,
                    .time = snapshot.thisTime,
                    .seconds = intervalSeconds(snapshot),
                    .frames = snapshot.frames,
                    .busPackets = snapshot.oskaPackets,
                    .drops = snapshot.source.kernelDrops + snapshot.source.interfaceDrops,
                    .readBytes = snapshot.source.readBytes,
                    .fileBytes = snapshot.source.fileBytes};
    for (const FaultCount& count : snapshot.faults) {
        head.faults += count.packets;
    }
    return head;
}

void makeStale(TopModel& model) {
    for (Pane& pane : model.panes) {
        pane.isStale = true;
    }
}

void takeAll(TopModel& model, const SnapHeader& snapshot) {
    const double seconds = intervalSeconds(snapshot);
    for (size_t table = 0; table < kTopTables; ++table) {
        rowsTake(model.live.tables[table], model.spare[table], model.trails[table], snapshot,
                 seconds);
    }
    model.live.head = headOf(snapshot);
    TopSeen& seen = model.live.seen;
    seen.busPackets += snapshot.oskaPackets;
    for (size_t kind = 0; kind < kSnapNotReadKinds; ++kind)
        seen.notRead[kind] += snapshot.source.notRead[kind];
}

bool isFrozen(const TopModel& model) {
    return model.isHeld && model.isLive;
}

void hold(TopModel& model) {
    if (model.isAtEnd) return;
    if (model.isLive && !model.isHeld) model.frozen = model.live;
    model.isHeld = !model.isHeld;
    makeStale(model);
}

void showTable(TopModel& model, size_t table) {
    model.table = static_cast<TopTable>(table % kTopTables);
}

// The column that sorts already turns its order round.
void sortByColumn(Pane& pane, size_t column) {
    const bool isSame = std::exchange(pane.sortColumn, column) == column;
    pane.isAscending = isSame ? !pane.isAscending : column < kSortNumbers;
    pane.isStale = true;
}

// A click on the row under the cursor opens it.
void clickRow(Pane& pane, const TopRows& rows, size_t line) {
    if (line >= paneLineCount(pane)) return;
    if (pane.cursor == line) return paneToggle(pane, rows);
    paneMove(pane, rows, line);
}

void sortBy(TopModel& model, size_t step) {
    Pane& pane = paneOf(model);
    const size_t columns = paneColumns(model.table);
    do {
        pane.sortColumn = (pane.sortColumn + columns + step) % columns;
    } while (!paneHasColumn(model.table, pane.sortColumn));
    pane.isAscending = pane.sortColumn < kSortNumbers;
    pane.isStale = true;
}

// Numbers are compared as they are shown. Before each arrangement.
void scaleFilter(TopModel& model) {
    Pane& pane = paneOf(model);
    const double seconds = topState(model).head.seconds;
    const double scale = model.showsRates && seconds > 0 ? 1 / seconds : 1;
    if (std::exchange(pane.filter.scale, scale) != scale) pane.isStale = true;
}

void setFilter(Pane& pane, TopFilter filter) {
    pane.filter = std::move(filter);
    pane.isStale = true;
}

void goBack(TopModel& model) {
    Pane& pane = paneOf(model);
    if (!pane.filter.text.empty()) return setFilter(pane, {});
    if (pane.hasOpen) paneToggle(pane, topRows(model));
}

void move(TopModel& model, TopAction action, size_t room) {
    Pane& pane = paneOf(model);
    const size_t page = std::max<size_t>(room, 1);
    size_t line = pane.cursor;
    if (action == TopAction::kUp) line -= std::min<size_t>(line, 1);
    if (action == TopAction::kDown) line += 1;
    if (action == TopAction::kPageUp) line -= std::min(line, page);
    if (action == TopAction::kPageDown) line += page;
    if (action == TopAction::kWheelUp) line -= std::min(line, kWheelLines);
    if (action == TopAction::kWheelDown) line += kWheelLines;
    if (action == TopAction::kFirst) line = 0;
    if (action == TopAction::kLast) line = paneLineCount(pane);
    paneMove(pane, topRows(model), line);
}

TopAnswer act(TopModel& model, TopAction action, size_t room) {
    const auto table = static_cast<size_t>(model.table);
    switch (action) {
        case TopAction::kNone:
            break;
        case TopAction::kUp:
        case TopAction::kDown:
        case TopAction::kPageUp:
        case TopAction::kPageDown:
        case TopAction::kWheelUp:
        case TopAction::kWheelDown:
        case TopAction::kFirst:
        case TopAction::kLast:
            move(model, action, room);
            break;
        case TopAction::kTable1:
        case TopAction::kTable2:
        case TopAction::kTable3:
        case TopAction::kTable4:
            showTable(model, static_cast<size_t>(action) - static_cast<size_t>(TopAction::kTable1));
            break;
        case TopAction::kNextTable:
            showTable(model, table + 1);
            break;
        case TopAction::kPreviousTable:
            showTable(model, table + kTopTables - 1);
            break;
        case TopAction::kSortLeft:
            sortBy(model, paneColumns(model.table) - 1);
            break;
        case TopAction::kSortRight:
            sortBy(model, 1);
            break;
        case TopAction::kSortTurn:
            paneOf(model).isAscending ^= true;
            paneOf(model).isStale = true;
            break;
        case TopAction::kOpen:
            paneToggle(paneOf(model), topRows(model));
            break;
        case TopAction::kFilter:
            model.filterBefore = paneOf(model).filter;
            model.mode = TopMode::kFilter;
            break;
        case TopAction::kBack:
            goBack(model);
            break;
        case TopAction::kRates:
            model.showsRates = !model.showsRates;
            break;
        case TopAction::kHold:
            hold(model);
            break;
        case TopAction::kFaster:
            model.speed = std::min(2 * model.speed, kTopMostSpeed);
            break;
        case TopAction::kSlower:
            model.speed = std::max(model.speed / 2, kTopLeastSpeed);
            break;
        case TopAction::kHelp:
            model.helpScroll = 0;
            model.mode = TopMode::kHelp;
            break;
        case TopAction::kRedraw:
            return TopAnswer::kRedraw;
        case TopAction::kQuit:
            return TopAnswer::kQuit;
    }
    return TopAnswer::kNothing;
}

TopAnswer pressInHelp(TopModel& model, uint32_t key) {
    switch (const TopAction action = topKeyAction(key)) {
        case TopAction::kUp:
        case TopAction::kWheelUp:
            model.helpScroll -= std::min<size_t>(model.helpScroll, 1);
            break;
        case TopAction::kDown:
        case TopAction::kWheelDown:
            ++model.helpScroll;
            break;
        case TopAction::kQuit:
        case TopAction::kRedraw:
            return act(model, action, 0);
        default:
            model.mode = TopMode::kTables;
    }
    return TopAnswer::kNothing;
}

void appendUtf8(std::string& text, uint32_t code) {
    const auto put = [&text](uint32_t byte) { text += static_cast<char>(byte); };
    if (code < 0x80) return put(code);
    if (code < 0x800) {
        put(0xc0 | code >> 6);
    } else if (code < 0x10000) {
        put(0xe0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3f));
    } else {
        put(0xf0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3f));
        put(0x80 | (code >> 6 & 0x3f));
    }
    put(0x80 | (code & 0x3f));
}

void dropCharacter(std::string& text) {
    while (!text.empty() && (static_cast<uint8_t>(text.back()) & 0xc0) == 0x80) {
        text.pop_back();
    }
    if (!text.empty()) text.pop_back();
}

bool isTyped(uint32_t key) {
    return key < kKeyNone && key >= ' ' && (key < 0x7f || key >= 0xa0);
}

void pressInFilter(TopModel& model, uint32_t key, size_t room) {
    Pane& pane = paneOf(model);
    std::string text = pane.filter.text;
    switch (key) {
        case kKeyEnter:
        case '\n':
            model.mode = TopMode::kTables;
            return;
        case kKeyEscape:
            setFilter(pane, model.filterBefore);
            model.mode = TopMode::kTables;
            return;
        case kKeyUp:
        case kKeyDown:
        case kKeyPageUp:
        case kKeyPageDown:
        case kKeyWheelUp:
        case kKeyWheelDown:
            return move(model, topKeyAction(key), room);
        case kKeyBackspace:
        case '\b':
            dropCharacter(text);
            break;
        case kKeyClearLine:
            text.clear();
            break;
        default:
            if (!isTyped(key) || text.size() + 4 > kMostFilterBytes) return;
            appendUtf8(text, key);
    }
    setFilter(pane, filterOf(text, model.table));
    pane.hasCursorKey = false;
}

}  // namespace

void topInit(TopModel& model) {
    for (size_t table = 0; table < kTopTables; ++table) {
        const auto which = static_cast<TopTable>(table);
        model.live.tables[table].table = which;
        model.spare[table].table = which;
        model.trails[table].columns = topTableInfo(which).columnCount;
    }
}

void topSetSource(TopModel& model, const WatchedState& state) {
    const char* const words[] = {"", "LINK DOWN", "WAITING", "", "end of file", "FAILED"};
    const bool isWell = watchStateIsWell(state.state);
    model.state = words[static_cast<size_t>(state.state)];
    model.trouble = isWell ? std::string() : watchedWords(state);
    model.isAtEnd = state.state == WatchState::kRead || state.state == WatchState::kFailed;
    if (!model.isLive && model.isAtEnd) model.isHeld = false;
}

void topTake(TopModel& model, const SnapHeader& snapshot) {
    try {
        takeAll(model, snapshot);
        model.ranOut = false;
    } catch (const std::bad_alloc&) {
        model.ranOut = true;
    }
    if (!isFrozen(model)) makeStale(model);
}

TopAnswer topPress(TopModel& model, uint32_t key, size_t room) {
    model.note.clear();
    scaleFilter(model);
    try {
        paneArrange(paneOf(model), topRows(model));  // an interval may have come since the drawing
        if (model.mode == TopMode::kHelp) return pressInHelp(model, key);
        if (model.mode == TopMode::kTables) return act(model, topKeyAction(key), room);
        pressInFilter(model, key, room);
    } catch (const std::bad_alloc&) {
        model.ranOut = true;
    }
    return TopAnswer::kNothing;
}

void topClick(TopModel& model, const ScreenSpot& spot) {
    Pane& pane = paneOf(model);
    model.note.clear();
    try {
        switch (spot.kind) {
            case SpotKind::kTable:
                return showTable(model, spot.number);
            case SpotKind::kHeading:
                return sortByColumn(pane, spot.number);
            case SpotKind::kRow:
                // An interval that has come since the drawing would move the row away.
                if (!pane.isStale) clickRow(pane, topRows(model), spot.number);
        }
    } catch (const std::bad_alloc&) {
        model.ranOut = true;
    }
}

void topArrange(TopModel& model, size_t room) {
    Pane& pane = paneOf(model);
    scaleFilter(model);
    try {
        paneArrange(pane, topRows(model));
    } catch (const std::bad_alloc&) {
        model.ranOut = true;
        pane.order.clear();
        pane.hosts.clear();
    }
    paneScroll(pane, std::max<size_t>(room, 1));
}

const TopState& topState(const TopModel& model) {
    return isFrozen(model) ? model.frozen : model.live;
}

const TopRows& topRows(const TopModel& model) {
    return topState(model).tables[static_cast<size_t>(model.table)];
}

const Pane& topPane(const TopModel& model) {
    return model.panes[static_cast<size_t>(model.table)];
}
