#include "watch/top/filter.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

#include "lib/base/bytes.h"
#include "watch/core/text.h"

namespace {

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

std::string lowered(std::string_view text) {
    std::string small(text);
    std::ranges::transform(small, small.begin(), lower);
    return small;
}

bool isDigit(char letter) {
    return letter >= '0' && letter <= '9';
}

bool areDigits(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, isDigit);
}

// `wanted` is in small letters.
bool hasText(std::string_view text, std::string_view wanted) {
    const auto isSame = [](char left, char right) { return lower(left) == right; };
    return std::search(text.begin(), text.end(), wanted.begin(), wanted.end(), isSame) !=
           text.end();
}

// Reading. Each reads a word as one kind: false where it is no such, and with `fault` set where it
// is one that fits nothing.

struct Reading {
    TopWord& word;
    TopTable table;
    std::string& fault;
};

void refuse(const Reading& reading, const char* what) {
    reading.fault = reading.word.text + " " + what;
}

// A pattern with wildcards.
bool readPattern(const Reading& reading) {
    std::string text = reading.word.text;
    if (text.ends_with('.')) text.pop_back();  // the next element is still to be typed
    uint8_t(&pattern)[kSubjectMaxBytes + 1] = reading.word.pattern;
    const bool isRead = subjectFromText(pattern, sizeof pattern, text.c_str()) > 0;
    if (!isRead || !subjectHasWildcard(pattern)) return false;
    reading.word.kind = TopWordKind::kPattern;
    return true;
}

// "10.0", "10.0.0.1", "10.0.0.": how many numbers there are, or nothing.
std::optional<size_t> readAddressParts(std::string_view text, uint32_t* address) {
    size_t count = 0;
    *address = 0;
    for (;;) {
        const size_t dot = std::min(text.find('.'), text.size());
        const std::string_view part = text.substr(0, dot);
        const bool isLast = dot == text.size();
        if (part.empty() && isLast) return count;
        uint8_t number = 0;
        const auto [stop, error] = std::from_chars(part.data(), part.data() + part.size(), number);
        if (error != std::errc() || stop != part.data() + part.size() || count == 4) return {};
        *address |= uint32_t{number} << (24 - 8 * count++);
        if (isLast) return count;
        text.remove_prefix(dot + 1);
    }
}

bool isAddressLike(std::string_view text) {
    const size_t slash = std::min(text.find('/'), text.size());
    const std::string_view base = text.substr(0, slash);
    const auto isOfAddress = [](char byte) { return isDigit(byte) || byte == '.'; };
    return !base.empty() && isDigit(base[0]) && base.find('.') != std::string_view::npos &&
           std::ranges::all_of(base, isOfAddress) &&
           (slash == text.size() || slash + 1 == text.size() || areDigits(text.substr(slash + 1)));
}

void readNetwork(const Reading& reading, std::string_view bitsText, bool isWhole) {
    uint8_t bits = 0;
    const auto [stop, error] =
        std::from_chars(bitsText.data(), bitsText.data() + bitsText.size(), bits);
    if (!isWhole || error != std::errc() || stop != bitsText.data() + bitsText.size() ||
        bits > 32) {
        return refuse(reading, "is no network");
    }
    TopWord& word = reading.word;
    word.kind = TopWordKind::kNetwork;
    word.mask = bits == 0 ? 0 : UINT32_MAX << (32 - bits);
    word.network &= word.mask;
}

bool readAddress(const Reading& reading) {
    TopWord& word = reading.word;
    const std::string_view text = word.text;
    if (!isAddressLike(text)) return false;
    const size_t slash = std::min(text.find('/'), text.size());
    const std::string_view base = text.substr(0, slash);
    const std::optional<size_t> count = readAddressParts(base, &word.network);
    word.kind = TopWordKind::kAddress;
    word.isWholeAddress = count == 4 && !base.ends_with('.');
    if (!count) {
        refuse(reading, "is no address");
    } else if (slash < text.size()) {
        readNetwork(reading, text.substr(slash + 1), word.isWholeAddress);
    }
    return true;
}

