#include "python/native/message_type.h"

#include <arpa/inet.h>

#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "python/native/from_python.h"
#include "python/native/message.h"
#include "python/native/to_python.h"

namespace {

PyObject* fieldType;
PyObject* rawType;

// Releases at its end what the library kept for the reads in between, so that a message that is
// read often doesn't grow.
class Reading {
  public:
    explicit Reading(pelmoMsg* msg) : msg_(msg) {
        if (libraryIsLost()) libraryNeed();
        check(pelmoMsg_MarkReferences(msg), "reading a message");
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;
    ~Reading() { pelmoMsg_ClearReferences(msg_); }

  private:
    pelmoMsg* msg_;
};

uint32_t fieldsOf(pelmoMsg* msg) {
    uint32_t count = 0;
    check(pelmoMsg_GetNumFields(msg, &count), "reading a message");
    return count;
}

// The number and bytes of a field's type in the message, for a field that isn't understood.
py::object rawAt(pelmoMsg* msg, uint32_t index) {
    pelmoMsgField field;
    check(pelmoMsg_GetFieldBytes(msg, &field, index), "reading a field");
    const auto* bytes = static_cast<const char*>(field.data.pointer);
    const py::bytes data(bytes != nullptr ? bytes : "", bytes != nullptr ? field.size : 0);
    return owned(PyObject_CallFunction(rawType, "iO", field.type, data.ptr()));
}

// Each type of its own: what can't be decoded, or has no object, is shown as it came.
py::object valueAt(pelmoMsg* msg, uint32_t index, pelmoMsgField& field) {
    const pelmoStatus status = pelmoMsg_GetFieldByIndex(msg, &field, index);
    if (status == kStatusNoMemory) check(status, "reading a field");
    py::object value;
    if (status == kStatusSuccess) value = fieldToPython(field);
    if (value) return value;
    value = rawAt(msg, index);
    check(pelmoMsg_GetFieldBytes(msg, &field, index), "reading a field");
    return value;
}

py::object nameOf(const pelmoMsgField& field) {
    const char* name = field.name != nullptr ? field.name : "";
    return textToPython(name, std::char_traits<char>::length(name));
}

// The first field of the name: its index, or false.
bool findRaw(pelmoMsg* msg, const char* name, uint32_t& index) {
    const std::string_view wanted = name != nullptr ? name : "";
    const uint32_t count = fieldsOf(msg);
    for (index = 0; index < count; ++index) {
        pelmoMsgField field;
        check(pelmoMsg_GetFieldBytes(msg, &field, index), "reading a field");
        if (wanted == (field.name != nullptr ? field.name : "")) return true;
    }
    return false;
}

// Empty where there is no such field.
py::object find(const Message& message, PyObject* name) {
    const Text text(name);
    const char* wanted = text.size() != 0 ? text.whole().get() : nullptr;
    const Reading reading(message.msg);
    pelmoMsgField field;
    const pelmoStatus status = pelmoMsg_GetFieldEx(message.msg, wanted, &field, 0);
    if (status == kStatusNotFound) return {};
    if (status == kStatusCorruptMessage || status == kStatusNoMemory)
        check(status, "reading a message");
    py::object value;
    if (status == kStatusSuccess) value = fieldToPython(field);
    if (value) return value;
    uint32_t index = 0;
    return findRaw(message.msg, wanted, index) ? rawAt(message.msg, index) : py::object();
}

py::object getItem(const Message& message, py::object name) {
    py::object value = find(message, name.ptr());
    if (value) return value;
    PyErr_SetObject(PyExc_KeyError, name.ptr());
    raisePending();
}

py::object get(const Message& message, const py::object& name, const py::object& fallback) {
    py::object value = find(message, name.ptr());
    return value ? value : fallback;
}

// The fields by name, the first of each name. With `values` false each value is None.
py::dict toDict(const Message& message, bool values) {
    const Reading reading(message.msg);
    const uint32_t count = fieldsOf(message.msg);
    py::dict dict;
    for (uint32_t i = 0; i < count; ++i) {
        pelmoMsgField field;
        check(pelmoMsg_GetFieldBytes(message.msg, &field, i), "reading a field");
        const py::object name = nameOf(field);
        if (dict.contains(name)) continue;
        dict[name] = values ? valueAt(message.msg, i, field) : py::none();
    }
    return dict;
}

bool contains(const Message& message, py::object name) {
    return PyUnicode_Check(name.ptr()) && toDict(message, false).contains(name);
}

py::list fields(const Message& message) {
    const Reading reading(message.msg);
    const uint32_t count = fieldsOf(message.msg);
    py::list list;
    for (uint32_t i = 0; i < count; ++i) {
        pelmoMsgField field;
        const py::object value = valueAt(message.msg, i, field);
        list.append(owned(PyObject_CallFunction(fieldType, "OOOH", nameOf(field).ptr(), value.ptr(),
                                                typeToPython(field.type).ptr(), field.id)));
    }
    return list;
}

py::object numbers(const Message& message, py::object name) {
    const Text text(name.ptr());
    const Reading reading(message.msg);
    pelmoMsgField field;
    const pelmoStatus status = pelmoMsg_GetFieldEx(
        message.msg, text.size() != 0 ? text.whole().get() : nullptr, &field, 0);
    if (status == kStatusNotFound) {
        PyErr_SetObject(PyExc_KeyError, name.ptr());
        raisePending();
    }
    check(status, "reading an array");
    return numbersToPython(field);
}

py::object equal(const Message& message, py::object other) {
    if (!PyMapping_Check(other.ptr()) || !PyObject_HasAttrString(other.ptr(), "keys"))
        return py::reinterpret_borrow<py::object>(Py_NotImplemented);
    const py::dict own = toDict(message, true);
    const py::object theirs =
        owned(PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyDict_Type), other.ptr()));
    return owned(PyObject_RichCompare(own.ptr(), theirs.ptr(), Py_EQ));
}

