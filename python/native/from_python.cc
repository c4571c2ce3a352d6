#include "python/native/from_python.h"

#include <arpa/inet.h>
#include <datetime.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "python/native/kinds.h"
#include "python/native/to_python.h"

namespace {

// Where a value goes.
struct Place {
    pelmoMsg* msg;
    const char* name;  // null for none
    uint16_t id;
};

struct Type {
    const Kind* kind;
    bool isArray;
};

Type typeNamed(const char* name) {
    Type type{nullptr, false};
    type.kind = kindByName(name, type.isArray);
    if (type.kind == nullptr) raise(PyExc_ValueError, "unknown type of field: %s", name);
    return type;
}

void checkAdded(pelmoStatus status, const Place& place) {
    if (status == kStatusSuccess) [[likely]]
        return;
    const std::string where =
        std::string("field '") + (place.name != nullptr ? place.name : "") + "'";
    raiseStatus(status, where.c_str());
}

// A buffer of Python's that is held for as long as it is read.
class Buffer {
  public:
    explicit Buffer(PyObject* object) {
        if (PyObject_GetBuffer(object, &view_, PyBUF_FORMAT | PyBUF_C_CONTIGUOUS) != 0)
            raisePending();
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() { PyBuffer_Release(&view_); }
    const Py_buffer* operator->() const { return &view_; }

  private:
    Py_buffer view_{};
};

bool isBytes(PyObject* value) {
    if (PyBytes_Check(value) || PyByteArray_Check(value)) return true;
    if (!PyMemoryView_Check(value)) return false;
    const char* format = PyMemoryView_GET_BUFFER(value)->format;
    return format == nullptr || std::strcmp(format, "B") == 0;
}

bool isMapping(PyObject* value) {
    return PyDict_Check(value) || messageOf(value) != nullptr ||
           (PyMapping_Check(value) && PyObject_HasAttrString(value, "keys"));
}

// The type of a whole number without a width.
const Kind* widthOf(PyObject* number) {
    int overflow = 0;
    bool ignored = false;
    const long long value = PyLong_AsLongLongAndOverflow(number, &overflow);
    if (value == -1 && overflow == 0 && PyErr_Occurred() != nullptr) raisePending();
    if (overflow > 0) return kindByCode(FIELD_U64, ignored);
    if (overflow < 0) raise(PyExc_OverflowError, "%R is below all integers of messages", number);
    return kindByCode(value == static_cast<int32_t>(value) ? FIELD_I32 : FIELD_I64, ignored);
}

// The class says its type where there is one to say: pelmo.u16 and its like.
const char* typeNamedByClass(PyObject* value) {
    static PyObject* const attribute = PyUnicode_InternFromString("_pelmo_type");
    PyObject* const name = PyObject_GetAttr(reinterpret_cast<PyObject*>(Py_TYPE(value)), attribute);
    if (name == nullptr) {
        PyErr_Clear();
        return nullptr;
    }
    Py_DECREF(name);  // the class keeps it
    return PyUnicode_AsUTF8(name);
}

Type typeOf(PyObject* value);

// The least type that holds both: of equal types that, of integers the wider one, of a float and an
// integer the float.
const Kind* joined(const Kind* a, const Kind* b) {
    if (a == nullptr || a == b) return b;
    bool ignored = false;
    const auto isWhole = [](const Kind* kind) {
        return kind->format != 0 && kind->format != 'f' && kind->format != 'd';
    };
    if (!isWhole(a) || !isWhole(b)) {
        const bool numbers = a->format != 0 && b->format != 0;
        return numbers ? kindByCode(FIELD_F64, ignored) : nullptr;
    }
    return a->sizeBytes > b->sizeBytes || a->code == FIELD_U64 ? a : b;
}

// A copy, since what is called for an element may change a list.
py::object tupleOf(PyObject* sequence) {
    return owned(PySequence_Tuple(sequence));
}

Type typeOfSequence(PyObject* sequence) {
    const Kind* kind = nullptr;
    const py::object tuple = tupleOf(sequence);
    const Py_ssize_t count = PyTuple_GET_SIZE(tuple.ptr());
    if (count == 0) raise(PyExc_ValueError, "an array has at least one element");
    for (Py_ssize_t i = 0; i < count; ++i) {
        const Type type = typeOf(PyTuple_GET_ITEM(tuple.ptr(), i));
        kind = type.isArray ? nullptr : joined(kind, type.kind);
        if (kind == nullptr || kind->arrayCode == 0)
            raise(PyExc_TypeError, "no array holds all elements of the list");
    }
    return {kind, true};
}

// Dates and others of numpy's export their bytes, but are no numbers.
bool isOfNumbers(PyObject* value) {
    if (PyObject_HasAttrString(value, "dtype") == 0) return true;
    const py::object kind = py::handle(value).attr("dtype").attr("kind");
    return py::isinstance<py::str>(kind) &&
           std::string_view("iuf").find(std::string(py::str(kind))) != std::string_view::npos;
}

Type typeOfBuffer(PyObject* value) {
    if (!isOfNumbers(value))
        raise(PyExc_TypeError, "messages have no type for %s", Py_TYPE(value)->tp_name);
    const Buffer buffer(value);
    const Kind* kind = kindByFormat(buffer->format, buffer->itemsize);
    if (kind == nullptr || buffer->ndim > 1)
        raise(PyExc_TypeError, "no array of fields is like this buffer: format '%s', %d dimensions",
              buffer->format != nullptr ? buffer->format : "B", buffer->ndim);
    return {kind, buffer->ndim == 1};
}

bool isDate(PyObject* value) {
    if (PyDateTimeAPI == nullptr) PyDateTime_IMPORT;
    if (PyDateTimeAPI == nullptr) raisePending();
    return PyDateTime_Check(value);
}

bool isNothing(PyObject* value) {
    return value == Py_None;
}

bool isSequence(PyObject* value) {
    return PyList_Check(value) || PyTuple_Check(value);
}

// What has a type of its own, in the order of the tests.
struct TypeRow {
    bool (*test)(PyObject* value);
    uint8_t code;
};
constexpr TypeRow kTypeRows[] = {
    {isNothing, FIELD_NONE},
    {isDate, FIELD_DATETIME},
    {isBytes, FIELD_OPAQUE},
    {isMapping, FIELD_MSG},
};

Type typeOf(PyObject* value) {
    bool ignored = false;
    if (PyFloat_CheckExact(value)) return {kindByCode(FIELD_F64, ignored), false};
    if (PyUnicode_CheckExact(value)) return {kindByCode(FIELD_STRING, ignored), false};
    if (PyBool_Check(value)) return {kindByCode(FIELD_BOOL, ignored), false};
    if (PyLong_CheckExact(value)) return {widthOf(value), false};
    if (const char* name = typeNamedByClass(value); name != nullptr) return typeNamed(name);
    if (PyUnicode_Check(value)) return {kindByCode(FIELD_STRING, ignored), false};
    if (PyFloat_Check(value)) return {kindByCode(FIELD_F64, ignored), false};
    if (PyLong_Check(value)) return {widthOf(value), false};
    for (const TypeRow& row : kTypeRows) {
        if (row.test(value)) return {kindByCode(row.code, ignored), false};
    }
    if (isSequence(value)) return typeOfSequence(value);
    if (PyObject_CheckBuffer(value)) return typeOfBuffer(value);
    if (std::strcmp(Py_TYPE(value)->tp_name, "IPv4Address") == 0)
        return {kindByCode(FIELD_IPADDR32, ignored), false};
    raise(PyExc_TypeError, "messages have no type for %s", Py_TYPE(value)->tp_name);
}

// Numbers

void storeSigned(PyObject* value, const Kind& kind, void* out) {
    const py::object number = owned(PyNumber_Index(value));
    const long long all = PyLong_AsLongLong(number.ptr());
    if (all == -1 && PyErr_Occurred() != nullptr) raisePending();
    const int unused = 64 - 8 * kind.sizeBytes;
    if (all != static_cast<long long>(static_cast<unsigned long long>(all) << unused) >> unused)
        raise(PyExc_OverflowError, "%R doesn't fit %s", value, kind.name);
    std::memcpy(out, &all, kind.sizeBytes);  // little-endian, as all that this runs on
}

void storeUnsigned(PyObject* value, const Kind& kind, void* out) {
    const py::object number = owned(PyNumber_Index(value));
    const unsigned long long all = PyLong_AsUnsignedLongLong(number.ptr());
    if (all == ~0ull && PyErr_Occurred() != nullptr) raisePending();
    if (kind.sizeBytes < 8 && all >> (8 * kind.sizeBytes) != 0)
        raise(PyExc_OverflowError, "%R doesn't fit %s", value, kind.name);
    std::memcpy(out, &all, kind.sizeBytes);
}

// Digits that 32 bits don't hold are left out of a real number, which asked for that type; an
// integer goes as it is or not at all.
void storeReal(PyObject* value, const Kind& kind, void* out) {
    const double all = PyFloat_AsDouble(value);
    if (all == -1 && PyErr_Occurred() != nullptr) raisePending();
    const bool isHalf = kind.sizeBytes == sizeof(float);
    if (isHalf && std::isfinite(all) && std::abs(all) > std::numeric_limits<float>::max())
        raise(PyExc_OverflowError, "%R doesn't fit %s", value, kind.name);
    const auto half = static_cast<float>(all);
    if (PyLong_Check(value)) {
        const py::object stored = owned(PyFloat_FromDouble(isHalf ? double{half} : all));
        const int isEqual = PyObject_RichCompareBool(value, stored.ptr(), Py_EQ);
        if (isEqual < 0) raisePending();
        if (isEqual == 0) raise(PyExc_OverflowError, "%R doesn't fit %s", value, kind.name);
    }
    if (isHalf) {
        std::memcpy(out, &half, sizeof half);
    } else {
        std::memcpy(out, &all, sizeof all);
    }
}

void storeNumber(PyObject* value, const Kind& kind, void* out) {
    if (kind.format == 'f' || kind.format == 'd') return storeReal(value, kind, out);
    if (std::strchr("bhiq", kind.format) != nullptr) return storeSigned(value, kind, out);
    storeUnsigned(value, kind, out);
}

void addNumber(const Place& place, const Kind& kind, PyObject* value) {
    pelmoMsgField field;
    field.name = place.name;
    field.id = place.id;
    field.type = kind.code;
    field.size = kind.sizeBytes;
    storeNumber(value, kind, &field.data);
    checkAdded(pelmoMsg_AddField(place.msg, &field), place);
}

void addNumbers(const Place& place, const Kind& kind, const void* numbers, size_t count) {
    if (count == 0) raise(PyExc_ValueError, "an array has at least one element");
    if (count > UINT32_MAX) raise(PyExc_OverflowError, "an array has at most 2**32 - 1 elements");
    pelmoMsgField field;
    field.name = place.name;
    field.id = place.id;
    field.type = kind.arrayCode;
    field.size = kind.sizeBytes;
    field.count = static_cast<uint32_t>(count);
    field.data.pointer = numbers;
    checkAdded(pelmoMsg_AddField(place.msg, &field), place);
}

// Other values

void addString(const Place& place, PyObject* value) {
    const Text text(value);
    if (text.size() >= Py_ssize_t{UINT32_MAX}) raise(PyExc_OverflowError, "the text is too long");
    pelmoMsgField field;
    field.name = place.name;
    field.id = place.id;
    field.type = FIELD_STRING;
    field.size = static_cast<uint32_t>(text.size() + 1);
    field.data.pointer = text.get();
    checkAdded(pelmoMsg_AddField(place.msg, &field), place);
}

void addBlock(const Place& place, uint8_t code, PyObject* value) {
    const Buffer buffer(value);
    if (buffer->len > Py_ssize_t{UINT32_MAX})
        raise(PyExc_OverflowError, "there are too many bytes");
    const void* bytes = buffer->buf != nullptr ? buffer->buf : "";
    const auto sizeBytes = static_cast<uint32_t>(buffer->len);
    const pelmoStatus status =
        code == FIELD_XML ? pelmoMsg_AddXml(place.msg, place.name, bytes, sizeBytes, place.id)
                          : pelmoMsg_AddOpaque(place.msg, place.name, bytes, sizeBytes, place.id);
    checkAdded(status, place);
}

// By a difference, which is exact and knows each zone.
void addDate(const Place& place, PyObject* value) {
    if (!isDate(value)) raise(PyExc_TypeError, "%R is no datetime", value);
    const py::object zone = owned(PyObject_CallMethod(value, "utcoffset", nullptr));
    if (zone.is_none()) raise(PyExc_ValueError, "the date has no zone: %R", value);
    const py::object since = owned(PyNumber_Subtract(value, pythonEpoch()));
    pelmoMsgDateTime date{};
    date.seconds = int64_t{PyDateTime_DELTA_GET_DAYS(since.ptr())} * 86400 +
                   PyDateTime_DELTA_GET_SECONDS(since.ptr());
    date.nanoseconds =
        static_cast<uint32_t>(PyDateTime_DELTA_GET_MICROSECONDS(since.ptr())) * 1000u;
    checkAdded(pelmoMsg_AddDateTime(place.msg, place.name, &date, place.id), place);
}

void addAddress(const Place& place, PyObject* value) {
    const py::object words = owned(PyObject_Str(value));
    in_addr address{};
    if (inet_pton(AF_INET, Text(words.ptr()).whole().get(), &address) != 1)
        raise(PyExc_ValueError, "%R is no IPv4 address", value);
    checkAdded(pelmoMsg_AddIPAddr32(place.msg, place.name, address.s_addr, place.id), place);
}

void addPort(const Place& place, const Kind& kind, PyObject* value) {
    uint16_t port = 0;
    storeUnsigned(value, kind, &port);
    checkAdded(pelmoMsg_AddIPPort16(place.msg, place.name, htons(port), place.id), place);
}

void addTruth(const Place& place, PyObject* value) {
    if (!PyBool_Check(value)) raise(PyExc_TypeError, "%R is no bool", value);
    checkAdded(pelmoMsg_AddBool(place.msg, place.name, value == Py_True, place.id), place);
}

// A mapping may contain itself, which Python ends by its RecursionError.
std::unique_ptr<OwnMessage> nestedOf(PyObject* value) {
    if (!isMapping(value)) raise(PyExc_TypeError, "%R is no mapping", value);
    if (Py_EnterRecursiveCall(" while building a message") != 0) raisePending();
    auto nested = std::make_unique<OwnMessage>();
    try {
        fieldsAdd(nested->get(), value);
    } catch (...) {
        Py_LeaveRecursiveCall();
        throw;
    }
    Py_LeaveRecursiveCall();
    return nested;
}

void addScalar(const Place& place, const Kind& kind, PyObject* value) {
    switch (kind.code) {
        case FIELD_BOOL:
            return addTruth(place, value);
        case FIELD_STRING:
            return addString(place, value);
        case FIELD_DATETIME:
            return addDate(place, value);
        case FIELD_IPADDR32:
            return addAddress(place, value);
        case FIELD_IPPORT16:
            return addPort(place, kind, value);
        case FIELD_SUBJECT:
            return checkAdded(
                pelmoMsg_AddSubjectText(place.msg, place.name, Text(value).whole().get(), place.id),
                place);
        case FIELD_OPAQUE:
        case FIELD_XML:
            return addBlock(place, kind.code, value);
        case FIELD_MSG:
            return checkAdded(
                pelmoMsg_AddMsg(place.msg, place.name, nestedOf(value)->get(), place.id), place);
        case FIELD_NONE:
            return checkAdded(pelmoMsg_AddNone(place.msg, place.name, place.id), place);
        default:
            return addNumber(place, kind, value);
    }
}

// Arrays

void addStrings(const Place& place, PyObject* tuple) {
    const Py_ssize_t count = PyTuple_GET_SIZE(tuple);
    std::vector<Text> texts;
    std::vector<const char*> pointers;
    for (Py_ssize_t i = 0; i < count; ++i) {
        texts.emplace_back(PyTuple_GET_ITEM(tuple, i)).whole();
        pointers.push_back(texts.back().get());
    }
    checkAdded(pelmoMsg_AddStringArray(place.msg, place.name, pointers.data(),
                                       static_cast<uint32_t>(count), place.id),
               place);
}

void addMessages(const Place& place, PyObject* tuple) {
    const Py_ssize_t count = PyTuple_GET_SIZE(tuple);
    std::vector<std::unique_ptr<OwnMessage>> messages;
    std::vector<pelmoMsg*> pointers;
    for (Py_ssize_t i = 0; i < count; ++i) {
        messages.push_back(nestedOf(PyTuple_GET_ITEM(tuple, i)));
        pointers.push_back(messages.back()->get());
    }
    checkAdded(pelmoMsg_AddMsgArray(place.msg, place.name, pointers.data(),
                                    static_cast<uint32_t>(count), place.id),
               place);
}

// A buffer of the same numbers goes as it is; others element by element.
bool addBuffer(const Place& place, const Kind& kind, PyObject* value) {
    if (!PyObject_CheckBuffer(value)) return false;
    const Buffer buffer(value);
    if (buffer->ndim != 1 || kindByFormat(buffer->format, buffer->itemsize) != &kind) return false;
    addNumbers(place, kind, buffer->buf, static_cast<size_t>(buffer->len) / kind.sizeBytes);
    return true;
}

void addArray(const Place& place, const Kind& kind, PyObject* value) {
    if (kind.format != 0 && addBuffer(place, kind, value)) return;
    const py::object tuple = tupleOf(value);
    const auto count = static_cast<size_t>(PyTuple_GET_SIZE(tuple.ptr()));
    if (count == 0) raise(PyExc_ValueError, "an array has at least one element");
    if (kind.code == FIELD_STRING) return addStrings(place, tuple.ptr());
    if (kind.code == FIELD_MSG) return addMessages(place, tuple.ptr());
    std::vector<uint8_t> numbers(count * kind.sizeBytes);
    for (size_t i = 0; i < count; ++i) {
        storeNumber(PyTuple_GET_ITEM(tuple.ptr(), static_cast<Py_ssize_t>(i)), kind,
                    &numbers[i * kind.sizeBytes]);
    }
    addNumbers(place, kind, numbers.data(), count);
}

void addValue(const Place& place, const Type& type, PyObject* value) {
    if (type.isArray) return addArray(place, *type.kind, value);
    addScalar(place, *type.kind, value);
}

void addNamed(pelmoMsg* msg, PyObject* name, PyObject* value) {
    const Text text(name);
    (void)text.whole();
    const Place place{msg, text.size() != 0 ? text.get() : nullptr, 0};
    addValue(place, typeOf(value), value);
}

// A Field: name, value, type or None, id.
void addField(pelmoMsg* msg, PyObject* field) {
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    PyObject* type = Py_None;
    unsigned short id = 0;
    if (!PyTuple_Check(field)) raise(PyExc_TypeError, "%R is no Field", field);
    if (PyArg_ParseTuple(field, "OO|OH", &name, &value, &type, &id) == 0) raisePending();
    const Text text(name);
    (void)text.whole();
    const Place place{msg, text.size() != 0 ? text.get() : nullptr, id};
    addValue(place, type == Py_None ? typeOf(value) : typeNamed(Text(type).get()), value);
}

void addItems(pelmoMsg* msg, PyObject* mapping) {
    const py::object items = owned(PyMapping_Items(mapping));
    const Py_ssize_t count = PyList_GET_SIZE(items.ptr());
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject* const item = PyList_GET_ITEM(items.ptr(), i);
        if (!PyTuple_Check(item) || PyTuple_GET_SIZE(item) != 2)
            raise(PyExc_TypeError, "the mapping's items are no pairs");
        addNamed(msg, PyTuple_GET_ITEM(item, 0), PyTuple_GET_ITEM(item, 1));
    }
}

// What a message has, each field as it is.
void addAll(pelmoMsg* msg, pelmoMsg* source) {
    uint32_t count = 0;
    check(pelmoMsg_GetNumFields(source, &count), "a message");
    for (uint32_t i = 0; i < count; ++i) {
        pelmoMsgField field;
        check(pelmoMsg_GetFieldByIndex(source, &field, i), "a message");
        check(pelmoMsg_AddField(msg, &field), "a message");
    }
}

}  // namespace

