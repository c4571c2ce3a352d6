#include "watch/top/filter.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "lib/base/bytes.h"
#include "watch/core/text.h"

namespace {

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool hasText(std::string_view text, std::string_view wanted) {
    const auto isSame = [](char left, char right) { return lower(left) == lower(right); };
    return std::search(text.begin(), text.end(), wanted.begin(), wanted.end(), isSame) !=
           text.end();
}

// Elements that stand for others, and nothing that no pattern may have.
bool readPattern(TopFilter& filter) {
    std::string_view text = filter.text;
    if (text.ends_with('.')) text.remove_suffix(1);  // the next element is still to be typed
    const std::string terminated(text);
    const int32_t size = subjectFromText(filter.pattern, sizeof filter.pattern, terminated.c_str());
    return size > 0 && subjectHasWildcard(filter.pattern);
}

uint32_t readPort(std::string_view text) {
    uint16_t port = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && stop == text.data() + text.size() ? port : 0;
}

bool isAddressStart(std::string_view text) {
    const auto isOfAddress = [](char byte) { return (byte >= '0' && byte <= '9') || byte == '.'; };
    return std::ranges::all_of(text, isOfAddress) && text.find('.') != std::string_view::npos;
}

bool isWholeAddress(std::string_view text) {
    return std::ranges::count(text, '.') == 3 && !text.ends_with('.');
}

bool elementMatches(const uint8_t* pattern, const uint8_t* element) {
    return subjectElementIs(pattern, '*') ||
           (pattern[0] == element[0] && std::memcmp(pattern, element, element[0]) == 0);
}

bool patternMatches(const uint8_t* pattern, const uint8_t* subject) {
    const uint32_t patternCount = subjectElementCount(pattern);
    const uint32_t count = subjectElementCount(subject);
    const uint8_t* wanted = subjectFirst(pattern);
    const uint8_t* element = subjectFirst(subject);
    for (uint32_t at = 0; at < patternCount; ++at) {
        if (at == count) return false;
        if (at + 1 == patternCount && subjectElementIs(wanted, '>')) return true;
        if (!elementMatches(wanted, element)) return false;
        wanted = subjectNext(wanted);
        element = subjectNext(element);
    }
    return patternCount == count;
}

bool addressMatches(const TopFilter& filter, uint32_t address) {
    char buffer[kAddressTextBytes];
    const std::string_view text = addressText(hostOrder32(address), buffer);
    return filter.isWholeAddress ? text == filter.text : text.starts_with(filter.text);
}

bool anyAddressMatches(const TopFilter& filter, const TopRows& rows, const TopRow& row) {
    if (row.group != 0 && addressMatches(filter, row.group)) return true;
    const auto hosts = std::span(rows.hosts).subspan(row.firstHost, row.hostCount);
    return std::ranges::any_of(
        hosts, [&](const TopHost& host) { return addressMatches(filter, host.address); });
}

bool anyTextMatches(const TopFilter& filter, const TopRows& rows, const TopRow& row) {
    if (topTableInfo(rows.table).hasSubjects) {
        char buffer[kSafeSubjectBytes];
        if (hasText(subjectSafeText(rowSubject(rows, row), buffer), filter.text)) return true;
    }
    char buffer[kAddressTextBytes];
    return !filter.isAddress && row.group != 0 &&
           hasText(addressText(hostOrder32(row.group), buffer), filter.text);
}

}  // namespace

TopFilter filterOf(std::string_view text) {
    TopFilter filter = {.text = std::string(text)};
    filter.isPattern = readPattern(filter);
    filter.port = readPort(text);
    filter.isAddress = isAddressStart(text);
    filter.isWholeAddress = filter.isAddress && isWholeAddress(text);
    return filter;
}

bool filterShows(const TopFilter& filter, const TopRows& rows, const TopRow& row) {
    if (filter.text.empty()) return true;
    if (filter.isPattern) {
        return topTableInfo(rows.table).hasSubjects &&
               patternMatches(filter.pattern, rowSubject(rows, row));
    }
    if (filter.port != 0 && (filter.port == row.shownPort || filter.port == row.port)) return true;
    if (filter.isAddress && anyAddressMatches(filter, rows, row)) return true;
    return anyTextMatches(filter, rows, row);
}