template <auto kRead>
py::object subjectBy(const Message& message) {
    const Reading reading(message.msg);
    const char* text = nullptr;
    const pelmoStatus status = kRead(message.msg, &text);
    if (status == kStatusNotFound || (status == kStatusSuccess && text == nullptr))
        return py::none();
    check(status, "reading a subject");
    return textToPython(text, std::char_traits<char>::length(text));
}

py::object represent(const Message& message) {
    const Reading reading(message.msg);
    const char* text = nullptr;
    check(pelmoMsg_ConvertToString(message.msg, &text), "the text of a message");
    const py::object words = textToPython(text, std::char_traits<char>::length(text));
    return owned(PyUnicode_FromFormat("<pelmo.Message %U>", words.ptr()));
}

std::unique_ptr<Message> fromPython(py::object source, py::kwargs more) {
    libraryNeed();
    OwnMessage own;
    fieldsAdd(own.get(), source.ptr());
    fieldsAdd(own.get(), more.ptr());
    auto message = std::make_unique<Message>(own.get(), 0);
    own.release();
    return message;
}

// The length in the head, which the library takes on trust.
bool holdsImage(const py::bytes& bytes) {
    const auto all = static_cast<std::string_view>(bytes);
    uint32_t sizeBytes = 0;
    if (all.size() < sizeof sizeBytes) return false;
    std::memcpy(&sizeBytes, all.data(), sizeof sizeBytes);
    return ntohl(sizeBytes) <= all.size();
}

std::unique_ptr<Message> fromBytes(const py::bytes& bytes) {
    libraryNeed();
    if (!holdsImage(bytes)) raiseStatus(kStatusCorruptMessage, "the bytes of a message");
    pelmoMsg* msg = nullptr;
    check(pelmoMsg_CreateFromBytes(&msg, PyBytes_AS_STRING(bytes.ptr())), "the bytes of a message");
    OwnMessage own(msg);
    auto message = std::make_unique<Message>(msg, 0);
    own.release();
    return message;
}

py::object bytesOf(const Message& message) {
    libraryNeed();
    const void* bytes = nullptr;
    uint32_t sizeBytes = 0;
    check(pelmoMsg_GetAsBytes(message.msg, &bytes), "the bytes of a message");
    check(pelmoMsg_GetByteSize(message.msg, &sizeBytes), "the bytes of a message");
    return owned(PyBytes_FromStringAndSize(static_cast<const char*>(bytes), Py_ssize_t{sizeBytes}));
}

constexpr const char* kMessageDoc =
    "Message(fields=None, /, **more)\n\n"
    "A message: a mapping of the names of its fields to their values, in their order.\n\n"
    "Values are made as they are read, and are the program's own. Names may repeat: the mapping "
    "shows the\n"
    "first field of each name, fields() all of them, with types and ids. A field whose type has "
    "no\n"
    "object of Python's is a Raw. A message doesn't change.\n\n"
    "fields: a mapping, another message, or Fields in their order.";

}  // namespace

void messageUse(py::object fieldClass, py::object rawClass) {
    Py_XDECREF(std::exchange(fieldType, fieldClass.release().ptr()));
    Py_XDECREF(std::exchange(rawType, rawClass.release().ptr()));
}

void messageDefine(py::module_& module) {
    py::class_<Message>(module, "Message", kMessageDoc)
        .def(py::init(&fromPython), py::arg("fields") = py::none(), py::pos_only())
        .def("__getitem__", &getItem)
        .def("__contains__", &contains)
        .def("__len__", [](const Message& self) { return toDict(self, false).size(); })
        .def("__iter__",
             [](const Message& self) { return owned(PyObject_GetIter(toDict(self, false).ptr())); })
        .def("__eq__", &equal)
        .def("__repr__", &represent)
        .def("__bytes__", &bytesOf)
        .def("__copy__", [](py::object self) { return self; })
        .def(
            "__deepcopy__", [](py::object self, const py::object&) { return self; },
            py::arg("memo"))
        .def_static("from_bytes", &fromBytes, py::arg("bytes"), py::pos_only(),
                    "A message of what bytes(message) gave.")
        .def("get", &get, py::arg("name"), py::arg("default") = py::none(), py::pos_only(),
             "The value of the first field of that name, or the default.")
        .def(
            "keys", [](const Message& self) { return toDict(self, false).attr("keys")(); },
            "The names of the fields.")
        .def(
            "values", [](const Message& self) { return toDict(self, true).attr("values")(); },
            "The values of the fields.")
        .def(
            "items", [](const Message& self) { return toDict(self, true).attr("items")(); },
            "Names and values.")
        .def("fields", &fields, "All fields in their order, as a list of Field.")
        .def("numbers", &numbers, py::arg("name"), py::pos_only(),
             "An array of numbers as a memoryview, which numpy and array read without a loop.")
        .def_property_readonly("subject", &subjectBy<pelmoMsg_GetSendSubject>,
                               "The subject that it was sent on, or None.")
        .def_property_readonly("reply", &subjectBy<pelmoMsg_GetReplySubject>,
                               "The subject where its sender waits for an answer, or None.")
        .def_property_readonly(
            "time",
            [](const Message& self) -> py::object {
                if (self.takenAtNs == 0) return py::none();
                return timeToPython(self.takenAtNs / 1'000'000'000, self.takenAtNs % 1'000'000'000);
            },
            "When this program took it, with UTC as its zone; None for a message of its own.");
}
