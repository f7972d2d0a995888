// tests/python/bridge/exception_types_test.cpp: the Python exception type that stands for each host
// error class, and host errors raised into Python and caught there.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "proxies/python_type.hpp"
#include "pyside/tala_object.hpp"
#include "python_test_support.hpp"

namespace {

using tala::python::exception_type_for;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala::python::to_python;
using tala::python::wrappedHostValue;
using tala_python_test::fullTypeName;
using tala_python_test::hostRefCount;
using tala_python_test::kept;
using tala_python_test::newGlobals;
using tala_python_test::PythonTest;
using tala_python_test::runPython;
using tala_python_test::takePendingError;

class ExceptionTypeTest : public PythonTest {
protected:
    // A host error class derived from Error, optionally declared in a module.
    static tala::Class_Generic errorClass(const char* name, const char* module = nullptr) {
        tala::ClassBuilder builder{tala::String(name)};
        builder.parent(tala::Error::getClass());
        if (module != nullptr) builder.declaringContext(tala::Module::create(module));
        return kept(builder.build());
    }
};

// A Python function that raises the host error held by its wrapper `self`.
PyObject* raiseWrappedError(PyObject* self, PyObject*) {
    const tala::Any* error = wrappedHostValue(self);
    if (error == nullptr) {
        PyErr_SetString(PyExc_AssertionError, "no host error to raise");
        return nullptr;
    }
    return to_python(*error);
}

PyMethodDef kRaiseWrappedError = {"raise_host_error", raiseWrappedError, METH_NOARGS, nullptr};

// `raise_host_error` in a fresh globals dictionary, raising `error` when called.
PyObjectPtr globalsRaising(const tala::Error& error) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    PyObjectPtr wrapper = PyObjectPtr::steal(tala::python::wrapHostValue(error));
    PyObjectPtr function = PyObjectPtr::steal(PyCFunction_New(&kRaiseWrappedError, wrapper.get()));
    if (!globals || !function || PyDict_SetItemString(globals.get(), "raise_host_error", function.get()) < 0) {
        ADD_FAILURE() << "could not set up the globals: " << takePendingError();
    }
    return globals;
}

// ---- The types ----------------------------------------------------------------------------------

TEST_F(ExceptionTypeTest, BaseErrorIsRuntimeError) {
    EXPECT_EQ(exception_type_for(tala::Error::getClass()), PyExc_RuntimeError);
}

TEST_F(ExceptionTypeTest, HostStopIterationIsStopIteration) {
    EXPECT_EQ(exception_type_for(tala::StopIteration::getClass()), PyExc_StopIteration);
}

TEST_F(ExceptionTypeTest, DerivedClassGetsATypeNamedAfterItDerivedFromRuntimeError) {
    const tala::Class_Generic cls = errorClass("MyError");
    GilGuard gil;
    PyObject* type = exception_type_for(cls);
    ASSERT_NE(type, nullptr);
    ASSERT_TRUE(PyType_Check(type));
    EXPECT_EQ(fullTypeName(type), "tala.MyError");
    EXPECT_EQ(PyObject_IsSubclass(type, PyExc_RuntimeError), 1);
    EXPECT_NE(type, PyExc_RuntimeError);
    // The class attribute `tala` defaults to None.
    PyObjectPtr carried = PyObjectPtr::steal(PyObject_GetAttrString(type, "tala"));
    EXPECT_EQ(carried.get(), Py_None);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ExceptionTypeTest, AskingTwiceGivesTheIdenticalType) {
    const tala::Class_Generic cls = errorClass("AskedTwiceError");
    PyObject* first = exception_type_for(cls);
    PyObject* second = exception_type_for(cls);
    EXPECT_EQ(first, second);
    EXPECT_NE(first, PyExc_RuntimeError);
}

TEST_F(ExceptionTypeTest, DottedQualifiedNameIsUsedAsItIs) {
    GilGuard gil;
    const tala::Class_Generic cls = errorClass("MyError", "pkg");
    ASSERT_EQ(cls.qualname(), "pkg.MyError");
    PyObject* type = exception_type_for(cls);
    EXPECT_EQ(fullTypeName(type), "pkg.MyError");

    const tala::Class_Generic deeper = errorClass("DeepError", "pkg.sub");
    EXPECT_EQ(fullTypeName(exception_type_for(deeper)), "pkg.sub.DeepError");
    // A different class than "tala.MyError" gets a different type, despite the same short name.
    EXPECT_NE(type, exception_type_for(errorClass("MyError")));
}

