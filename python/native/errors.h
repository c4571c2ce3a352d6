// What goes wrong, as Python exceptions.
//
// Ownership: objects of Python's that are kept for the life of the process are never released: it
// may end with the interpreter gone already.
//
// Threads: with the interpreter's lock.

#pragma once

#include <pybind11/pybind11.h>

#include "lib/pelmo.h"

namespace py = pybind11;

// Names what makes the exception of a status: a callable (status, where) of the package.
void errorsUse(py::object maker);

// `where` says in short what failed; it may be empty.
[[noreturn]] void raiseStatus(pelmoStatus status, const char* where);

inline void check(pelmoStatus status, const char* where) {
    if (status != kStatusSuccess) [[unlikely]]
        raiseStatus(status, where);
}

// An exception of Python's own: PyExc_TypeError and the like. Formats as of PyErr_Format, so %R is
// an object.
[[noreturn]] void raise(PyObject* type, const char* format, ...);

// The error that Python has set already.
[[noreturn]] inline void raisePending() {
    throw py::error_already_set();
}

// A new reference that a call of Python's returned, or its error.
inline py::object owned(PyObject* made) {
    if (made == nullptr) raisePending();
    return py::reinterpret_steal<py::object>(made);
}
