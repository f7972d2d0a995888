// python/bridge/module_attribute.hpp: looking up a standard module's type once.
#pragma once

#include <Python.h>

#include "extension/gil.hpp"

namespace tala::python {

// The attribute `name` of the module `moduleName`, borrowed from the module's dictionary: the
// module stays alive in sys.modules, so the reference stays valid. Null (no error left set)
// when the import or the look-up fails. The caller holds the interpreter lock.
PyObject* moduleAttribute(const char* moduleName, const char* name);

// The attribute `name` of `object` (a new reference), or null with the error cleared: for
// look-ups where a missing attribute is an answer, not a failure. Interpreter lock held.
PyObjectPtr attributeOrNull(PyObject* object, const char* name);

// One attribute of a standard module (a type, mostly), looked up on first use and kept for the
// life of the process; null for good when the look-up failed.
class StandardAttribute {
public:
    StandardAttribute(const char* moduleName, const char* name) noexcept : moduleName_(moduleName), name_(name) {}
    PyObject* get() {
        makeOnce(state_, [this] { value_ = moduleAttribute(moduleName_, name_); });
        return value_;
    }

private:
    const char* moduleName_;
    const char* name_;
    MadeOnce state_;
    PyObject* value_ = nullptr;
};

// The standard types the conversions test for and make. Each direction of conversion keeps its
// own set, filled on first use.
struct StandardTypes {
    StandardAttribute decimal{"decimal", "Decimal"};
    StandardAttribute date{"datetime", "date"};
    StandardAttribute time{"datetime", "time"};
    StandardAttribute dateTime{"datetime", "datetime"};
};

}  // namespace tala::python