Text::Text(PyObject* object) {
    if (!PyUnicode_Check(object)) raise(PyExc_TypeError, "%R is no str", object);
    text_ = PyUnicode_AsUTF8AndSize(object, &size_);
    if (text_ != nullptr) [[likely]]
        return;
    PyErr_Clear();
    escaped_ = owned(PyUnicode_AsEncodedString(object, "utf-8", "surrogateescape"));
    text_ = PyBytes_AS_STRING(escaped_.ptr());
    size_ = PyBytes_GET_SIZE(escaped_.ptr());
}

const Text& Text::whole() const {
    if (std::strlen(text_) != static_cast<size_t>(size_))
        raise(PyExc_ValueError, "there is a NUL within a text");
    return *this;
}

void fieldsAdd(pelmoMsg* msg, PyObject* source) {
    if (source == Py_None) return;
    if (PyDict_CheckExact(source)) {
        PyObject* name = nullptr;
        PyObject* value = nullptr;
        Py_ssize_t at = 0;
        while (PyDict_Next(source, &at, &name, &value)) {
            const py::object heldName = py::reinterpret_borrow<py::object>(name);
            const py::object heldValue = py::reinterpret_borrow<py::object>(value);
            addNamed(msg, name, value);
        }
        return;
    }
    if (const Message* message = messageOf(source); message != nullptr)
        return addAll(msg, message->msg);
    if (isMapping(source)) return addItems(msg, source);
    const py::object fields = tupleOf(source);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(fields.ptr()); ++i)
        addField(msg, PyTuple_GET_ITEM(fields.ptr(), i));
}
