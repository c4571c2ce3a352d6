// What the screen knows: the rows of the four tables, what of them is looked at, and how. Snapshots
// and keys go in; the view (watch/top/view.h) draws what is there.
//
//     topTake(model, snapshot);          // each interval
//     topPress(model, key);              // each key
//     topArrange(model);                 // before each drawing
//
// A frozen screen keeps a copy of all rows; the live ones go on meanwhile. A saved capture is
// paused instead, by the code that replays it, which reads `isHeld` and `speed`.
//
// Ownership: a model owns all.
//
// Failure: none leaves a call. Where memory runs out `ranOut` is set, until an interval is whole
// again; an interval that finds none isn't shown.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>
#include <string>

#include "trace/counts/snapshot.h"
#include "watch/core/watched.h"
#include "watch/top/keys.h"
#include "watch/top/pane.h"
#include "watch/top/rows.h"
#include "watch/top/screen.h"
#include "watch/top/trail.h"

// The numbers of a whole interval.
struct TopHead {
    bool isThere = false;
    TimeSpec time = {};
    double seconds = 1;
    uint64_t frames = 0, busPackets = 0;
    uint64_t faults = 0;
    uint64_t drops = 0;  // by the kernel and the interface
    uint64_t readBytes = 0, fileBytes = 0;
};

// Since the start.
struct TopSeen {
    uint64_t busPackets = 0;
    uint64_t notRead[kSnapNotReadKinds] = {};
};

struct TopState {
    TopHead head;
    TopSeen seen;
    TopRows tables[kTopTables];
};

enum class TopMode : uint8_t { kTables, kFilter, kHelp };

struct TopModel {
    // Constant after the start.
    bool isLive = true;
    std::string source;  // safe text

    TopState live;
    TopState frozen;
    TopRows spare[kTopTables];
    Trail trails[kTopTables];
    bool ranOut = false;
    bool isAtEnd = false;  // of a saved capture, or of a live one that has failed
    std::string state;     // of the source, for the head; empty while frames come
    std::string trouble;   // safe text, why no frames come; empty where all is well

    TopTable table = TopTable::kMulticast;
    Pane panes[kTopTables];
    TopMode mode = TopMode::kTables;
    TopFilter filterBefore;  // what Escape brings back
    size_t helpScroll = 0;
    bool showsRates = true;
    bool isHeld = false;  // frozen or paused
    double speed = 1;
    std::string note;  // safe text, until the next key
};

inline constexpr double kTopMostSpeed = 1e6;
inline constexpr double kTopLeastSpeed = 1.0 / 64;

void topInit(TopModel& model);

// How the source is now.
void topSetSource(TopModel& model, const WatchedState& state);

// An interval that is over.
void topTake(TopModel& model, const SnapHeader& snapshot);

// What a key asks for beyond what the model does itself.
enum class TopAnswer : uint8_t { kNothing, kRedraw, kQuit };

// `room` is how many lines of rows the screen shows.
TopAnswer topPress(TopModel& model, uint32_t key, size_t room);

// A click on a part of the screen that was drawn last.
void topClick(TopModel& model, const ScreenSpot& spot);

// Brings the table that is looked at into order, and the cursor into sight.
void topArrange(TopModel& model, size_t room);

// What is looked at.
[[nodiscard]] const TopState& topState(const TopModel& model);
[[nodiscard]] const TopRows& topRows(const TopModel& model);
[[nodiscard]] const Pane& topPane(const TopModel& model);
