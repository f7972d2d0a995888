// tests/python/bridge/error_roundtrip_test.cpp: host errors through Python and back as themselves,
// Python exceptions as host errors, and the host class that stands for a Python exception type.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "proxies/python_type.hpp"
#include "python_test_support.hpp"

namespace {

using tala::Any;
using tala::python::exception_type_for;
using tala::python::fetch_python_error;
using tala::python::from_python;
using tala::python::GilGuard;
using tala::python::host_error_class_for;
using tala::python::PyObjectPtr;
using tala::python::to_python;
using tala_python_test::evalPython;
using tala_python_test::newGlobals;
using tala_python_test::PythonTest;
using tala_python_test::runPython;
using tala_python_test::takePendingError;
using tala_python_test::textOf;

// A host error class of this test program, derived from Error.
tala::Class_Generic roundTripErrorClass() {
    static const tala::Class_Generic cls =
        tala::ClassBuilder("RoundTripError").parent(tala::Error::getClass()).doc("An error of the tests.").build();
    return cls;
}

class ErrorRoundTripTest : public PythonTest {
protected:
    // Raises `error` in Python; to_python of an error always fails with it set.
    static void raise(const tala::Error& error) {
        GilGuard gil;
        PyObject* result = to_python(error);
        EXPECT_EQ(result, nullptr);
        EXPECT_NE(PyErr_Occurred(), nullptr);
    }

    // The pending exception as a host error; the test fails when there is none.
    static tala::Error fetch() {
        GilGuard gil;
        auto pending = fetch_python_error();
        EXPECT_EQ(PyErr_Occurred(), nullptr);
        if (!pending.is<tala::Error>()) {
            ADD_FAILURE() << "no error was pending";
            return tala::Error(tala::String("<none>"));
        }
        return pending.as<tala::Error>();
    }

    // Runs statements that must raise; the exception stays pending.
    static void runRaising(const char* code, PyObject* globals) {
        GilGuard gil;
        PyObjectPtr result = PyObjectPtr::steal(PyRun_String(code, Py_file_input, globals, globals));
        EXPECT_FALSE(result) << code;
        EXPECT_NE(PyErr_Occurred(), nullptr) << code;
    }
};

// ---- Host errors keep their identity ---------------------------------------------------------

TEST_F(ErrorRoundTripTest, DerivedHostErrorComesBackAsTheSameObject) {
    GilGuard gil;
    const tala::Error error(roundTripErrorClass(), tala::String("boom"));
    raise(error);
    const tala::Error back = fetch();
    EXPECT_EQ(back.cell(), error.cell());
    EXPECT_EQ(back.message().view(), "boom");
}

TEST_F(ErrorRoundTripTest, HostErrorCarryingANativeExceptionComesBackAsItself) {
    GilGuard gil;
    const tala::Error error = tala::Error::fromException(std::make_exception_ptr(std::runtime_error("native")));
    raise(error);
    const tala::Error back = fetch();
    EXPECT_EQ(back.cell(), error.cell());
    EXPECT_EQ(back.message().view(), "native");
}

TEST_F(ErrorRoundTripTest, HostErrorCrossingTwiceIsStillTheSameObject) {
    GilGuard gil;
    const tala::Error error(roundTripErrorClass(), tala::String("twice"));
    raise(error);
    const tala::Error once = fetch();
    raise(once);
    const tala::Error twice = fetch();
    EXPECT_EQ(twice.cell(), error.cell());
}

TEST_F(ErrorRoundTripTest, HostErrorCaughtAndReraisedByPythonComesBackAsItself) {
    GilGuard gil;
    const tala::Error error(roundTripErrorClass(), tala::String("through python"));
    raise(error);
    PyObjectPtr exception = PyObjectPtr::steal(PyErr_GetRaisedException());
    ASSERT_TRUE(exception);
    PyObjectPtr globals = newGlobals();
    ASSERT_EQ(PyDict_SetItemString(globals.get(), "caught", exception.get()), 0);
    runRaising("try:\n"
               "    raise caught\n"
               "except RuntimeError as again:\n"
               "    raise again\n",
               globals.get());
    const tala::Error back = fetch();
    EXPECT_EQ(back.cell(), error.cell());

    // The exception object itself, converted without being raised, gives the same error too.
    const Any converted = from_python(exception.get());
    EXPECT_EQ(converted.cell(), error.cell());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// A script may set the attribute `tala` itself, also to the exception (or a ring of exceptions):
// the conversion must not follow it round for ever (it did, until the stack ran out).
TEST_F(ErrorRoundTripTest, ExceptionCarryingItselfBecomesAnErrorWithItsOwnMessage) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    ASSERT_TRUE(runPython("itself = ValueError('carries itself')\n"
                          "itself.tala = itself\n"
                          "first = KeyError('first')\n"
                          "second = KeyError('second')\n"
                          "first.tala = second\n"
                          "second.tala = first\n",
                          globals.get()));
    const Any itself = from_python(PyDict_GetItemString(globals.get(), "itself"));
    ASSERT_TRUE(tala::Error::matches(itself)) << tala::display(itself).toStdString();
    EXPECT_EQ(tala::Error(tala::internal::unchecked, itself).message(), "carries itself");
    const Any ring = from_python(PyDict_GetItemString(globals.get(), "first"));
    ASSERT_TRUE(tala::Error::matches(ring)) << tala::display(ring).toStdString();
    // Which exception of the ring the error is made from is left open; that it ends is not.
    const std::string message = tala::Error(tala::internal::unchecked, ring).message().toStdString();
    EXPECT_TRUE(message == "'first'" || message == "'second'") << message;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ErrorRoundTripTest, ExceptionOfAHostTypeRaisedByPythonBecomesAnInstanceOfThatClass) {
    GilGuard gil;
    PyObject* type = exception_type_for(roundTripErrorClass());
    ASSERT_NE(type, PyExc_RuntimeError);
    PyObjectPtr globals = newGlobals();
    ASSERT_EQ(PyDict_SetItemString(globals.get(), "HostError", type), 0);
    runRaising("raise HostError('made in python')\n", globals.get());
    const tala::Error back = fetch();
    EXPECT_EQ(tala::raw_class_of(back), roundTripErrorClass());
    EXPECT_EQ(back.message().view(), "made in python");
}

// ---- Python exceptions as host errors --------------------------------------------------------

TEST_F(ErrorRoundTripTest, ValueErrorBecomesABaseErrorWithItsMessage) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    runRaising("raise ValueError('bad')\n", globals.get());
    const tala::Error error = fetch();
    EXPECT_EQ(tala::raw_class_of(error), tala::Error::getClass());
    EXPECT_EQ(error.message().view(), "bad");
}

