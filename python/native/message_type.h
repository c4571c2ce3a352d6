// What Python programs see of a message: the class Message, a mapping whose values are made as they
// are read. What a read gives is a copy.
//
// Threads: with the interpreter's lock.

#pragma once

#include "python/native/errors.h"

void messageDefine(py::module_& module);

// The package's named tuples of a field, and of one that isn't understood.
void messageUse(py::object fieldClass, py::object rawClass);
