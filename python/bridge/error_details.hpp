// python/bridge/error_details.hpp: what a host error made from a Python exception tells besides its message.
#pragma once

#include <Python.h>

#include <string_view>

#include "tala/tala.hpp"

namespace tala::python {

// Where an exception was raised, when it was raised by evaluated code: the code object the
// evaluation ran and the text it was compiled from, so that the traceback can show the lines of
// code that is in no file. With `generatedTop`, the code object's own frame (the statements the
// evaluation wrapped around the code) is left out of the traceback.
struct ExceptionOrigin {
    PyObject* program = nullptr;  // borrowed, for the duration of the call
    std::string_view source;
    bool generatedTop = false;
};

// The names of the two properties.
extern const Identifier kExceptionTypeProperty;  // "exceptionType"
extern const Identifier kTracebackProperty;      // "traceback"
extern const Identifier kExitStatusProperty;     // "exitStatus"

// Gives the host error made from `exception` two properties of its own: `exceptionType`, the
// exception's qualified type name ("KeyError", "json.decoder.JSONDecodeError"), and
// `traceback`, the report Python's own program prints for it ("Traceback (most recent call
// last):", the frames, the last line), formatted when first read. A SystemExit whose code is a
// number or None also gives `exitStatus`: the status Python's own program would end with. The
// caller holds the lock.
void describeException(const Error& error, PyObject* exception, const ExceptionOrigin* origin);

// For a host error that Python code raised and did not catch (its exception carries the error):
// gives it the `exceptionType` and `traceback` of the exception, so that the report shows where
// the script was when the error came. The error stays the very host error; raised into Python
// again, it makes a new exception. The caller holds the lock.
void describeCarriedException(const Error& error, PyObject* exception, const ExceptionOrigin* origin);

// The Python exception a host error was made from (borrowed: the error keeps it), or null.
PyObject* originalException(const Error& error);

}  // namespace tala::python