TEST_F(ExceptionTypeTest, ClassesDerivedFromStopIterationGetTheirOwnType) {
    const tala::Class_Generic cls =
        kept(tala::ClassBuilder("ExhaustedError").parent(tala::StopIteration::getClass()).build());
    GilGuard gil;
    PyObject* type = exception_type_for(cls);
    EXPECT_NE(type, PyExc_StopIteration);
    EXPECT_EQ(fullTypeName(type), "tala.ExhaustedError");
    EXPECT_EQ(PyObject_IsSubclass(type, PyExc_RuntimeError), 1);
}

TEST_F(ExceptionTypeTest, ThreadsAskingAtOnceGetOneType) {
    const tala::Class_Generic cls = errorClass("RacedError");
    constexpr int kThreads = 6;
    std::vector<PyObject*> answers(kThreads, nullptr);
    std::vector<tala::python::Interpreter*> interpreters(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&cls, &answers, &interpreters, index] {
            answers[index] = exception_type_for(cls);
            GilGuard gil;
            interpreters[index] = tala::python::currentInterpreter();
        });
    }
    for (std::thread& thread : threads) thread.join();
    // One type per interpreter (the only one in the shared layout).
    for (int index = 0; index < kThreads; ++index) {
        for (int other = 0; other < kThreads; ++other) {
            EXPECT_EQ(answers[index] == answers[other], interpreters[index] == interpreters[other]) << index << " " << other;
        }
        EXPECT_NE(answers[index], PyExc_RuntimeError);
    }
}

TEST_F(ExceptionTypeTest, ClassViewOfAPythonExceptionIsThatException) {
    GilGuard gil;
    PyObjectPtr globals = newGlobals();
    ASSERT_TRUE(runPython("class AppError(Exception):\n    pass\n", globals.get()));
    PyObject* type = PyDict_GetItemString(globals.get(), "AppError");  // borrowed
    ASSERT_NE(type, nullptr);
    const auto cls = tala::python::classOfPythonType(type);
    ASSERT_TRUE(cls.is<tala::Class_Generic>()) << tala::display(cls).toStdString();
    EXPECT_EQ(exception_type_for(cls.as<tala::Class_Generic>()), type);
    PyDict_Clear(globals.get());
}

// ---- Raising --------------------------------------------------------------------------------------

TEST_F(ExceptionTypeTest, DerivedErrorRaisesItsTypeCarryingTheHostError) {
    const tala::Class_Generic cls = errorClass("CarriedError");
    const tala::Error error(cls, tala::String("The widget is broken."));
    GilGuard gil;
    EXPECT_EQ(to_python(error), nullptr);
    PyObject* raised = PyErr_GetRaisedException();
    ASSERT_NE(raised, nullptr);
    PyObjectPtr exception = PyObjectPtr::steal(raised);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(raised)), exception_type_for(cls));
    EXPECT_EQ(fullTypeName(reinterpret_cast<PyObject*>(Py_TYPE(raised))), "tala.CarriedError");
    EXPECT_EQ(PyObject_IsInstance(raised, PyExc_RuntimeError), 1);

    PyObjectPtr carried = PyObjectPtr::steal(PyObject_GetAttrString(raised, "tala"));
    ASSERT_TRUE(carried) << takePendingError();
    const tala::Any* wrapped = wrappedHostValue(carried.get());
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->cell(), error.cell());
    EXPECT_EQ(tala::Error(tala::internal::unchecked, *wrapped).message(), "The widget is broken.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ExceptionTypeTest, DerivedErrorIsCaughtByExceptRuntimeError) {
    const tala::Class_Generic cls = errorClass("CaughtError");
    const tala::Error error(cls, tala::String("Caught in Python."));
    GilGuard gil;
    PyObjectPtr globals = globalsRaising(error);
    ASSERT_TRUE(runPython("caught = None\n"
                          "try:\n"
                          "    raise_host_error()\n"
                          "except RuntimeError as error:\n"
                          "    caught = type(error)\n"
                          "    carried = error.tala\n"
                          "    names = f'{caught.__module__}.{caught.__qualname__}'\n",
                          globals.get()));
    PyObject* caught = PyDict_GetItemString(globals.get(), "caught");
    EXPECT_EQ(caught, exception_type_for(cls));
    PyObject* names = PyDict_GetItemString(globals.get(), "names");
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(tala_python_test::textOf(names), "tala.CaughtError");
    const tala::Any* wrapped = wrappedHostValue(PyDict_GetItemString(globals.get(), "carried"));
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->cell(), error.cell());
    PyDict_Clear(globals.get());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ExceptionTypeTest, ErrorsOfOneClassAreCaughtByTheirOwnType) {
    const tala::Class_Generic cls = errorClass("SpecificError", "pkg");
    const tala::Error error(cls, tala::String("Specific."));
    GilGuard gil;
    PyObjectPtr globals = globalsRaising(error);
    ASSERT_EQ(PyDict_SetItemString(globals.get(), "SpecificError", exception_type_for(cls)), 0);
    ASSERT_TRUE(runPython("try:\n"
                          "    raise_host_error()\n"
                          "except SpecificError:\n"
                          "    outcome = 'specific'\n"
                          "except RuntimeError:\n"
                          "    outcome = 'general'\n",
                          globals.get()));
    PyObject* outcome = PyDict_GetItemString(globals.get(), "outcome");
    ASSERT_NE(outcome, nullptr);
    EXPECT_EQ(tala_python_test::textOf(outcome), "specific");
    PyDict_Clear(globals.get());
}

