// python/pyside/tala_object.hpp: the TalaObject wrapper type family that stands for host values in Python.
#pragma once

#include <Python.h>

#include "tala/tala.hpp"

namespace tala::python {

// A Python object holding a copy of a host value. `value` is null only when creation failed half
// way; every reader tolerates that.
struct TalaObject {
    PyObject_HEAD
    Any* value;
};

// The name shared by the generic wrapper types; the type test compares this very pointer.
extern const char* const kTalaObjectTypeName;

// A new wrapper around a copy of `value` (a new reference), typed by the value's class.
PyObject* wrapHostValue(const Any& value);
// The same for a caller that holds the interpreter lock.
PyObject* wrapHostValueLocked(const Any& value);

// The wrapped host value when `object` is a TalaObject holding one, else null (borrowed from
// the wrapper; copy it before the wrapper may go).
const Any* wrappedHostValue(PyObject* object) noexcept;

// A NUL-terminated copy in malloc'ed memory, for the texts of type objects and their tables,
// which live as long as the types (for ever).
char* copyToMalloc(std::string_view text);

// The wrapper type chosen for instances of a host class (borrowed; types live for ever).
PyTypeObject* wrapperTypeFor(const Class_Generic& cls);

namespace testing {
// The generic types by their slot tables, for tests: 0 callable, 1 minimal, 2 full sequence,
// 3 set-like with mapping, 4 full sequence with mapping.
PyTypeObject* genericType(int which);
}  // namespace testing

}  // namespace tala::python
