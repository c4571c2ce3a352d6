// Subjects of the bus as subjects of NATS, and back.
//
// Both have elements between dots and the wildcards "*" and ">". An element of the bus may have
// bytes that a token of NATS must not: blanks, control characters, "*", ">" and "$" at the
// beginning, which NATS keeps for itself. Such a byte, and "%", becomes "%" and two upper-case
// hexadecimal digits. Back, each "%XX" of a byte that an element may have becomes that byte;
// anything else is left as it is.
//
// So each subject of the bus has one of NATS, and comes back as it was. Prefixes are added and
// taken away as they are, without escaping.
//
// Failure: false where there is no such subject on the other side: an empty element, one of more
// than 127 bytes, a NUL, more bytes than a message's subject may have, "_INBOX" or "_PM" as the
// first element of the bus's, which belong to one bus alone; or a prefix that isn't there. `out` is
// then unspecified.
//
// Threads: pure.

#pragma once

#include <string>
#include <string_view>

struct SubjectMap {
    std::string busPrefix;   // of the subjects on the bus; empty, or ends with a dot
    std::string natsPrefix;  // of those on NATS
};

// What is wrong with a prefix as it was typed, or null: it has to be whole elements that end with a
// dot, without wildcards.
[[nodiscard]] const char* subjectPrefixFault(std::string_view prefix);

[[nodiscard]] bool subjectToNats(const SubjectMap& map, std::string_view bus, std::string& out);
[[nodiscard]] bool subjectToBus(const SubjectMap& map, std::string_view nats, std::string& out);

// Does it belong to one bus alone?
[[nodiscard]] bool subjectIsLocal(std::string_view bus);

// Is there a subject that both patterns take?
[[nodiscard]] bool subjectPatternsOverlap(std::string_view first, std::string_view second);

// Subjects of a pattern, in which whole elements "*", and ">" as the last one, are wildcards. It is
// written without prefixes and gets both: `outBus` is what to listen to on the bus, `outNats` on
// NATS.
[[nodiscard]] bool subjectPattern(const SubjectMap& map,
                                  std::string_view pattern,
                                  std::string& outBus,
                                  std::string& outNats);
