// Values of fields as objects of Python's.
//
//     bool                bool            datetime        datetime.datetime, with UTC as its zone
//     i8 ... u64, port    int             ip              ipaddress.IPv4Address
//     f32, f64            float           opaque          bytes
//     string, subject     str             xml             pelmo.xml, which is bytes
//     none                None            msg             pelmo.Message
//     arrays              list
//
// Text that isn't UTF-8 is kept by surrogate escapes (PEP 383), and is sent again as it came.

#pragma once

#include "python/native/errors.h"

// Classes of the package and of Python's library that values are made of.
void valuesUse(py::object xmlClass, py::object addressClass);

// 1970-01-01 with UTC as its zone, a borrowed reference.
[[nodiscard]] PyObject* pythonEpoch();

[[nodiscard]] py::object textToPython(const char* text, size_t sizeBytes);

// Null where there is no object for the field's type. Raises OverflowError for a date that Python
// doesn't have.
[[nodiscard]] py::object fieldToPython(const pelmoMsgField& field);

// "u16", "u16[]", or the type's number.
[[nodiscard]] py::object typeToPython(uint8_t code);

// The numbers of an array as a memoryview of their own type. Raises TypeError for any other field.
[[nodiscard]] py::object numbersToPython(const pelmoMsgField& field);

// Nanoseconds since 1970 as a date with its zone; what is below a microsecond is cut off.
[[nodiscard]] py::object timeToPython(int64_t seconds, int64_t nanoseconds);
