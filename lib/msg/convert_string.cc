// Conversions of text to numbers, bools, ports and addresses.

#include <cstdlib>
#include <cstring>
#include <memory>

#include "lib/base/bytes.h"
#include "lib/msg/convert.h"

namespace {

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

bool parseInteger(const char* text, bool isSigned, int64_t& integer) {
    char* end = nullptr;
    integer = isSigned ? std::strtoll(text, &end, 10)
                       : static_cast<int64_t>(std::strtoull(text, &end, 10));
    return end != text;
}

bool parseReal(const char* text, double& real) {
    char* end = nullptr;
    real = std::strtod(text, &end);
    return end != text && *end == '\0';
}

bool parseHexAddress(const char* text, uint32_t& address) {
    char* end = nullptr;
    address = static_cast<uint32_t>(std::strtoul(text, &end, 16));
    return end != text && *end == '\0';
}

bool parseDottedQuad(const char* text, uint32_t& address) {
    address = 0;
    for (int part = 0; part < 4; ++part) {
        if (part != 0 && *text++ != '.') return false;
        char* end = nullptr;
        address = address << 8 | static_cast<uint32_t>(std::strtoul(text, &end, 10));
        if (end == text) return false;
        text = end;
    }
    return *text == '\0';
}

pelmoStatus becomeInteger(pelmoMsgField& field, uint8_t targetType, const char* text) {
    const bool isSigned = targetType == FIELD_I8 || targetType == FIELD_I16 ||
                          targetType == FIELD_I32 || targetType == FIELD_I64;
    Number number{};
    if (!parseInteger(text, isSigned, number.integer)) return kStatusConversionFailed;
    storeNumber(targetType, &field.data, number);
    field.size = numberBytes(targetType);
    return kStatusSuccess;
}

pelmoStatus becomeReal(pelmoMsgField& field, uint8_t targetType, const char* text) {
    Number number{.isFloat = true, .integer = 0, .real = 0};
    if (!parseReal(text, number.real)) return kStatusConversionFailed;
    storeNumber(targetType, &field.data, number);
    field.size = numberBytes(targetType);
    return kStatusSuccess;
}

pelmoStatus becomePort(pelmoMsgField& field, const char* text) {
    int64_t port = 0;
    if (!parseInteger(text, false, port)) return kStatusConversionFailed;
    field.data.ipPort16 = hostOrder16(static_cast<uint16_t>(port));
    field.size = sizeof field.data.ipPort16;
    return kStatusSuccess;
}

pelmoStatus becomeAddress(pelmoMsgField& field, const char* text) {
    uint32_t address = 0;
    if (!parseHexAddress(text, address) && !parseDottedQuad(text, address)) {
        return kStatusConversionFailed;
    }
    field.data.ipAddr32 = hostOrder32(address);
    field.size = sizeof field.data.ipAddr32;
    return kStatusSuccess;
}

pelmoStatus parseAs(pelmoMsgField& field, uint8_t targetType, const char* text) {
    switch (targetType) {
        case FIELD_BOOL:
            field.data.boolean = *text == 'T' || *text == 't' ? 1 : 0;
            field.size = sizeof field.data.boolean;
            return kStatusSuccess;
        case FIELD_F32:
        case FIELD_F64:
            return becomeReal(field, targetType, text);
        case FIELD_IPPORT16:
            return becomePort(field, text);
        case FIELD_IPADDR32:
            return becomeAddress(field, text);
        default:
            return isNumberType(targetType) ? becomeInteger(field, targetType, text)
                                            : kStatusConversionFailed;
    }
}

// A text without a NUL at its end is copied and terminated, so that C functions can parse it.
const char* asCText(const pelmoMsgField& field, Text& copy) {
    const auto* text = static_cast<const char*>(field.data.pointer);
    if (text[field.size - 1] == '\0') return text;
    copy.reset(static_cast<char*>(std::malloc(size_t{field.size} + 1)));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy.get(), text, field.size);
    copy.get()[field.size] = '\0';
    return copy.get();
}

}  // namespace

PELMO_CONVERTER_BODY(convertString) {
    if (field.data.pointer == nullptr || field.size == 0) return kStatusConversionFailed;
    Text copy;
    const char* text = asCText(field, copy);
    if (text == nullptr) return kStatusNoMemory;
    const pelmoStatus status = parseAs(field, targetType, text);
    if (status != kStatusSuccess) return status;
    field.count = 1;
    field.type = targetType;
    disposition = kDataByValue;
    return kStatusSuccess;
}
