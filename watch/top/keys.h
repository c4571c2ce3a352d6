// What each key does: one table, from which keys are looked up and the help screen is made.
//
// Threads: constant.

#pragma once

#include <cstdint>
#include <span>

// A key is the character that it types, or one of these, which no character is.
enum TopKey : uint32_t {
    kKeyNone = 0x110000,
    kKeyUp,
    kKeyDown,
    kKeyLeft,
    kKeyRight,
    kKeyPageUp,
    kKeyPageDown,
    kKeyHome,
    kKeyEnd,
    kKeyBackTab,
    kKeyWheelUp,
    kKeyWheelDown,
    kKeyClick,  // where, the terminal knows (watch/top/terminal.h)
};

inline constexpr uint32_t kKeyTab = '\t';
inline constexpr uint32_t kKeyEnter = '\r';
inline constexpr uint32_t kKeyEscape = 0x1b;
inline constexpr uint32_t kKeyBackspace = 0x7f;
inline constexpr uint32_t kKeyClearLine = 'U' & 0x1f;
inline constexpr uint32_t kKeyRedraw = 'L' & 0x1f;

enum class TopAction : uint8_t {
    kNone,
    kUp,
    kDown,
    kPageUp,
    kPageDown,
    kWheelUp,
    kWheelDown,
    kFirst,
    kLast,
    kTable1,
    kTable2,
    kTable3,
    kTable4,
    kNextTable,
    kPreviousTable,
    kSortLeft,
    kSortRight,
    kSortTurn,
    kOpen,
    kFilter,
    kBack,
    kRates,
    kHold,
    kFaster,
    kSlower,
    kHelp,
    kRedraw,
    kQuit,
};

// What keys are about: the help screen has a group for each.
enum class TopKeyGroup : uint8_t { kMove, kShow, kSort, kTime, kProgram };

struct TopKeyRow {
    TopAction action;
    uint32_t keys[3];  // 0 for none
    TopKeyGroup group;
    const char* name;  // of the keys; null where a row nearby names them too
    const char* help;

    // For the screen's last line: a word, null for none; what has the lower rank goes first where
    // there isn't room for all.
    const char* hint;
    int hintRank;
};

[[nodiscard]] std::span<const TopKeyRow> topKeyRows();

[[nodiscard]] TopAction topKeyAction(uint32_t key);
