#include "programs/option_table.h"

#include <algorithm>

#include "lib/base/version.h"

namespace {

std::string_view takeName(std::string_view& names) {
    const size_t length = std::min(names.find(','), names.size());
    const std::string_view name = names.substr(0, length);
    names.remove_prefix(std::min(length + 1, names.size()));
    return name;
}

std::string_view withoutDashes(std::string_view name) {
    return name.substr(name.starts_with("--") ? 2 : 1);
}

bool isSame(std::string_view listed, std::string_view typed) {
    if (listed == typed) return true;
    const std::string_view bare = withoutDashes(typed);
    return bare.size() > 1 && bare == withoutDashes(listed);
}

bool isOption(std::string_view word) {
    return word.size() > 1 && word[0] == '-';
}

bool fail(OptionReader& reader, std::string_view word, std::string_view what) {
    reader.fault = word;
    reader.fault += ": ";
    reader.fault += what;
    return false;
}

const char* takeWord(OptionReader& reader) {
    const char* const word = reader.rest.front();
    reader.rest = reader.rest.subspan(1);
    return word;
}

// "-u5": the name is the first letter.
bool findAttached(OptionReader& reader, const char* word) {
    const std::string_view name(word, 2);
    const OptionRow* const row = name[1] != '-' ? optionFind(reader.rows, name) : nullptr;
    if (row == nullptr || row->valueWord == nullptr) return false;
    reader.row = row;
    reader.name = name;
    reader.value = word + 2;
    return true;
}

bool takeOption(OptionReader& reader, const char* word) {
    const std::string_view whole = word;
    const size_t equals = whole.find('=');
    const std::string_view name = whole.substr(0, equals);
    reader.row = optionFind(reader.rows, name);
    reader.name = name;
    reader.value = equals != std::string_view::npos ? word + equals + 1 : nullptr;
    if (reader.row == nullptr) {
        return findAttached(reader, word) || fail(reader, whole, "no such option");
    }
    if (reader.row->valueWord == nullptr) {
        return reader.value == nullptr || fail(reader, whole, "takes no value");
    }
    if (reader.value == nullptr && reader.rest.empty()) {
        return fail(reader, name, std::string("needs a value: ") + reader.row->valueWord);
    }
    if (reader.value == nullptr) reader.value = takeWord(reader);
    return true;
}

}  // namespace

bool optionNext(OptionReader& reader) {
    if (reader.rest.empty() || !reader.fault.empty()) return false;
    const char* word = takeWord(reader);
    if (!reader.optionsEnded && std::string_view(word) == "--") {
        reader.optionsEnded = true;
        if (reader.rest.empty()) return false;
        word = takeWord(reader);
    }
    if (!reader.optionsEnded && isOption(word)) return takeOption(reader, word);
    reader.row = nullptr;
    reader.name.clear();
    reader.value = word;
    return true;
}

bool optionRefuse(OptionReader& reader, std::string_view what) {
    const std::string value = reader.value != nullptr ? std::string(" ") + reader.value : "";
    return fail(reader, reader.name + value, what);
}

const OptionRow* optionFind(const OptionRows& rows, std::string_view name) {
    for (const OptionRow* row : rows) {
        for (std::string_view names = row->names; !names.empty();) {
            if (isSame(takeName(names), name)) return row;
        }
    }
    return nullptr;
}

void helpLineAdd(std::string& out, std::string left, std::string_view help, size_t width) {
    left.resize(std::max(left.size(), width), ' ');
    out += "  " + left + " ";
    out += help;
    out += '\n';
}

void optionHelpAdd(std::string& out, const OptionRow& row, size_t width) {
    std::string left;
    for (std::string_view names = row.names; !names.empty();) {
        if (!left.empty()) left += ", ";
        left += takeName(names);
    }
    if (row.valueWord != nullptr) left += std::string(" ") + row.valueWord;
    helpLineAdd(out, std::move(left), row.help, width);
}

std::string versionText(std::string_view program) {
    return std::string(program) + " " PELMO_TREE_VERSION " (bus version " PELMO_BUS_VERSION ")\n";
}
