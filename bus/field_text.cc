#include "bus/field_text.h"

#include <string_view>

std::string textFieldParse(const char* word, TextField& out) {
    const std::string_view all(word);
    const size_t equals = all.find('=');
    if (equals == std::string_view::npos) return "neither NAME=TEXT nor NAME:TYPE=VALUE";
    const std::string_view head = all.substr(0, equals);
    const size_t colon = head.rfind(':');
    const bool isTyped = colon != std::string_view::npos;
    const std::string_view name = head.substr(0, colon);
    const std::string_view typeName = isTyped ? head.substr(colon + 1) : "string";
    if (name.empty()) return "a field needs a name";
    if (name.size() > kMaxNameChars) return "its name is too long";

    out.type = fieldKindByName(typeName);
    if (out.type == nullptr || out.type->parse == nullptr) {
        return "no type \"" + std::string(typeName) + "\"; there are " + fieldKindNames();
    }
    const char* fault = out.type->parse(all.substr(equals + 1), out.value);
    if (fault != nullptr) return fault;
    out.word = word;
    out.name = name;
    return {};
}

pelmoStatus textFieldsAdd(pelmoMsg* msg,
                          const std::vector<TextField>& fields,
                          const TextField** outFault) {
    for (const TextField& field : fields) {
        const pelmoStatus status = fieldAdd(msg, *field.type, field.name.c_str(), 0, field.value);
        if (status == kStatusSuccess) continue;
        *outFault = &field;
        return status;
    }
    return kStatusSuccess;
}
