// tests/python/functions/function_python_test.cpp: Python functions held and called by the host:
// made from callables or from source text (lambda, def, bare body), their names, documentation,
// defaults and signatures, and errors on the way.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "functions/function_python.hpp"
#include "proxies/python_proxy.hpp"
#include "python_test_support.hpp"

namespace {

using tala::Any;
using tala::FunctionPython;
using tala::Integer;
using tala::String;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala_python_test::evalPython;
using tala_python_test::PythonTest;
using tala_python_test::reprOf;
using tala_python_test::runPython;
using tala_python_test::takePendingError;

class FunctionPythonTest : public PythonTest {
protected:
    // A function from source; the test fails when it could not be made.
    static tala::I_Invokable_Generic compile(const char* source) {
        auto made = FunctionPython::fromSource(String(source));
        {
            GilGuard gil;
            EXPECT_EQ(PyErr_Occurred(), nullptr) << source << ": " << takePendingError();
        }
        if (!made.is<FunctionPython>()) {
            ADD_FAILURE() << source << ": " << tala::display(made).toStdString();
            return tala::native_function([] {});
        }
        return tala::I_Invokable_Generic(tala::internal::unchecked, made);
    }

    // Calls with the interpreter lock held by this test too; no Python error may be left.
    static Any call(const tala::I_Invokable_Generic& function, std::initializer_list<Any> arguments) {
        GilGuard gil;
        Any result = function.invokeWith(arguments);
        EXPECT_EQ(PyErr_Occurred(), nullptr) << takePendingError();
        return result;
    }

    static Any propertyValue(const Any& function, const char* name) {
        auto property = tala::property_of(function, name);
        if (!property.is<tala::Property>()) return tala::Error(String("no property " + std::string(name)));
        return property.as<tala::Property>().get(function);
    }

    static std::string messageOf(const Any& value) {
        if (!tala::Error::matches(value)) return "<not an error: " + tala::display(value).toStdString() + ">";
        return tala::Error(tala::internal::unchecked, value).message().toStdString();
    }

