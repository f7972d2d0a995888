// tests/python/support/test_host_module.hpp: the host module "testhost" that the tests of the
// wrapper type use, and the fixture that puts it into a Python globals dictionary.
//
// The module is registered the way an extension registers one: init handlers added from a static
// initialiser (priority 1 for the classes, 4 for the functions), run by tala::run_init_handlers().
//
// Module "testhost":
//   Widget      label, size, a field `tag`; read-write `size`, read-only `label`, `area`, `status`,
//               `lazy`, `broken` (its getter answers a TestError), `_secret`; the class property
//               `created`; methods grow(by), add(a, b) (no documentation), status(), merge(other),
//               _private(); the static method make(size); convertible into text, bytes, booleans.
//   TestError   an error class derived from Error.
//   Reflective  answers the property "answer" and the method "greet" through __property__ and
//               __method__; its ordinary members `plain` and plainMethod() are reached only by
//               the look-up that bypasses them.
//   Deck        a sequence (length, at, contains, iter) without __add__ and __mul__ but with
//               concat(other) and repeat(count).
//   Point       x and y with __sub__ and __div__, displayed "Point(x, y)", compared by value.
//   Snippet     a name and a code text (I_HasName, I_HasCode).
//   Ledger      a mutable map with get, set, remove and length, but no contains; its get answers
//               the key 'broken' with a TestError.
//   Money       an immutable amount and currency, compared by both, without a hash of its own.
//   functions   join(a, b) -> "a-b"; add(a, b) -> a + b; fail(message) answers a TestError;
//               record(a, b, k) records what it got; numbers() -> [1, 2, 3];
//               lazy_text(), lazy_error() answer lazy values.
// The test module also gives every lazy value two members of its own: the property `resolved`
// and the method orElse(fallback).
#pragma once

#include <Python.h>

#include <cstdint>
#include <string>

#include "python_test_support.hpp"
#include "tala/tala.hpp"

namespace tala_python_test::testhost {

// Runs the init handlers once and starts the interpreter; safe to call any number of times.
void start();

tala::Module module();
tala::Class_Generic widgetClass();
tala::Class_Generic errorClass();
tala::Class_Generic reflectiveClass();
tala::Class_Generic deckClass();
tala::Class_Generic pointClass();
tala::Class_Generic ledgerClass();
tala::Class_Generic moneyClass();
// The number of calls of Ledger.get so far.
std::int64_t ledgerReads();

// A Widget made through the class, as Python makes it.
tala::Any makeWidget(std::string_view label, std::int64_t size);
// Widgets alive right now, and made so far.
std::int64_t liveWidgets();
std::int64_t createdWidgets();

// What `record` was given, one entry per call: a host list of the positional arguments, or a
// host map of the named ones.
tala::List<tala::Any> recordedCalls();

}  // namespace tala_python_test::testhost

namespace tala_python_test {

// A suite whose tests run Python code with the module "testhost" in its globals. Each test gets
// a fresh globals dictionary and ends with no Python error pending.
class HostTest : public PythonTest {
protected:
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override;

    // Puts a host value into the globals under `name`, converted as Python receives host values.
    void put(const char* name, const tala::Any& value);
    // Runs statements; true when they ran without raising (a failure is reported and cleared).
    bool run(const char* code);
    // The value of an expression, or null when it raised (reported and cleared).
    PyObjectPtr eval(const char* expression);
    // repr() of an expression's value, or "<raised Type: message>".
    std::string repr(const char* expression);
    // Runs statements that are expected to raise: "Type: message" of what they raised, or
    // "<nothing raised>". The error is cleared.
    std::string raised(const char* code);
    // Runs statements expected to raise a host error: "module.Name: message", the exception's
    // type and the message of the host error it carries in its attribute `tala`.
    std::string raisedHostError(const char* code);
    // The host value of a global, converted back as Python hands values to the host.
    tala::Any hostValue(const char* name);

    PyObject* globals() const { return globals_.get(); }

private:
    PyObjectPtr globals_;
};

}  // namespace tala_python_test
