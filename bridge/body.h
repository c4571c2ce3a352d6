// What carries a message of the bus over NATS: the body in one of two forms, and beside it what the
// body doesn't say.
//
// "wire" is the message's own image, so that nothing of it is lost between two bridges. "json" is
// the line that `pelmobus listen --json` prints, for programs of any language. Either is known by
// its first bytes, so a reader takes both.
//
// The mark of a message says which bridges it came by, by their groups, how the first one numbered
// it and whether it may have been there before. Over NATS it is headers, on the bus the field
// "_bridge", a message with the fields "path", "sequence" and "repeat". A message on its way from
// the bus goes without that field.
//
// All of it comes from outside: a body is checked before it becomes a message, and a mark that
// isn't one counts as none.
//
// Threads: one user of a codec at a time.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lib/pelmo.hpp"
#include "programs/message_json.h"

enum class BodyForm { kWire, kJson };

struct BridgeMark {
    std::string path;  // names of groups, the first bridge's first, separated by commas; or empty
    uint64_t sequence = 0;
    bool mayBeRepeat = false;
};

inline constexpr size_t kMostGroupBytes = 32;
inline constexpr size_t kMostPathGroups = 16;

// Letters, digits, "-" and "_".
[[nodiscard]] bool groupNameIsGood(std::string_view name);

// Did the message come by a bridge of the group, or by too many to go on?
[[nodiscard]] bool pathEndsAt(std::string_view path, std::string_view group);
void pathAdd(std::string& path, std::string_view group);
[[nodiscard]] bool pathIsGood(std::string_view path);

struct BodyCodec {
    BodyForm form = BodyForm::kWire;
    JsonReader reader = {};
};

// The body, and the mark as the message had it. Replaces what is in both.
// kStatusCorruptMessage for a message whose fields can't be separated, kStatusNoMemory.
[[nodiscard]] pelmoStatus bodyWrite(BodyCodec& codec,
                                    pelmo::MessageView message,
                                    std::string& body,
                                    BridgeMark& mark);

// A message of its own from a body, without subjects. None where the body isn't one, or memory runs
// out; `fault` is then what is wrong, a text that is valid until the codec's next use.
[[nodiscard]] std::optional<pelmo::Message> bodyRead(BodyCodec& codec,
                                                     std::string_view body,
                                                     const char*& fault);

// Puts the mark into a message that goes to the bus, in place of one that it has. What fails is the
// message's status. `field` is what the mark is made in, kept by the caller since making a message
// costs more than filling it.
void markAdd(pelmo::Message& field, pelmo::Message& message, const BridgeMark& mark);