bool readPort(const Reading& reading) {
    std::string_view digits = reading.word.text;
    const bool isPortOnly = digits.starts_with(':');
    if (isPortOnly) digits.remove_prefix(1);
    if (!areDigits(digits)) return false;
    const auto [stop, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), reading.word.port);
    if (error != std::errc() && isPortOnly) refuse(reading, "is no port");
    if (error != std::errc()) return isPortOnly;
    reading.word.kind = isPortOnly ? TopWordKind::kPort : TopWordKind::kPortOrText;
    return true;
}

struct RelationRow {
    std::string_view text;
    TopRelation relation;
};

// Longer ones first.
constexpr RelationRow kRelations[] = {
    {">=", TopRelation::kLeast}, {"<=", TopRelation::kMost}, {"!=", TopRelation::kUnequal},
    {"=", TopRelation::kEqual},  {"<", TopRelation::kLess},  {">", TopRelation::kMore},
};

// "2.5m"
std::optional<double> readNumber(std::string_view text) {
    if (text.empty() || !isDigit(text[0])) return {};
    double number = 0;
    const auto [stop, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    if (error != std::errc()) return {};
    const std::string_view unit(stop, text.data() + text.size());
    constexpr std::string_view kUnits = "kmgt";
    if (unit.empty()) return number;
    const size_t place = kUnits.find(unit[0]);
    if (unit.size() > 1 || place == std::string_view::npos) return {};
    for (size_t step = 0; step <= place; ++step) {
        number *= 1000;
    }
    return number;
}

bool findColumn(TopTable table, std::string_view name, size_t* out) {
    const TopTableInfo& info = topTableInfo(table);
    for (size_t at = 0; at < info.columnCount; ++at) {
        if (lowered(info.columns[at].heading) != name && info.columns[at].name != name) continue;
        *out = at;
        return true;
    }
    return false;
}

bool readComparison(const Reading& reading) {
    TopWord& word = reading.word;
    const std::string_view text = word.text;
    const auto isOfName = [](char letter) {
        return (letter >= 'a' && letter <= 'z') || letter == '_';
    };
    const auto nameEnd = std::ranges::find_if_not(text, isOfName);
    const std::string_view name(text.begin(), nameEnd);
    const std::string_view rest(nameEnd, text.end());
    const auto* const row = std::ranges::find_if(
        kRelations, [rest](const RelationRow& one) { return rest.starts_with(one.text); });
    if (name.empty() || row == std::end(kRelations)) return false;
    const std::optional<double> number = readNumber(rest.substr(row->text.size()));
    if (!number) return false;
    word.kind = TopWordKind::kNumber;
    word.relation = row->relation;
    word.number = *number;
    if (!findColumn(reading.table, name, &word.column)) {
        reading.fault = "no column " + std::string(name) + " here";
    }
    return true;
}

// The next word and takes it off; empty at the end. Quotes that aren't closed yet run to the end.
std::string_view takeWord(std::string_view& text, bool* isNot, bool* isQuoted) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    *isNot = text.size() > 1 && text[0] == '!' && text[1] != ' ';
    if (*isNot) text.remove_prefix(1);
    *isQuoted = text.starts_with('"');
    if (*isQuoted) text.remove_prefix(1);
    const size_t end =
        std::min(*isQuoted ? text.find('"') : text.find_first_of(" \t"), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + (*isQuoted ? 1 : 0), text.size()));
    return word;
}

void readWord(const Reading& reading) {
    if (readPattern(reading) || readAddress(reading) || readPort(reading)) return;
    (void)readComparison(reading);
}

// Fitting

// Their sizes come first and are the same then.
bool elementsAreSame(const uint8_t* left, const uint8_t* right) {
    if (left[0] != right[0]) return false;
    for (size_t at = 1; at < left[0]; ++at) {
        if (lower(static_cast<char>(left[at])) != lower(static_cast<char>(right[at]))) return false;
    }
    return true;
}

bool patternMatches(const uint8_t* pattern, const uint8_t* subject) {
    const uint32_t patternCount = subjectElementCount(pattern);
    const uint32_t count = subjectElementCount(subject);
    const uint8_t* wanted = subjectFirst(pattern);
    const uint8_t* element = subjectFirst(subject);
    for (uint32_t at = 0; at < patternCount; ++at) {
        if (at == count) return false;
        if (at + 1 == patternCount && subjectElementIs(wanted, '>')) return true;
        if (!subjectElementIs(wanted, '*') && !elementsAreSame(wanted, element)) return false;
        wanted = subjectNext(wanted);
        element = subjectNext(element);
    }
    return patternCount == count;
}

