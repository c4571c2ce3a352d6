#include "python/native/to_python.h"

#include <arpa/inet.h>
#include <datetime.h>

#include <cstring>
#include <string>
#include <utility>

#include "python/native/kinds.h"
#include "python/native/message.h"

namespace {

constexpr int64_t kSecondsOfDay = 86400;

PyObject* xmlType;
PyObject* addressType;
PyObject* epoch;

py::object bytesToPython(const void* bytes, size_t sizeBytes) {
    return owned(
        PyBytes_FromStringAndSize(static_cast<const char*>(bytes),
                                  static_cast<Py_ssize_t>(bytes == nullptr ? 0 : sizeBytes)));
}

// The number of a kind with a format, at a place that needn't be aligned.
template <typename Number>
Number load(const void* at) {
    Number value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

PyObject* numberAt(char format, const void* at) {
    switch (format) {
        case 'b':
            return PyLong_FromLong(load<int8_t>(at));
        case 'B':
            return PyLong_FromLong(load<uint8_t>(at));
        case 'h':
            return PyLong_FromLong(load<int16_t>(at));
        case 'H':
            return PyLong_FromLong(load<uint16_t>(at));
        case 'i':
            return PyLong_FromLong(load<int32_t>(at));
        case 'I':
            return PyLong_FromUnsignedLong(load<uint32_t>(at));
        case 'q':
            return PyLong_FromLongLong(load<int64_t>(at));
        case 'Q':
            return PyLong_FromUnsignedLongLong(load<uint64_t>(at));
        case 'f':
            return PyFloat_FromDouble(double{load<float>(at)});
        default:
            return PyFloat_FromDouble(load<double>(at));
    }
}

// A packed subject: its length in two bytes, the number of its elements, and each of these as the
// length of the whole element, its bytes and a NUL. The length isn't trusted.
py::object subjectToPython(const uint8_t* packed, size_t sizeBytes) {
    std::string text;
    const uint8_t* at = packed + 3;
    const uint8_t* const end = packed + sizeBytes;
    while (at < end && *at >= 2 && *at <= end - at) {
        if (!text.empty()) text += '.';
        text.append(reinterpret_cast<const char*>(at + 1), *at - 2u);
        at += *at;
    }
    return textToPython(text.data(), text.size());
}

py::object copyOf(pelmoMsg* nested) {
    pelmoMsg* copy = nullptr;
    check(pelmoMsg_CreateCopy(nested, &copy), "a nested message");
    return messageMake(copy, 0);
}

py::object element(const Kind& kind, const pelmoMsgField& array, uint32_t number) {
    if (kind.format != 0) {
        const auto* bytes = static_cast<const uint8_t*>(array.data.pointer);
        return owned(numberAt(kind.format, bytes + size_t{number} * kind.sizeBytes));
    }
    const void* one = static_cast<const void* const*>(array.data.pointer)[number];
    if (kind.code == FIELD_MSG) return copyOf(static_cast<pelmoMsg*>(const_cast<void*>(one)));
    const auto* text = static_cast<const char*>(one);
    return textToPython(text, text == nullptr ? 0 : std::strlen(text));
}

py::object arrayToPython(const Kind& kind, const pelmoMsgField& field) {
    const uint32_t count = field.data.pointer == nullptr ? 0 : field.count;
    py::object list = owned(PyList_New(count));
    for (uint32_t i = 0; i < count; ++i)
        PyList_SET_ITEM(list.ptr(), i, element(kind, field, i).release().ptr());
    return list;
}

// A string has its NUL, if whoever sent it wrote one.
py::object stringToPython(const pelmoMsgField& field) {
    const auto* text = static_cast<const char*>(field.data.pointer);
    size_t sizeBytes = text == nullptr ? 0 : field.size;
    if (sizeBytes != 0 && text[sizeBytes - 1] == '\0') --sizeBytes;
    return textToPython(text, sizeBytes);
}

py::object xmlToPython(const pelmoMsgField& field) {
    const py::object bytes = bytesToPython(field.data.pointer, field.size);
    return owned(PyObject_CallOneArg(xmlType, bytes.ptr()));
}

py::object addressToPython(uint32_t address) {
    const py::object number = owned(PyLong_FromUnsignedLong(ntohl(address)));
    return owned(PyObject_CallOneArg(addressType, number.ptr()));
}

py::object scalarToPython(const Kind& kind, const pelmoMsgField& field) {
    switch (kind.code) {
        case FIELD_BOOL:
            return py::bool_(field.data.boolean != 0);
        case FIELD_STRING:
            return stringToPython(field);
        case FIELD_DATETIME:
            return timeToPython(field.data.dateTime.seconds, field.data.dateTime.nanoseconds);
        case FIELD_IPADDR32:
            return addressToPython(field.data.ipAddr32);
        case FIELD_IPPORT16:
            return owned(PyLong_FromLong(ntohs(field.data.ipPort16)));
        case FIELD_SUBJECT:
            return subjectToPython(static_cast<const uint8_t*>(field.data.pointer), field.size);
        case FIELD_OPAQUE:
            return bytesToPython(field.data.pointer, field.size);
        case FIELD_XML:
            return xmlToPython(field);
        case FIELD_MSG:
            return copyOf(static_cast<pelmoMsg*>(const_cast<void*>(field.data.pointer)));
        case FIELD_NONE:
            return py::none();
        default:
            return owned(numberAt(kind.format, &field.data));
    }
}

}  // namespace

void valuesUse(py::object xmlClass, py::object addressClass) {
    if (PyDateTimeAPI == nullptr) PyDateTime_IMPORT;
    if (PyDateTimeAPI == nullptr) raisePending();
    Py_XDECREF(std::exchange(xmlType, xmlClass.release().ptr()));
    Py_XDECREF(std::exchange(addressType, addressClass.release().ptr()));
    if (epoch != nullptr) return;
    epoch = owned(PyDateTimeAPI->DateTime_FromDateAndTime(
                      1970, 1, 1, 0, 0, 0, 0, PyDateTime_TimeZone_UTC, PyDateTimeAPI->DateTimeType))
                .release()
                .ptr();
}

PyObject* pythonEpoch() {
    return epoch;
}

py::object textToPython(const char* text, size_t sizeBytes) {
    return owned(PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(sizeBytes), "surrogateescape"));
}

