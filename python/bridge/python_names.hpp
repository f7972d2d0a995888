// python/bridge/python_names.hpp: host names as Python's interned strings, made once.
#pragma once

#include <Python.h>

#include "tala/tala.hpp"

namespace tala::python {

// The interned Python string for a host name (borrowed: a cache keeps it), or null with the
// Python error set when the text is not UTF-8. Names that go into dictionaries over and over
// (the locals of every evaluation) are decoded and interned once, not on every use. The caller
// holds the interpreter lock.
PyObject* pythonName(const String& name);

// An interned Python string for a fixed name of ours ("__builtins__", "self"), made on first
// use and kept for the process (borrowed). The caller holds the interpreter lock.
class StaticName {
public:
    explicit constexpr StaticName(const char* text) noexcept : text_(text) {}
    PyObject* get() {
        if (object_ == nullptr) object_ = PyUnicode_InternFromString(text_);
        return object_;
    }

private:
    const char* text_;
    PyObject* object_ = nullptr;  // written once under the interpreter lock
};

}  // namespace tala::python
