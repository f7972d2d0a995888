// tests/fuzz/fuzz_support.hpp: what the fuzz targets share: the start of the extension, the
// checks that abort a run (a Python error left pending, a failure without an exception), and a
// walk over a host value that uses it the way host code does.
#pragma once

#include <Python.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "tala/tala.hpp"

namespace tala_fuzz {

using tala::Any;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;

// Ends the run with a message; libFuzzer then writes the input to a crash file.
[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "\nFUZZ TARGET FAILURE: %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

// "Type: message" of the pending Python error, which is cleared.
inline std::string takePendingError() {
    GilGuard gil;
    PyObject* raised = PyErr_GetRaisedException();
    if (raised == nullptr) return "<none>";
    PyObjectPtr exception = PyObjectPtr::steal(raised);
    std::string text = Py_TYPE(raised)->tp_name;
    PyObjectPtr message = PyObjectPtr::steal(PyObject_Str(raised));
    const char* utf8 = message ? PyUnicode_AsUTF8(message.get()) : nullptr;
    if (utf8 != nullptr) text += std::string(": ") + utf8;
    PyErr_Clear();
    return text;
}

// After a host operation: no Python error may be left pending on this thread.
inline void expectNothingPending(const char* operation) {
    GilGuard gil;
    if (PyErr_Occurred() != nullptr) fail(std::string("a Python error was left pending after ") + operation + ": " + takePendingError());
}

// After a Python operation that reports failure by its result: a failure comes with an exception
// (which is cleared, the operation may fail), a success without one.
inline void expectConsistent(const char* operation, bool failed) {
    GilGuard gil;
    const bool pending = PyErr_Occurred() != nullptr;
    if (failed && !pending) fail(std::string(operation) + " failed without setting an exception");
    if (!failed && pending) fail(std::string(operation) + " succeeded with an exception set: " + takePendingError());
    PyErr_Clear();
}

// Runs Python statements in a fresh module namespace and answers it; aborts when they raise.
inline PyObjectPtr runSetup(const char* code) {
    GilGuard gil;
    PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
    PyDict_SetItemString(globals.get(), "__builtins__", PyEval_GetBuiltins());
    PyObjectPtr done = PyObjectPtr::steal(PyRun_String(code, Py_file_input, globals.get(), globals.get()));
    if (!done) fail("the set-up code raised " + takePendingError());
    return globals;
}

// Starts the extension the way the host does: the init handlers, which start the interpreter.
// Python's objects come from the system allocator, so that LeakSanitizer sees through them.
inline void start() {
    setenv("PYTHONMALLOC", "malloc", 0);
    const Any handlers = tala::run_init_handlers();
    if (!handlers.isEmpty()) fail("start-up failed: " + tala::display(handlers).toStdString());
    if (!tala::python::ensurePythonOnce()) fail("the interpreter did not start");
}

// Uses a host value the way host code does: display, comparison and hash, joining, iteration,
// indexing, length, map look-ups, membership, member look-up and calls, and the round trip
// through Python. Every step must leave no Python error pending. Items found on the way are
// walked too, within `budget` steps in all.
class Walker {
public:
    Walker(FuzzedDataProvider& input, int budget, bool callInvokables)
        : input_(input), budget_(budget), callInvokables_(callInvokables) {}

    void walk(const Any& value, const Any& other, int depth = 0) {
        if (--budget_ < 0 || depth > 3) return;
        step("display", [&] { (void)tala::display(value); });
        step("compare_objects", [&] {
            (void)tala::compare_objects(value, value);
            (void)tala::compare_objects(value, other);
            (void)tala::compare_objects(other, value);
        });
        step("hash_of", [&] { (void)tala::hash_of(value); });
        step("String::join", [&] { (void)tala::String::join(value, ", "); });
        iterate(value, other, depth);
        index(value, other, depth);
        lookUp(value, other);
        callMembers(value, other);
        roundTrip(value);
    }

private:
    template <class Step>
    void step(const char* operation, Step&& run) {
        run();
        expectNothingPending(operation);
    }

    std::int64_t pickIndex(std::int64_t length) {
        switch (input_.ConsumeIntegralInRange<int>(0, 5)) {
            case 0: return 0;
            case 1: return -1;
            case 2: return length;
            case 3: return length > 0 ? length - 1 : 0;
            case 4: return input_.ConsumeIntegral<std::int64_t>();
            default: return input_.ConsumeIntegralInRange<std::int64_t>(-3, 8);
        }
    }

    void iterate(const Any& value, const Any& other, int depth) {
        auto iterable = tala::I_Iterable_Generic::cast(value);
        if (!iterable) return;
        Any iterator;
        step("I_Iterable::iter", [&] { iterator = tala::resolve(iterable->iter()); });
        step("I_Iterable::contains", [&] { (void)tala::resolve(iterable->contains(other)); });
        auto next = tala::I_Iterator_Generic::cast(iterator);
        if (!next) return;
        for (int count = 0; count < 12; ++count) {
            Any item;
            step("I_Iterator::next", [&] { item = tala::resolve(next->next()); });
            if (tala::is_error_result(item)) break;  // StopIteration is an error value too
            if (count < 2) walk(item, other, depth + 1);
        }
    }

    void index(const Any& value, const Any& other, int depth) {
        if (auto sequence = tala::I_Sequence_Generic::cast(value)) {
            Any length;
            step("I_Sequence::length", [&] { length = tala::resolve(sequence->length()); });
            const std::int64_t size = length.kind() == tala::Kind::Integer ? length.rawInteger() : 0;
            for (int count = 0; count < 3; ++count) {
                Any item;
                step("I_Sequence::at", [&] { item = tala::resolve(sequence->at(pickIndex(size))); });
                if (count == 0) walk(item, other, depth + 1);
            }
        }
        if (auto tuple = tala::I_Tuple_Generic::cast(value)) {
            step("I_Tuple::at", [&] { (void)tala::resolve(tuple->at(pickIndex(2))); });
        }
    }

    void lookUp(const Any& value, const Any& other) {
        if (auto map = tala::I_Map_Generic::cast(value)) {
            Any keys;
            step("I_Map::keys", [&] { keys = tala::resolve(map->keys()); });
            step("I_Map::values", [&] { (void)tala::resolve(map->values()); });
            step("I_Map::length", [&] { (void)tala::resolve(map->length()); });
            step("I_Map::get", [&] { (void)tala::resolve(map->get(other)); });
            step("I_Map::contains", [&] { (void)tala::resolve(map->contains(other)); });
            if (auto list = tala::List_Generic::cast(keys); list && !list->isEmpty()) {
                step("I_Map::get of a key", [&] { (void)tala::resolve(map->get((*list)[0])); });
            }
        }
        if (auto set = tala::I_Set_Generic::cast(value)) {
            step("I_Set::contains", [&] { (void)tala::resolve(set->contains(other)); });
            step("I_Set::length", [&] { (void)tala::resolve(set->length()); });
        }
    }

    void callMembers(const Any& value, const Any& other) {
        static const char* const kNames[] = {"__len__", "keys", "get", "__class__", "__dict__", "append", "__repr__", "missing"};
        const std::string name = input_.ConsumeBool() ? std::string(kNames[input_.ConsumeIntegralInRange<int>(0, 7)])
                                                      : input_.ConsumeRandomLengthString(12);
        Any member;
        step("boundMethod", [&] { member = value.boundMethod(tala::Identifier::intern(name)); });
        step("fieldValue", [&] { (void)value.fieldValue(tala::Identifier::intern(name)); });
        if (!callInvokables_) return;
        if (auto invokable = tala::I_Invokable_Generic::cast(member)) {
            step("a bound method's call", [&] { (void)tala::resolve(invokable->invokeWith({})); });
        }
        if (auto invokable = tala::I_Invokable_Generic::cast(value)) {
            step("call without arguments", [&] { (void)tala::resolve(invokable->invokeWith({})); });
            step("call with one argument", [&] { (void)tala::resolve(invokable->invokeWith({other})); });
        }
    }

    void roundTrip(const Any& value) {
        GilGuard gil;
        PyObjectPtr object = PyObjectPtr::steal(tala::python::to_python(value));
        // A host value Python cannot hold (an Error, an invalid date) raises instead.
        expectConsistent("to_python", !object);
        if (!object) return;
        const Any back = tala::python::from_python_result(object.get());
        expectNothingPending("from_python_result");
        (void)back;
    }

    FuzzedDataProvider& input_;
    int budget_;
    bool callInvokables_;
};

}  // namespace tala_fuzz