TEST_F(ExceptionTypeTest, HostStopIterationEndsAPythonLoop) {
    GilGuard gil;
    PyObjectPtr globals = globalsRaising(tala::StopIteration());
    ASSERT_TRUE(runPython("try:\n"
                          "    raise_host_error()\n"
                          "    outcome = 'not raised'\n"
                          "except StopIteration:\n"
                          "    outcome = 'stopped'\n",
                          globals.get()));
    PyObject* outcome = PyDict_GetItemString(globals.get(), "outcome");
    ASSERT_NE(outcome, nullptr);
    EXPECT_EQ(tala_python_test::textOf(outcome), "stopped");
    PyDict_Clear(globals.get());
}

TEST_F(ExceptionTypeTest, UncaughtHostErrorLeavesPythonWithTheHostError) {
    const tala::Class_Generic cls = errorClass("EscapingError");
    const tala::Error error(cls, tala::String("Escaped."));
    const std::uint32_t before = hostRefCount(error);
    {
        GilGuard gil;
        PyObjectPtr globals = globalsRaising(error);
        PyObjectPtr result =
            PyObjectPtr::steal(PyRun_String("raise_host_error()\n", Py_file_input, globals.get(), globals.get()));
        EXPECT_FALSE(result);
        PyObject* raised = PyErr_GetRaisedException();
        ASSERT_NE(raised, nullptr);
        PyObjectPtr exception = PyObjectPtr::steal(raised);
        EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(raised)), exception_type_for(cls));
        PyObjectPtr carried = PyObjectPtr::steal(PyObject_GetAttrString(raised, "tala"));
        const tala::Any* wrapped = wrappedHostValue(carried.get());
        ASSERT_NE(wrapped, nullptr);
        EXPECT_EQ(wrapped->cell(), error.cell());
        // The traceback refers to the frame, whose globals refer back to the function.
        PyDict_Clear(globals.get());
    }
    EXPECT_EQ(hostRefCount(error), before);
}

// ---- Python's exception protocol -------------------------------------------------------------

// The value of `expression` after running `code`, in globals where `raise_host_error()` raises
// `error`; repr() of it.
std::string afterRaising(const tala::Error& error, const std::string& code, const char* expression) {
    GilGuard gil;
    PyObjectPtr globals = globalsRaising(error);
    if (!runPython(code.c_str(), globals.get())) return "<raised " + takePendingError() + ">";
    PyObjectPtr value = tala_python_test::evalPython(expression, globals.get());
    std::string text = value ? tala_python_test::reprOf(value.get()) : "<raised " + takePendingError() + ">";
    PyDict_Clear(globals.get());
    return text;
}

const char* const kCatch = "try:\n    raise_host_error()\nexcept Exception as caught:\n    error = caught\n";

TEST_F(ExceptionTypeTest, TheMessageIsTheExceptionsArgument) {
    const tala::Error error(errorClass("WordyError"), tala::String("Said in words."));
    EXPECT_EQ(afterRaising(error, kCatch, "str(error), repr(error), error.args"),
              "('Said in words.', \"WordyError('Said in words.')\", ('Said in words.',))");
}