py::object fieldToPython(const pelmoMsgField& field) {
    bool isArray = false;
    const Kind* kind = kindByCode(field.type, isArray);
    if (kind == nullptr) return {};
    return isArray ? arrayToPython(*kind, field) : scalarToPython(*kind, field);
}

py::object typeToPython(uint8_t code) {
    bool isArray = false;
    const Kind* kind = kindByCode(code, isArray);
    if (kind == nullptr) return owned(PyLong_FromLong(code));
    return owned(PyUnicode_FromFormat(isArray ? "%s[]" : "%s", kind->name));
}

py::object numbersToPython(const pelmoMsgField& field) {
    bool isArray = false;
    const Kind* kind = kindByCode(field.type, isArray);
    if (kind == nullptr || !isArray || kind->format == 0)
        raise(PyExc_TypeError, "the field is no array of numbers");
    const py::object bytes =
        bytesToPython(field.data.pointer, size_t{field.count} * kind->sizeBytes);
    const py::object view = owned(PyMemoryView_FromObject(bytes.ptr()));
    return owned(PyObject_CallMethod(view.ptr(), "cast", "C", kind->format));
}

// By a difference, which is exact, and which Python refuses where it leads out of its calendar.
py::object timeToPython(int64_t seconds, int64_t nanoseconds) {
    const int64_t days = seconds / kSecondsOfDay;
    if (days > 5'000'000 || days < -5'000'000)
        raise(PyExc_OverflowError, "date value out of range");
    seconds = seconds % kSecondsOfDay + nanoseconds / 1'000'000'000;
    const py::object since =
        owned(PyDelta_FromDSU(static_cast<int>(days), static_cast<int>(seconds),
                              static_cast<int>(nanoseconds % 1'000'000'000 / 1000)));
    return owned(PyNumber_Add(epoch, since.ptr()));
}
