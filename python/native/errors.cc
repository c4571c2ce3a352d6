#include "python/native/errors.h"

#include <cstdarg>
#include <utility>

namespace {

PyObject* makeError;

}  // namespace

void errorsUse(py::object maker) {
    Py_XDECREF(std::exchange(makeError, maker.release().ptr()));
}

void raiseStatus(pelmoStatus status, const char* where) {
    const py::object error = owned(PyObject_CallFunction(makeError, "Is", status, where));
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
    raisePending();
}

void raise(PyObject* type, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    PyErr_FormatV(type, format, arguments);
    va_end(arguments);
    raisePending();
}
