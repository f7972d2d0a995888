// python/bridge/python_names.hpp: host names as Python's interned strings, made once.
#pragma once

#include <Python.h>

#include <cstddef>

#include "tala/tala.hpp"

namespace tala::python {

// The interned Python string for a host name (borrowed: a cache keeps it), or null with the
// Python error set when the text is not UTF-8. Names that go into dictionaries over and over
// (the locals of every evaluation) are decoded and interned once, not on every use. The caller
// holds the interpreter lock.
PyObject* pythonName(const String& name);

// An interned Python string for a fixed name of ours ("__builtins__", "self"): one per
// interpreter, made on first use there and kept (borrowed). Define one as a namespace-scope
// object; the caller of get() holds the lock of the interpreter it runs in.
class StaticName {
public:
    explicit StaticName(const char* text) noexcept;
    PyObject* get();

private:
    const char* text_;
    std::size_t index_;  // its slot in every interpreter's InterpreterState::staticNames
};

}  // namespace tala::python