TEST_F(ExceptionTypeTest, TheHostErrorsPropertiesReadOnTheException) {
    const tala::Class_Generic cls = kept(tala::ClassBuilder("CodedError")
                                             .parent(tala::Error::getClass())
                                             .property(tala::Identifier("$$code"), [](const tala::Any&) { return std::int64_t(42); },
                                                       "A number.")
                                             .build());
    const tala::Error error(cls, tala::String("Coded."));
    EXPECT_EQ(afterRaising(error, kCatch, "error.code, 'code' in dir(error), hasattr(error, 'nothing')"), "(42, True, False)");
    EXPECT_EQ(afterRaising(error, kCatch + std::string("try:\n    error.nothing\nexcept AttributeError as e:\n    text = str(e)\n"),
                           "text"),
              "\"'CodedError' object has no attribute 'nothing'\"");
    // Reading the carried host error's own attributes raises it, as every wrapped error does.
    EXPECT_EQ(afterRaising(error, kCatch + std::string("try:\n    error.tala.code\nexcept Exception as e:\n    again = e\n"),
                           "type(again).__name__, str(again)"),
              "('CodedError', 'Coded.')");
}

TEST_F(ExceptionTypeTest, TheObjectModelsOwnErrorsAreAlsoPythonsBuiltinOnes) {
    GilGuard gil;
    const struct {
        tala::Class_Generic cls;
        PyObject* builtin;
        const char* name;
    } cases[] = {{tala::MissingMemberError::getClass(), PyExc_AttributeError, "tala.MissingMemberError"},
                 {tala::ReadOnlyError::getClass(), PyExc_AttributeError, "tala.ReadOnlyError"},
                 {tala::ArgumentError::getClass(), PyExc_TypeError, "tala.ArgumentError"},
                 {tala::OutOfRangeError::getClass(), PyExc_IndexError, "tala.OutOfRangeError"}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        PyObject* type = exception_type_for(each.cls);
        EXPECT_EQ(fullTypeName(type), each.name);
        EXPECT_EQ(PyObject_IsSubclass(type, PyExc_RuntimeError), 1);
        EXPECT_EQ(PyObject_IsSubclass(type, each.builtin), 1);
        EXPECT_EQ(tala::python::pythonExceptionBases(each.cls),
                  (std::vector<std::string>{"RuntimeError", std::string(reinterpret_cast<PyTypeObject*>(each.builtin)->tp_name)}));
    }
    EXPECT_EQ(tala::python::pythonExceptionBases(errorClass("PlainError")), std::vector<std::string>{"RuntimeError"});
}

TEST_F(ExceptionTypeTest, ADerivedHostErrorClassDerivesFromItsParentsType) {
    const tala::Class_Generic parent = errorClass("ParentError", "family");
    const tala::Class_Generic child = kept(tala::ClassBuilder("ChildError").parent(parent).build());
    const tala::Class_Generic argument =
        kept(tala::ClassBuilder("CountError").parent(tala::ArgumentError::getClass()).build());
    GilGuard gil;
    EXPECT_EQ(PyObject_IsSubclass(exception_type_for(child), exception_type_for(parent)), 1);
    EXPECT_EQ(PyObject_IsSubclass(exception_type_for(child), PyExc_RuntimeError), 1);
    EXPECT_EQ(PyObject_IsSubclass(exception_type_for(argument), PyExc_TypeError), 1);
    EXPECT_EQ(PyObject_IsSubclass(exception_type_for(argument), exception_type_for(tala::ArgumentError::getClass())), 1);
    EXPECT_EQ(tala::python::pythonExceptionBases(argument), (std::vector<std::string>{"RuntimeError", "TypeError"}));
}

TEST_F(ExceptionTypeTest, AnErrorClassReachesPythonAsItsExceptionTypeAndComesBack) {
    const tala::Class_Generic cls = errorClass("RoundTripError", "trips");
    GilGuard gil;
    PyObjectPtr type = PyObjectPtr::steal(to_python(cls));
    ASSERT_TRUE(type) << takePendingError();
    EXPECT_EQ(type.get(), exception_type_for(cls));
    const tala::Any back = tala::python::from_python(type.get());
    ASSERT_TRUE(tala::Class_Generic::matches(back));
    EXPECT_EQ(tala::Class_Generic(tala::internal::unchecked, back), cls);
    // Python code raises the type itself; the host gets an error of the class with the message.
    PyObjectPtr globals = newGlobals();
    ASSERT_EQ(PyDict_SetItemString(globals.get(), "RoundTripError", type.get()), 0);
    PyObjectPtr result = PyObjectPtr::steal(
        PyRun_String("raise RoundTripError('from Python')\n", Py_file_input, globals.get(), globals.get()));
    ASSERT_FALSE(result);
    auto fetched = tala::python::fetch_python_error();
    ASSERT_TRUE(fetched.get<tala::Error>());
    EXPECT_EQ(fetched.get<tala::Error>()->errorClass(), cls);
    EXPECT_EQ(fetched.get<tala::Error>()->message(), "from Python");
}

}  // namespace