    // The text of the native exception an error carries, if any.
    static std::string carriedText(const Any& value) {
        if (!tala::Error::matches(value)) return std::string();
        const std::exception_ptr carried = tala::Error(tala::internal::unchecked, value).exception();
        if (!carried) return std::string();
        try {
            std::rethrow_exception(carried);
        } catch (const std::exception& error) {
            return error.what();
        } catch (...) {
        }
        return std::string();
    }
};

// ---- From source -----------------------------------------------------------------------------

TEST_F(FunctionPythonTest, LambdaIsEvaluated) {
    const auto function = compile("lambda x: x + 1");
    EXPECT_EQ(call(function, {Integer(2)}).rawInteger(), 3);
    EXPECT_EQ(function.name().view(), "<lambda>");
    EXPECT_TRUE(FunctionPython::matches(function));
}

TEST_F(FunctionPythonTest, LambdaWithoutASpaceBeforeItsColonIsABareBody) {
    // Only "lambda " starts an expression; "lambda:" is a statement of a bare body whose
    // function answers None.
    const auto function = compile("lambda: 5");
    EXPECT_EQ(function.name(), "func");
    EXPECT_TRUE(call(function, {}).isEmpty());
}

TEST_F(FunctionPythonTest, SurroundingWhitespaceIsTrimmed) {
    const auto function = compile("  \n\tlambda a, b: a * b  \n");
    EXPECT_EQ(call(function, {Integer(6), Integer(7)}).rawInteger(), 42);
}

TEST_F(FunctionPythonTest, DefStatementDefinesANamedFunction) {
    const auto function = compile("def add(a, b):\n    return a + b");
    EXPECT_EQ(function.name().view(), "add");
    EXPECT_EQ(call(function, {Integer(2), Integer(3)}).rawInteger(), 5);
    EXPECT_EQ(tala::display(call(function, {String("a"), String("b")})).view(), "'ab'");
}

TEST_F(FunctionPythonTest, DefNameIsCutBeforeTheParenthesis) {
    const auto spaced = compile("def  spaced  (x):\n    return x");
    EXPECT_EQ(spaced.name().view(), "spaced");
    const auto tabbed = compile("def\tdefault(x=':'):\n    return x");
    EXPECT_EQ(tabbed.name().view(), "default");
    EXPECT_EQ(tala::display(call(tabbed, {})).view(), "':'");
}

TEST_F(FunctionPythonTest, BareBodyBecomesFuncTakingArgs) {
    const auto function = compile("return len(args)");
    EXPECT_EQ(function.name().view(), "func");
    EXPECT_EQ(call(function, {}).rawInteger(), 0);
    EXPECT_EQ(call(function, {Integer(1), String("two"), Any()}).rawInteger(), 3);
}

TEST_F(FunctionPythonTest, BareBodyOfManyLines) {
    const auto function = compile("total = 0\n"
                                  "for value in args:\n"
                                  "    total += value\n"
                                  "return total");
    EXPECT_EQ(call(function, {Integer(1), Integer(2), Integer(3)}).rawInteger(), 6);
}

TEST_F(FunctionPythonTest, DefWithoutASpaceIsABareBody) {
    const auto function = compile("defaults = args\nreturn len(defaults)");
    EXPECT_EQ(function.name().view(), "func");
    EXPECT_EQ(call(function, {Integer(1), Integer(1)}).rawInteger(), 2);
}

TEST_F(FunctionPythonTest, DefLineWithoutAColonIsABareBody) {
    // As a bare body it sits on the second line of the generated `def func(*args):`.
    const auto made = FunctionPython::fromSource(String("def missing_colon()"));
    EXPECT_EQ(messageOf(made), "Unable to compile the function.");
    const std::string detail = carriedText(made);
    EXPECT_NE(detail.find("line 2"), std::string::npos) << detail;
    EXPECT_NE(detail.find("SyntaxError"), std::string::npos) << detail;
    GilGuard gil;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FunctionPythonTest, CompileErrorCarriesThePythonError) {
    const auto made = FunctionPython::fromSource(String("def broken(:\n    pass"));
    EXPECT_EQ(messageOf(made), "Unable to compile the function.");
    EXPECT_NE(carriedText(made).find("SyntaxError"), std::string::npos) << carriedText(made);
    const auto lambda = FunctionPython::fromSource(String("lambda x: x +"));
    EXPECT_EQ(messageOf(lambda), "Unable to compile the function.");
    const auto raising = FunctionPython::fromSource(String("def f():\n    pass\nraise KeyError('at definition')"));
    EXPECT_EQ(messageOf(raising), "Unable to compile the function.");
    EXPECT_EQ(carriedText(raising), "'at definition'");
    GilGuard gil;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FunctionPythonTest, NameThatIsNotDefinedIsReported) {
    const auto made = FunctionPython::fromSource(String("def gone():\n    pass\ndel gone"));
    EXPECT_EQ(messageOf(made), "Unable to find the function: gone.");
}

TEST_F(FunctionPythonTest, SourceSeesTopLevelHostModules) {
    const tala::Module module = tala::Module::create("fnpytestmodule");
    (void)tala::Module::create("fnpytestmodule.child");
    const auto function = compile("return fnpytestmodule");
    const Any result = call(function, {});
    EXPECT_EQ(result.cell(), module.cell());
    const auto dotted = compile("return any('.' in name for name in globals())");
    EXPECT_FALSE(call(dotted, {}).rawBoolean());
}

// ---- From callables --------------------------------------------------------------------------

TEST_F(FunctionPythonTest, FromCallableKeepsOneReference) {
    GilGuard gil;
    PyObjectPtr callable = evalPython("lambda: 'called'");
    const Py_ssize_t before = Py_REFCNT(callable.get());
    {
        auto made = FunctionPython::fromCallable(callable.get());
        ASSERT_TRUE(made.is<FunctionPython>());
        EXPECT_EQ(Py_REFCNT(callable.get()), before + 1);
        EXPECT_EQ(tala::python::pythonCallableOf(made), callable.get());
        EXPECT_EQ(tala::display(call(made.as<tala::I_Invokable_Generic>(), {})).view(), "'called'");
    }
    EXPECT_EQ(Py_REFCNT(callable.get()), before);
}

TEST_F(FunctionPythonTest, FromANonCallableFails) {
    GilGuard gil;
    PyObjectPtr five = PyObjectPtr::steal(PyLong_FromLong(5));
    EXPECT_EQ(messageOf(FunctionPython::fromCallable(five.get())), "The source object isn't a function.");
    EXPECT_EQ(messageOf(FunctionPython::fromCallable(nullptr)), "The source object isn't a function.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Calls -----------------------------------------------------------------------------------

TEST_F(FunctionPythonTest, PythonExceptionInACallIsAHostError) {
    const auto function = compile("def fails(x):\n    raise ValueError('no ' + str(x))");
    EXPECT_EQ(messageOf(call(function, {Integer(1)})), "no 1");
    EXPECT_EQ(messageOf(call(function, {})), "fails() missing 1 required positional argument: 'x'");
}

TEST_F(FunctionPythonTest, ResultBeyond64BitsIsTheOverflowErrorAsHostError) {
    const auto function = compile("lambda *ignored: 2**70");
    const Any result = call(function, {});  // call() checks that no Python error is left
    EXPECT_EQ(messageOf(result), "int too big to convert");
}

TEST_F(FunctionPythonTest, ErrorArgumentGivesThatError) {
    const auto function = compile("lambda x: x");
    EXPECT_EQ(messageOf(call(function, {tala::Error(String("not passed"))})), "not passed");
}

TEST_F(FunctionPythonTest, ResultsAreConvertedToHostValues) {
    const auto function = compile("return [1, {'a': 2.5}]");
    const Any result = call(function, {});
    EXPECT_EQ(tala::display(result).view(), "[1, {'a': 2.5}]");
    EXPECT_TRUE(call(compile("lambda *ignored: None"), {}).isEmpty());
}

TEST_F(FunctionPythonTest, ManyCallsLeaveNoReferenceBehind) {
    const auto function = compile("lambda x: x");
    GilGuard gil;
    PyObjectPtr probe = evalPython("['probe']");
    const Any host = tala::python::from_python(probe.get());
    const Py_ssize_t before = Py_REFCNT(probe.get());
    for (int round = 0; round < 1000; ++round) {
        const Any same = call(function, {host});
        EXPECT_EQ(tala::python::pyobjectOf(same), probe.get());
    }
    EXPECT_EQ(Py_REFCNT(probe.get()), before);
}

// ---- Name, documentation, defaults -----------------------------------------------------------

TEST_F(FunctionPythonTest, NameAndDocProperties) {
    const auto function = compile("def documented():\n    '''Does nothing.'''\n    return None");
    EXPECT_EQ(tala::String::cast(propertyValue(function, "__name__")).value_or(String()).view(), "documented");
    EXPECT_EQ(tala::String::cast(propertyValue(function, "__doc__")).value_or(String()).view(), "Does nothing.");
    EXPECT_EQ(function.doc().view(), "Does nothing.");
    const auto undocumented = compile("lambda x: 1");
    EXPECT_TRUE(tala::String::cast(propertyValue(undocumented, "__doc__")).value_or(String("x")).isEmpty());

    auto docProperty = tala::property_of(function, "__doc__");
    ASSERT_TRUE(docProperty.is<tala::Property>());
    EXPECT_EQ(docProperty.as<tala::Property>().doc().view(), "Returns description of a function.");
    EXPECT_TRUE(docProperty.as<tala::Property>().setter().isEmpty());
    auto nameProperty = tala::property_of(function, "__name__");
    ASSERT_TRUE(nameProperty.is<tala::Property>());
    EXPECT_TRUE(nameProperty.as<tala::Property>().setter().isEmpty());
}

TEST_F(FunctionPythonTest, DefaultsAreAHostList) {
    const auto function = compile("def withDefaults(a, b=2, c='x'):\n    return (a, b, c)");
    const Any defaults = propertyValue(function, "__defaults__");
    ASSERT_TRUE(tala::List_Generic::matches(defaults)) << messageOf(defaults);
    EXPECT_EQ(tala::display(defaults).view(), "[2, 'x']");
    const Any none = propertyValue(compile("lambda a: a"), "__defaults__");
    ASSERT_TRUE(tala::List_Generic::matches(none));
    EXPECT_TRUE(tala::List_Generic(tala::internal::unchecked, none).isEmpty());

    auto property = tala::property_of(function, "__defaults__");
    ASSERT_TRUE(property.is<tala::Property>());
    EXPECT_EQ(property.as<tala::Property>().doc().view(), "Default values for arguments, can be overriden.");
}

TEST_F(FunctionPythonTest, SettingDefaultsChangesThePythonFunction) {
    const auto function = compile("def withDefaults(a, b=2, c='x'):\n    return [a, b, c]");
    auto property = tala::property_of(function, "__defaults__");
    ASSERT_TRUE(property.is<tala::Property>());
    const Any written = property.as<tala::Property>().set(function, tala::List<Any>{Integer(20), String("y")});
    EXPECT_TRUE(written.isEmpty()) << messageOf(written);
    EXPECT_EQ(tala::display(propertyValue(function, "__defaults__")).view(), "[20, 'y']");
    EXPECT_EQ(tala::display(call(function, {Integer(1)})).view(), "[1, 20, 'y']");
    GilGuard gil;
    PyObjectPtr defaults = PyObjectPtr::steal(PyObject_GetAttrString(tala::python::pythonCallableOf(function), "__defaults__"));
    EXPECT_EQ(reprOf(defaults.get()), "(20, 'y')");
}

TEST_F(FunctionPythonTest, SettingDefaultsStopsAtTheFirstError) {
    const auto function = compile("def withDefaults(a, b=2):\n    return b");
    auto property = tala::property_of(function, "__defaults__");
    ASSERT_TRUE(property.is<tala::Property>());
    const Any written = property.as<tala::Property>().set(
        function, tala::List<Any>{Integer(1), tala::Error(String("first bad")), tala::Error(String("second bad"))});
    EXPECT_EQ(messageOf(written), "first bad");
    EXPECT_EQ(tala::display(propertyValue(function, "__defaults__")).view(), "[2]");
    GilGuard gil;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FunctionPythonTest, DefaultsCanBeSetFromAPythonSequence) {
    const auto function = compile("def withDefaults(a, b=2):\n    return b");
    GilGuard gil;
    PyObjectPtr list = evalPython("[7]");
    const Any proxy = tala::python::from_python(list.get());
    ASSERT_TRUE(tala::I_Sequence_Generic::matches(proxy));
    auto property = tala::property_of(function, "__defaults__");
    ASSERT_TRUE(property.is<tala::Property>());
    const Any written = property.as<tala::Property>().set(function, proxy);
    EXPECT_TRUE(written.isEmpty()) << messageOf(written);
    EXPECT_EQ(call(function, {Integer(1)}).rawInteger(), 7);
    EXPECT_EQ(messageOf(property.as<tala::Property>().set(function, Integer(3))), "Default values must be a sequence: 3.");
}

// ---- Signature -------------------------------------------------------------------------------

TEST_F(FunctionPythonTest, SignatureListsParametersAndTheReturnAnnotation) {
    const auto function = compile("def typed(a: int, b, c: str = 'x') -> float:\n    return 1.5");
    const Any signature = propertyValue(function, "signature");
    ASSERT_TRUE(tala::Signature::matches(signature)) << messageOf(signature);
    const tala::Signature read(tala::internal::unchecked, signature);
    EXPECT_EQ(read.toString().view(), "(a: Integer, b: Any, c: String) -> Float");
    EXPECT_EQ(function.signature().toString().view(), "(a: Integer, b: Any, c: String) -> Float");
    EXPECT_EQ(function.resultType(), tala::Float::getType());
    EXPECT_EQ(compile("lambda x: 1").resultType(), tala::Type::any());
    EXPECT_EQ(compile("def nothing() -> None:\n    pass").resultType(), tala::None::getType());
}

TEST_F(FunctionPythonTest, SignatureIsCached) {
    const auto function = compile("def cached(a, *rest, **named):\n    pass");
    const Any first = propertyValue(function, "signature");
    const Any second = propertyValue(function, "signature");
    ASSERT_TRUE(tala::Signature::matches(first));
    EXPECT_EQ(first.cell(), second.cell());
    EXPECT_EQ(tala::Signature(tala::internal::unchecked, first).parameterCount(), 3u);
    auto property = tala::property_of(function, "signature");
    ASSERT_TRUE(property.is<tala::Property>());
    EXPECT_EQ(property.as<tala::Property>().doc().view(), "Cached signature.");
}

TEST_F(FunctionPythonTest, SignatureThatCannotBeReadIsAnError) {
    GilGuard gil;
    PyObjectPtr globals = tala_python_test::newGlobals();
    ASSERT_TRUE(runPython("class Odd:\n"
                          "    __signature__ = 5\n"
                          "    def __call__(self):\n"
                          "        return 'odd'\n"
                          "odd = Odd()\n",
                          globals.get()));
    auto made = FunctionPython::fromCallable(PyDict_GetItemString(globals.get(), "odd"));
    ASSERT_TRUE(made.is<FunctionPython>());
    EXPECT_EQ(messageOf(propertyValue(made, "signature")), "Unable to fetch signature.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    // The call itself still works.
    EXPECT_EQ(tala::display(call(made.as<tala::I_Invokable_Generic>(), {})).view(), "'odd'");
}

TEST_F(FunctionPythonTest, ClassIsRegisteredInTalaPython) {
    const tala::Class_Generic cls = FunctionPython::getClass();
    EXPECT_EQ(cls.name().view(), "FunctionPython");
    EXPECT_EQ(cls.doc().view(), "Invokable wrapper around of a Python function.");
    EXPECT_EQ(cls.qualname().view(), "tala.python.FunctionPython");
}

}  // namespace