TEST_F(ErrorRoundTripTest, ExceptionOfAPythonClassBecomesABaseError) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    ASSERT_TRUE(runPython("class Custom(Exception): pass\n", globals.get()));
    runRaising("raise Custom('own class', 2)\n", globals.get());
    const tala::Error error = fetch();
    EXPECT_EQ(tala::raw_class_of(error), tala::Error::getClass());
    EXPECT_EQ(error.message().view(), "('own class', 2)");
}

TEST_F(ErrorRoundTripTest, SyntaxErrorMessageIsTheFormattedTraceback) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    ASSERT_TRUE(runPython("import traceback\n"
                          "try:\n"
                          "    compile('x = = 1', '<text>', 'exec')\n"
                          "except SyntaxError as caught:\n"
                          "    error = caught\n"
                          "    expected = ''.join(traceback.format_exception(caught))\n",
                          globals.get()));
    PyObject* expected = PyDict_GetItemString(globals.get(), "expected");
    ASSERT_NE(expected, nullptr);

    // The exception object as it was caught gives exactly the text traceback makes of it.
    const Any converted = from_python(PyDict_GetItemString(globals.get(), "error"));
    ASSERT_TRUE(tala::Error::matches(converted));
    EXPECT_EQ(tala::Error(tala::internal::unchecked, converted).message().view(), textOf(expected));
    EXPECT_EQ(PyErr_Occurred(), nullptr);

    // Raised again, its traceback grows by this statement's frame; the text still names the error.
    runRaising("raise error\n", globals.get());
    const tala::Error fetched = fetch();
    const std::string_view message = fetched.message().view();
    EXPECT_TRUE(message.starts_with("Traceback (most recent call last):\n")) << message;
    EXPECT_TRUE(message.ends_with("    x = = 1\n        ^\nSyntaxError: invalid syntax\n")) << message;
}

TEST_F(ErrorRoundTripTest, SyntaxErrorOfRunningCodeNamesTheError) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    runRaising("x = = 1\n", globals.get());
    const tala::Error error = fetch();
    EXPECT_NE(error.message().view().find("SyntaxError"), std::string_view::npos) << error.message().view();
}

TEST_F(ErrorRoundTripTest, ExceptionWithFailingStrHasAnEmptyMessage) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    ASSERT_TRUE(runPython("class Unprintable(Exception):\n"
                          "    def __str__(self):\n"
                          "        raise TypeError('no text')\n",
                          globals.get()));
    runRaising("raise Unprintable()\n", globals.get());
    const tala::Error error = fetch();
    EXPECT_TRUE(error.message().isEmpty());
}

