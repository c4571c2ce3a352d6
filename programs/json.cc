#include "programs/json.h"

#include <cstdint>
#include <cstring>

#include "programs/text.h"

namespace {

constexpr uint32_t kByteSurrogates = 0xDC00;

bool isBetween(uint32_t value, uint32_t least, uint32_t most) {
    return value >= least && value <= most;
}

bool needsEscape(uint32_t character) {
    return character < 0x20 || character == '"' || character == '\\' ||
           isBetween(character, 0x7F, 0x9F) || isBetween(character, 0x2028, 0x2029);
}

struct ShortEscape {
    char character;
    char letter;
};

constexpr ShortEscape kShortEscapes[] = {{'"', '"'},  {'\\', '\\'}, {'/', '/'},  {'\b', 'b'},
                                         {'\f', 'f'}, {'\n', 'n'},  {'\r', 'r'}, {'\t', 't'}};

void addEscaped(std::string& out, uint32_t character) {
    for (const ShortEscape& escape : kShortEscapes) {
        if (character != static_cast<uint32_t>(escape.character)) continue;
        out += '\\';
        out += escape.letter;
        return;
    }
    char text[] = "\\u0000";
    for (size_t at = 5; at > 1; --at) {
        text[at] = kHexDigits[character & 15];
        character >>= 4;
    }
    out += text;
}

// Is a byte wholly a character that is written as it is?
bool isPlain(char byte) {
    const auto character = static_cast<uint8_t>(byte);
    return character < 0x80 && !needsEscape(character);
}

// Is any of eight bytes not plain? Each has a top bit in one of the terms then. A carry or a borrow
// between bytes comes only from such a byte.
bool hasOther(const char* eight) {
    constexpr uint64_t kEach = 0x0101010101010101;
    uint64_t bytes = 0;
    std::memcpy(&bytes, eight, sizeof bytes);
    const auto isZero = [](uint64_t each) { return each - kEach; };
    const uint64_t found = bytes | (bytes + kEach) | (bytes - 0x20 * kEach) |
                           isZero(bytes ^ '"' * kEach) | isZero(bytes ^ '\\' * kEach);
    return (found & 0x80 * kEach) != 0;
}

// The character at the beginning, or a byte that is none. Returns how many bytes it was.
size_t addOne(std::string& out, std::string_view text) {
    uint32_t character = 0;
    const size_t length = utf8Read(text, character);
    if (length == 0) {
        addEscaped(out, kByteSurrogates + static_cast<uint8_t>(text[0]));
        return 1;
    }
    if (needsEscape(character)) {
        addEscaped(out, character);
    } else {
        out.append(text, 0, length);
    }
    return length;
}

// Four digits at `at`; false where they aren't there.
bool readUnit(std::string_view inner, size_t at, uint32_t& unit) {
    if (inner.size() < at + 4) return false;
    unit = 0;
    for (size_t i = at; i < at + 4; ++i) {
        const int digit = hexDigit(inner[i]);
        if (digit < 0) return false;
        unit = unit << 4 | static_cast<uint32_t>(digit);
    }
    return true;
}

struct Escape {
    size_t length;        // with the backslash
    uint32_t character;   // or a byte,
    bool isByte = false;  // not a character but a raw byte
    const char* fault = nullptr;
};

// "\uXXXX" at the beginning of `inner`, or two of them for one character.
Escape readUnitEscape(std::string_view inner) {
    uint32_t unit = 0;
    if (!readUnit(inner, 2, unit)) return {0, 0, false, "\\u needs four hexadecimal digits"};
    if (!isBetween(unit, 0xD800, 0xDFFF)) return {6, unit};
    uint32_t low = 0;
    if (unit < 0xDC00 && inner.substr(6, 2) == "\\u" && readUnit(inner, 8, low) &&
        isBetween(low, 0xDC00, 0xDFFF)) {
        return {12, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00)};
    }
    if (isBetween(unit, kByteSurrogates + 0x80, kByteSurrogates + 0xFF)) {
        return {6, unit - kByteSurrogates, true};
    }
    return {0, 0, false, "half a surrogate pair"};
}

Escape readEscape(std::string_view inner) {
    if (inner.size() < 2) return {0, 0, false, "a backslash without a letter"};
    if (inner[1] == 'u') return readUnitEscape(inner);
    for (const ShortEscape& escape : kShortEscapes) {
        if (inner[1] == escape.letter) return {2, static_cast<uint32_t>(escape.character)};
    }
    return {0, 0, false, "no such escape"};
}

Escape readOne(std::string_view rest) {
    if (rest[0] == '\\') return readEscape(rest);
    if (static_cast<uint8_t>(rest[0]) < 0x20) return {0, 0, false, "a raw control character"};
    Escape plain{0, 0};
    plain.length = utf8Read(rest, plain.character);
    if (plain.length == 0) plain.fault = "not UTF-8";
    return plain;
}

}  // namespace

size_t jsonPlainLength(std::string_view text) {
    size_t at = 0;
    while (at + sizeof(uint64_t) <= text.size() && !hasOther(text.data() + at)) {
        at += sizeof(uint64_t);
    }
    while (at < text.size() && isPlain(text[at])) {
        ++at;
    }
    return at;
}

void jsonTextAddEscaped(std::string& out, std::string_view text, size_t plain) {
    out += '"';
    while (plain < text.size()) {
        out.append(text, 0, plain);
        text.remove_prefix(plain);
        text.remove_prefix(addOne(out, text));
        plain = jsonPlainLength(text);
    }
    out += text;
    out += '"';
}

const char* jsonTextRead(std::string_view inner, std::string* out, size_t* outStop) {
    if (out != nullptr) out->clear();
    for (size_t at = 0; at < inner.size();) {
        const Escape one = readOne(inner.substr(at));
        if (one.fault != nullptr) {
            *outStop = at;
            return one.fault;
        }
        at += one.length;
        if (out == nullptr) continue;
        if (one.isByte) {
            *out += static_cast<char>(one.character);
        } else {
            utf8Add(*out, one.character);
        }
    }
    return nullptr;
}

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

// The place of the string's closing quote; the end of the text if there is none.
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
    return reader.at == text.size() || fail(reader, "something follows the value");
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
