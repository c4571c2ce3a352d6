// Objects of Python's as values of fields: the reverse of to_python.h.
//
// An integer without a width is an i32, or where it doesn't fit an i64, or where that doesn't an
// u64. A float is an f64. Bytes, bytearray and a memoryview of bytes are opaque; anything else with
// a buffer of one dimension is an array of its own numbers. A list or tuple is the array of the
// least of these types that holds all its elements. A mapping is a message. pelmo.u16(7), or a
// Field with a type, names the type.
//
// Failure: TypeError for an object without a type, ValueError for a value that can't be sent,
// OverflowError for one that doesn't fit; pelmo.Error for what the library refuses. The message is
// then as good as lost.

#pragma once

#include <string>

#include "python/native/errors.h"
#include "python/native/message.h"

// A text as UTF-8, its surrogate escapes as the bytes that they are for. It lives as long as the
// object that it was made of.
class Text {
  public:
    explicit Text(PyObject* object);
    [[nodiscard]] const char* get() const { return text_; }
    [[nodiscard]] Py_ssize_t size() const { return size_; }
    // For texts that end at their NUL: ValueError where one is within.
    const Text& whole() const;

  private:
    const char* text_ = nullptr;
    Py_ssize_t size_ = 0;
    py::object escaped_;
};

// Adds all fields of a mapping, of an iterable of Fields, or of a Message; none for None.
void fieldsAdd(pelmoMsg* msg, PyObject* source);