template <typename Fits>
bool anyHost(const TopRows& rows, const TopRow& row, Fits fits) {
    return std::ranges::any_of(std::span(rows.hosts).subspan(row.firstHost, row.hostCount), fits);
}

template <typename Fits>
bool anyAddress(const TopRows& rows, const TopRow& row, Fits fits) {
    return (row.group != 0 && fits(row.group)) ||
           anyHost(rows, row, [fits](const TopHost& host) { return fits(host.address); });
}

bool hasSubjectText(const TopWord& word, const TopRows& rows, const TopRow& row) {
    if (!topTableInfo(rows.table).hasSubjects) return false;
    char buffer[kSafeSubjectBytes];
    return hasText(subjectSafeText(rowSubject(rows, row), buffer), word.text);
}

// No address has a letter in it.
bool rowHasText(const TopWord& word, const TopRows& rows, const TopRow& row) {
    if (hasSubjectText(word, rows, row)) return true;
    const auto isOfAddress = [](char byte) { return isDigit(byte) || byte == '.'; };
    if (!std::ranges::all_of(word.text, isOfAddress)) return false;
    return anyAddress(rows, row, [&word](uint32_t address) {
        char buffer[kAddressTextBytes];
        return hasText(addressText(hostOrder32(address), buffer), word.text);
    });
}

bool rowHasAddress(const TopWord& word, const TopRows& rows, const TopRow& row) {
    return anyAddress(rows, row, [&word](uint32_t address) {
        if (word.isWholeAddress) return address == word.network;
        char buffer[kAddressTextBytes];
        return addressText(hostOrder32(address), buffer).starts_with(word.text);
    });
}

bool rowHasPort(const TopWord& word, const TopRows& rows, const TopRow& row) {
    return row.port == word.port || row.shownPort == word.port ||
           anyHost(rows, row, [&word](const TopHost& host) { return host.scid == word.port; });
}

bool compares(const TopWord& word, double number) {
    switch (word.relation) {
        case TopRelation::kLess:
            return number < word.number;
        case TopRelation::kMost:
            return number <= word.number;
        case TopRelation::kEqual:
            return number == word.number;
        case TopRelation::kUnequal:
            return number != word.number;
        case TopRelation::kLeast:
            return number >= word.number;
        case TopRelation::kMore:
            return number > word.number;
    }
    return false;
}

bool wordFits(const TopFilter& filter, const TopWord& word, const TopRows& rows, size_t at) {
    const TopRow& row = rows.rows[at];
    switch (word.kind) {
        case TopWordKind::kText:
            return rowHasText(word, rows, row);
        case TopWordKind::kPattern:
            return topTableInfo(rows.table).hasSubjects &&
                   patternMatches(word.pattern, rowSubject(rows, row));
        case TopWordKind::kAddress:
            return rowHasAddress(word, rows, row);
        case TopWordKind::kNetwork:
            return anyAddress(rows, row, [&word](uint32_t address) {
                return (address & word.mask) == word.network;
            });
        case TopWordKind::kPort:
            return rowHasPort(word, rows, row);
        case TopWordKind::kPortOrText:
            return rowHasPort(word, rows, row) || rowHasText(word, rows, row);
        case TopWordKind::kNumber:
            return compares(word,
                            static_cast<double>(rowNumbers(rows, at)[word.column]) * filter.scale);
    }
    return false;
}

}  // namespace

TopFilter filterOf(std::string_view text, TopTable table) {
    TopFilter filter = {.text = std::string(text)};
    for (;;) {
        bool isQuoted = false;
        TopWord word;
        const std::string_view taken = takeWord(text, &word.isNot, &isQuoted);
        if (taken.empty() && text.empty()) return filter;
        if (taken.empty()) continue;
        word.text = lowered(taken);
        std::string fault;
        if (!isQuoted) readWord({word, table, fault});
        if (filter.fault.empty()) filter.fault = fault;
        filter.words.push_back(std::move(word));
    }
}

bool filterShows(const TopFilter& filter, const TopRows& rows, size_t row) {
    if (filter.words.empty()) return true;
    return filter.fault.empty() && std::ranges::all_of(filter.words, [&](const TopWord& word) {
               return wordFits(filter, word, rows, row) != word.isNot;
           });
}
