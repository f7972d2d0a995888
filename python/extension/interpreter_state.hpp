// python/extension/interpreter_state.hpp: everything the extension keeps of one Python interpreter, in one structure.
#pragma once

#include <Python.h>

#include <cstdint>
#include <vector>

namespace tala::python {

// The parts, each defined by the file that owns it.
struct StandardTypes;
struct ExceptionTypes;
struct WrapperTypes;
struct NameCache;
struct MemberNameCache;
struct ProgramCache;
struct GlobalsTemplate;
struct ModuleObjects;
struct ClassViews;
struct MonitoringState;

// What the extension keeps of one interpreter: Python objects (types, functions, strings,
// compiled programs) that belong to that interpreter and may be used only under its lock, and
// the tables that map host things to them. In the shared layout there is one instance, in the
// isolated layout one per interpreter; `state()` (interpreters.hpp) gives the one of the
// interpreter the calling thread runs in.
//
// Every field is read and written only by a thread that holds this interpreter's lock, unless
// its comment says otherwise. The parts are made on first use by their owners and never freed:
// interpreters are never finalised, and nothing here is dropped before the process ends (in a
// child of fork the state of an interpreter that did not survive stays, unused).
struct InterpreterState {
    // bridge/to_python.cpp: decimal.Decimal and the datetime types it makes values of.
    StandardTypes* toPythonTypes = nullptr;
    // The datetime module's table of constructors (a PyDateTime_CAPI), when its types are the
    // ones above; null when it is not available.
    const void* dateTimeApi = nullptr;
    bool dateTimeApiTried = false;
    // bridge/from_python.cpp: the standard types it tests for, and traceback.format_exception
    // (one reference each, kept).
    StandardTypes* fromPythonTypes = nullptr;
    PyObject* formatException = nullptr;
    bool formatExceptionLooked = false;
    // bridge/errors.cpp: the exception type of each host error class, both ways; its own lock
    // guards the maps (a type is made with the interpreter lock let go meanwhile).
    ExceptionTypes* exceptionTypes = nullptr;
    // bridge/python_names.cpp: host names as interned strings, by the host string's cell.
    NameCache* nameCache = nullptr;
    // The interned strings of StaticName (python_names.hpp), by the name's index.
    std::vector<PyObject*> staticNames;
    // pyside/member_names.cpp: attribute names (interned strs) to host identifiers.
    MemberNameCache* memberNames = nullptr;
    // pyside/tala_object.cpp: the wrapper types, generic and per host class; its own lock.
    WrapperTypes* wrapperTypes = nullptr;
    // pyside/module_objects.cpp: the one Python object of each host module.
    ModuleObjects* moduleObjects = nullptr;
    // proxies/python_type.cpp: the host classes of the builtin types of plain data, and the class
    // views of this interpreter's Python types; its own lock.
    ClassViews* classViews = nullptr;
    // proxies/python_proxy.cpp: the compiled comparison helper `cmp` (the function object, a
    // reference of ours kept for the life of the interpreter).
    PyObject* compareHelper = nullptr;
    bool compareHelperTried = false;
    // language/program_cache.cpp: compiled programs by their text.
    ProgramCache* programs = nullptr;
    // language/namespace.cpp: the template of evaluation globals.
    GlobalsTemplate* globalsTemplate = nullptr;
    // language/python_support.cpp: the namespace of the helpers written in Python.
    PyObject* supportNamespace = nullptr;
    bool supportLooked = false;
    // language/evaluate.cpp: the locals every code evaluation starts from (its two callables).
    PyObject* codeLocals = nullptr;
    bool codeLocalsTried = false;
    // language/interruption.cpp: tala.python.Interrupted, and the monitoring that raises it.
    PyObject* interruptedType = nullptr;
    bool interruptedTypeTried = false;
    MonitoringState* monitoring = nullptr;
};

}  // namespace tala::python