TEST_F(ErrorRoundTripTest, PythonStopIterationBecomesHostStopIteration) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    runRaising("raise StopIteration('done')\n", globals.get());
    const tala::Error error = fetch();
    EXPECT_TRUE(tala::StopIteration::matches(error));
    EXPECT_EQ(error.message().view(), "done");
}

TEST_F(ErrorRoundTripTest, FetchWithNothingPendingAnswersNoneAndChangesNothing) {
    GilGuard gil;
    PyObjectPtr probe = evalPython("[1]");
    const Py_ssize_t before = Py_REFCNT(probe.get());
    auto pending = fetch_python_error();
    EXPECT_TRUE(pending.is<tala::None>());
    EXPECT_TRUE(pending.isEmpty());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    EXPECT_EQ(Py_REFCNT(probe.get()), before);
}

TEST_F(ErrorRoundTripTest, FetchTakesThePendingErrorOnlyOnce) {
    GilGuard gil;
    PyErr_SetString(PyExc_KeyError, "once");
    auto first = fetch_python_error();
    ASSERT_TRUE(first.is<tala::Error>());
    EXPECT_EQ(first.as<tala::Error>().message().view(), "'once'");
    EXPECT_TRUE(fetch_python_error().is<tala::None>());
}

TEST_F(ErrorRoundTripTest, FetchOfAnUnnormalizedErrorNormalizesIt) {
    GilGuard gil;
    PyErr_SetObject(PyExc_ValueError, PyObjectPtr::steal(PyUnicode_FromString("raw value")).get());
    const tala::Error error = fetch();
    EXPECT_EQ(error.message().view(), "raw value");
}

// ---- Host classes of Python exception types --------------------------------------------------

TEST_F(ErrorRoundTripTest, NullTypeMapsToError) {
    EXPECT_EQ(host_error_class_for(nullptr), tala::Error::getClass());
}

TEST_F(ErrorRoundTripTest, PythonStopIterationMapsToHostStopIteration) {
    EXPECT_EQ(host_error_class_for(PyExc_StopIteration), tala::StopIteration::getClass());
}

TEST_F(ErrorRoundTripTest, NonTypeMapsToError) {
    GilGuard gil;
    PyObjectPtr one = PyObjectPtr::steal(PyLong_FromLong(1));
    EXPECT_EQ(host_error_class_for(one.get()), tala::Error::getClass());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ErrorRoundTripTest, TypeMadeForAHostClassMapsToThatClass) {
    GilGuard gil;
    PyObject* type = exception_type_for(roundTripErrorClass());
    EXPECT_EQ(host_error_class_for(type), roundTripErrorClass());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ErrorRoundTripTest, PythonExceptionClassMapsToItsClassViewWithErrorAmongItsParents) {
    GilGuard gil;
    const tala::Class_Generic cls = host_error_class_for(PyExc_ValueError);
    EXPECT_TRUE(tala::python::object_value_python_type::matches(cls));
    EXPECT_EQ(cls.name().view(), "ValueError");
    EXPECT_TRUE(tala::is_ancestor(cls, tala::Error::getClass()));
    EXPECT_EQ(tala::python::object_value_python_type(tala::internal::unchecked, cls).pythonType(), PyExc_ValueError);

    PyObjectPtr globals = newGlobals();
    ASSERT_TRUE(runPython("class Custom(KeyError): pass\n", globals.get()));
    const tala::Class_Generic custom = host_error_class_for(PyDict_GetItemString(globals.get(), "Custom"));
    EXPECT_EQ(custom.name().view(), "Custom");
    EXPECT_TRUE(tala::is_ancestor(custom, tala::Error::getClass()));
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ErrorRoundTripTest, TypeThatIsNoExceptionMapsToError) {
    GilGuard gil;
    EXPECT_EQ(host_error_class_for(reinterpret_cast<PyObject*>(&PyList_Type)), tala::Error::getClass());
    EXPECT_EQ(host_error_class_for(reinterpret_cast<PyObject*>(&PyFloat_Type)), tala::Error::getClass());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Exceptions and references ---------------------------------------------------------------

TEST_F(ErrorRoundTripTest, FetchingReleasesTheException) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    ASSERT_TRUE(runPython("kept = ValueError('kept')\n", globals.get()));
    PyObject* kept = PyDict_GetItemString(globals.get(), "kept");
    const Py_ssize_t before = Py_REFCNT(kept);
    runRaising("raise kept\n", globals.get());
    (void)fetch();
    // The traceback of the raise held the frame; once fetched and dropped, only the globals hold it.
    PyObjectPtr cleared = PyObjectPtr::steal(PyObject_CallMethod(kept, "with_traceback", "O", Py_None));
    cleared.reset();
    EXPECT_EQ(Py_REFCNT(kept), before);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

}  // namespace
