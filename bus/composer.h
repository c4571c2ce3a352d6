// The messages that a command sends, one after the other: those of the command line's fields, a
// number of times, or one for each line of the standard input.
//
// A message is built once and sent again where nothing in it changes; otherwise it is emptied and
// built again, which allocates nothing in the long run.
//
// Threads: one user at a time.

#pragma once

#include <cstdint>
#include <string>

#include "bus/common.h"
#include "bus/line_input.h"
#include "bus/settings.h"
#include "programs/message_json.h"

struct Composer {
    const BusSettings& settings;
    uint64_t most;         // messages in all
    std::string pad = {};  // the field's bytes
    LineInput input = {};
    JsonReader reader = {};
    uint64_t made = 0;
    bool toInbox = false;  // was any of them on its way to an inbox?

    // Of lines of JSON.
    int64_t time = 0;             // that of the last line, in nanoseconds since 1970; with --pace
    uint64_t lacking = 0;         // that carry no whole message, and were skipped
    uint64_t repliesLeftOut = 0;  // which led elsewhere than the messages
};

// A place for a message, used again and again.
struct ComposerSlot {
    OwnedMessage msg;
    bool isBuilt = false;  // with all that doesn't change
};

[[nodiscard]] Composer composerOpen(const BusSettings& settings, uint64_t most);

enum class ComposeResult {
    kMade,
    kNone,  // the next line isn't there yet
    kEnd,
    kStopped,
    kFailed,  // reported
};

// With `mayWait` kNone isn't answered.
[[nodiscard]] ComposeResult composerNext(Composer& composer, ComposerSlot& slot, bool mayWait);

// Adds the fields "pad" and "seq", where they are asked for.
[[nodiscard]] pelmoStatus composerAddExtras(Composer& composer, pelmoMsg* msg);
