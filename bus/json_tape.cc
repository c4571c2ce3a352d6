#include "bus/json_tape.h"

#include "bus/json_text.h"

namespace {

struct Reader {
    JsonTape& tape;
    std::string_view text;
    size_t at = 0;
};

bool fail(Reader& reader, const char* fault) {
    reader.tape.fault = fault;
    reader.tape.faultAt = reader.at;
    return false;
}

char peek(const Reader& reader) {
    return reader.at < reader.text.size() ? reader.text[reader.at] : '\0';
}

bool take(Reader& reader, char wanted) {
    if (peek(reader) != wanted) return false;
    ++reader.at;
    return true;
}

void skipBlanks(Reader& reader) {
    while (reader.at < reader.text.size() &&
           std::string_view(" \t\r\n").find(reader.text[reader.at]) != std::string_view::npos) {
        ++reader.at;
    }
}

uint32_t open(Reader& reader, JsonKind kind) {
    const auto at = static_cast<uint32_t>(reader.at);
    reader.tape.nodes.push_back({kind, at, at, 0});
    return static_cast<uint32_t>(reader.tape.nodes.size() - 1);
}

bool close(Reader& reader, uint32_t node, size_t end) {
    reader.tape.nodes[node].end = static_cast<uint32_t>(end);
    reader.tape.nodes[node].next = static_cast<uint32_t>(reader.tape.nodes.size());
    return true;
}

bool readWord(Reader& reader, JsonKind kind, std::string_view word) {
    if (reader.text.substr(reader.at, word.size()) != word) return fail(reader, "not a value");
    const uint32_t node = open(reader, kind);
    reader.at += word.size();
    return close(reader, node, reader.at);
}

bool readDigits(Reader& reader) {
    const size_t first = reader.at;
    while (peek(reader) >= '0' && peek(reader) <= '9') {
        ++reader.at;
    }
    return reader.at != first || fail(reader, "a digit is missing");
}

bool readNumber(Reader& reader) {
    const uint32_t node = open(reader, JsonKind::kNumber);
    take(reader, '-');
    if (!take(reader, '0') && !readDigits(reader)) return false;
    if (take(reader, '.') && !readDigits(reader)) return false;
    if (take(reader, 'e') || take(reader, 'E')) {
        if (!take(reader, '+')) take(reader, '-');
        if (!readDigits(reader)) return false;
    }
    return close(reader, node, reader.at);
}

// Where the string's closing quote stands; the end of the text where there is none.
size_t closingQuote(const Reader& reader) {
    size_t at = reader.at;
    while (at < reader.text.size() && reader.text[at] != '"') {
        at += reader.text[at] == '\\' ? 2 : 1;
    }
    return at < reader.text.size() ? at : reader.text.size();
}

bool readString(Reader& reader) {
    if (!take(reader, '"')) return fail(reader, "a string is missing");
    const uint32_t node = open(reader, JsonKind::kString);
    const size_t end = closingQuote(reader);
    size_t stop = 0;
    const std::string_view inner = reader.text.substr(reader.at, end - reader.at);
    const char* fault = jsonTextRead(inner, nullptr, &stop);
    if (fault != nullptr) {
        reader.at += stop;
        return fail(reader, fault);
    }
    reader.at = end;
    if (!take(reader, '"')) return fail(reader, "the closing quote is missing");
    return close(reader, node, end);
}

bool readValue(Reader& reader, uint32_t depth);

bool readKey(Reader& reader) {
    skipBlanks(reader);
    if (!readString(reader)) return false;
    skipBlanks(reader);
    return take(reader, ':') || fail(reader, "':' is missing");
}

bool readList(Reader& reader, JsonKind kind, uint32_t depth) {
    const bool isObject = kind == JsonKind::kObject;
    if (depth == kMostJsonDepth) return fail(reader, "nested too deep");
    const uint32_t node = open(reader, kind);
    ++reader.at;
    skipBlanks(reader);
    if (take(reader, isObject ? '}' : ']')) return close(reader, node, reader.at);
    do {
        if (isObject && !readKey(reader)) return false;
        if (!readValue(reader, depth + 1)) return false;
        skipBlanks(reader);
    } while (take(reader, ','));
    if (!take(reader, isObject ? '}' : ']')) {
        return fail(reader, isObject ? "',' or '}' is missing" : "',' or ']' is missing");
    }
    return close(reader, node, reader.at);
}

bool readValue(Reader& reader, uint32_t depth) {
    skipBlanks(reader);
    switch (peek(reader)) {
        case '{':
            return readList(reader, JsonKind::kObject, depth);
        case '[':
            return readList(reader, JsonKind::kArray, depth);
        case '"':
            return readString(reader);
        case 't':
            return readWord(reader, JsonKind::kTrue, "true");
        case 'f':
            return readWord(reader, JsonKind::kFalse, "false");
        case 'n':
            return readWord(reader, JsonKind::kNull, "null");
        default:
            const bool isNumber =
                peek(reader) == '-' || (peek(reader) >= '0' && peek(reader) <= '9');
            return isNumber ? readNumber(reader) : fail(reader, "a value is missing");
    }
}

}  // namespace

bool jsonTapeRead(JsonTape& tape, std::string_view text) {
    tape.text = text;
    tape.nodes.clear();
    tape.fault = nullptr;
    Reader reader{tape, text};
    if (text.size() > kMostJsonBytes) return fail(reader, "too long");
    if (!readValue(reader, 0)) return false;
    skipBlanks(reader);
    return reader.at == text.size() || fail(reader, "something stands behind the value");
}

std::string_view jsonTapeToken(const JsonTape& tape, uint32_t node) {
    const JsonNode& found = tape.nodes[node];
    return tape.text.substr(found.begin, found.end - found.begin);
}

void jsonTapeString(const JsonTape& tape, uint32_t node, std::string& out) {
    size_t stop = 0;
    // It was checked as it was read.
    static_cast<void>(jsonTextRead(jsonTapeToken(tape, node), &out, &stop));
}
