// tests/python/bridge/to_python_test.cpp: host values into Python objects: plain data by copy,
// everything else as a TalaObject wrapper, host errors raised.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "proxies/python_proxy.hpp"
#include "proxies/python_type.hpp"
#include "pyside/tala_object.hpp"
#include "python_test_support.hpp"
#include "lock_check.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala::python::to_python;
using tala::python::wrappedHostValue;
using tala_python_test::evalPython;
using tala_python_test::hostRefCount;
using tala_python_test::kept;
using tala_python_test::pythonEqual;
using tala_python_test::PythonTest;
using tala_python_test::reprOf;
using tala_python_test::takePendingError;
using tala_python_test::textOf;

class ToPythonTest : public PythonTest {
protected:
    // The conversion as an owned reference; the test fails when it raised.
    static PyObjectPtr convert(const tala::Any& value) {
        PyObjectPtr result = PyObjectPtr::steal(to_python(value));
        EXPECT_TRUE(result) << "to_python raised " << takePendingError();
        EXPECT_EQ(PyErr_Occurred(), nullptr);
        return result;
    }

    // A standard type by module and name, e.g. ("datetime", "time").
    static PyObjectPtr standardType(const char* module, const char* name) {
        PyObjectPtr imported = PyObjectPtr::steal(PyImport_ImportModule(module));
        if (!imported) return PyObjectPtr();
        return PyObjectPtr::steal(PyObject_GetAttrString(imported.get(), name));
    }
};

// ---- None, undefined, booleans ----------------------------------------------------------------

TEST_F(ToPythonTest, EmptyValueIsNone) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::Any());
    EXPECT_EQ(result.get(), Py_None);
}

TEST_F(ToPythonTest, UndefinedIsNotImplemented) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::Undefined());
    EXPECT_EQ(result.get(), Py_NotImplemented);
}

TEST_F(ToPythonTest, BooleansAreTheSingletons) {
    GilGuard gil;
    PyObjectPtr yes = convert(tala::Boolean(true));
    PyObjectPtr no = convert(tala::Boolean(false));
    EXPECT_EQ(yes.get(), Py_True);
    EXPECT_EQ(no.get(), Py_False);
    EXPECT_EQ(PyObjectPtr::steal(to_python(tala::internal::g_value_boolean_true)).get(), Py_True);
    EXPECT_EQ(PyObjectPtr::steal(to_python(tala::internal::g_value_boolean_false)).get(), Py_False);
}

// ---- Numbers ----------------------------------------------------------------------------------

TEST_F(ToPythonTest, IntegersAtBothEndsAreExact) {
    GilGuard gil;
    constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t highest = std::numeric_limits<std::int64_t>::max();

    PyObjectPtr low = convert(tala::Integer(lowest));
    ASSERT_TRUE(low && PyLong_CheckExact(low.get()));
    EXPECT_EQ(PyLong_AsLongLong(low.get()), lowest);
    EXPECT_EQ(reprOf(low.get()), "-9223372036854775808");
    PyObjectPtr expectedLow = evalPython("-2**63");
    EXPECT_TRUE(pythonEqual(low.get(), expectedLow.get()));

    PyObjectPtr high = convert(tala::Integer(highest));
    ASSERT_TRUE(high && PyLong_CheckExact(high.get()));
    EXPECT_EQ(PyLong_AsLongLong(high.get()), highest);
    EXPECT_EQ(reprOf(high.get()), "9223372036854775807");
    PyObjectPtr expectedHigh = evalPython("2**63 - 1");
    EXPECT_TRUE(pythonEqual(high.get(), expectedHigh.get()));

    EXPECT_EQ(reprOf(convert(tala::Integer(0)).get()), "0");
    EXPECT_EQ(reprOf(convert(tala::Integer(-42)).get()), "-42");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ToPythonTest, LargeIntegerIsANewObjectOwnedByTheCaller) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::Integer(1'234'567'890'123));
    ASSERT_TRUE(result);
    EXPECT_EQ(Py_REFCNT(result.get()), 1);
}

TEST_F(ToPythonTest, FloatsKeepTheirValue) {
    GilGuard gil;
    PyObjectPtr plain = convert(tala::Float(1.5));
    ASSERT_TRUE(plain && PyFloat_CheckExact(plain.get()));
    EXPECT_EQ(PyFloat_AsDouble(plain.get()), 1.5);
    EXPECT_EQ(Py_REFCNT(plain.get()), 1);

    PyObjectPtr negativeZero = convert(tala::Float(-0.0));
    EXPECT_TRUE(std::signbit(PyFloat_AsDouble(negativeZero.get())));

    PyObjectPtr infinite = convert(tala::Float(std::numeric_limits<double>::infinity()));
    EXPECT_EQ(reprOf(infinite.get()), "inf");
    PyObjectPtr notANumber = convert(tala::Float(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_TRUE(std::isnan(PyFloat_AsDouble(notANumber.get())));

    PyObjectPtr smallest = convert(tala::Float(std::numeric_limits<double>::denorm_min()));
    EXPECT_EQ(reprOf(smallest.get()), "5e-324");
}

// ---- Bytes and text ---------------------------------------------------------------------------

TEST_F(ToPythonTest, EmptyByteArrayIsEmptyBytes) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::ByteArray());
    ASSERT_TRUE(result);
    EXPECT_TRUE(PyBytes_CheckExact(result.get()));
    EXPECT_FALSE(PyByteArray_Check(result.get()));
    EXPECT_EQ(PyBytes_Size(result.get()), 0);
    EXPECT_EQ(reprOf(result.get()), "b''");
}

TEST_F(ToPythonTest, ByteArrayIsBytesWithEveryByte) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::ByteArray(std::string_view("a\0\xff", 3)));
    ASSERT_TRUE(result);
    EXPECT_TRUE(PyBytes_CheckExact(result.get()));
    EXPECT_FALSE(PyByteArray_Check(result.get()));
    EXPECT_EQ(reprOf(result.get()), "b'a\\x00\\xff'");
    EXPECT_EQ(Py_REFCNT(result.get()), 1);
}

TEST_F(ToPythonTest, StringKeepsEmbeddedNul) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::String("a\0b", 3));
    ASSERT_TRUE(result);
    ASSERT_TRUE(PyUnicode_CheckExact(result.get()));
    EXPECT_EQ(PyUnicode_GetLength(result.get()), 3);
    EXPECT_EQ(PyUnicode_ReadChar(result.get(), 1), 0u);
    EXPECT_EQ(reprOf(result.get()), "'a\\x00b'");
}

TEST_F(ToPythonTest, StringIsDecodedFromUtf8) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::String("gr\xc3\xbc\xc3\x9f \xe2\x82\xac"));  // "grüß €"
    ASSERT_TRUE(result);
    EXPECT_EQ(PyUnicode_GetLength(result.get()), 6);
    EXPECT_EQ(PyUnicode_ReadChar(result.get(), 5), 0x20ACu);
    EXPECT_EQ(reprOf(convert(tala::String()).get()), "''");
}

TEST_F(ToPythonTest, InvalidUtf8StringFailsWithUnicodeDecodeError) {
    GilGuard gil;
    PyObject* result = to_python(tala::String("ok\xff\xfe", 4));
    EXPECT_EQ(result, nullptr);
    ASSERT_NE(PyErr_Occurred(), nullptr);
    EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_UnicodeDecodeError));
    PyErr_Clear();
}

// ---- Dates, times, decimals -------------------------------------------------------------------

TEST_F(ToPythonTest, DateIsDatetimeDate) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::Date(2024, 2, 29));
    PyObjectPtr dateType = standardType("datetime", "date");
    ASSERT_TRUE(result && dateType);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(result.get())), dateType.get());
    EXPECT_EQ(reprOf(result.get()), "datetime.date(2024, 2, 29)");
}

TEST_F(ToPythonTest, TimeDropsTheNanosecondsBelowAMicrosecond) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::Time(12, 30, 15, 999'999'999));
    PyObjectPtr timeType = standardType("datetime", "time");
    ASSERT_TRUE(result && timeType);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(result.get())), timeType.get());
    EXPECT_EQ(reprOf(result.get()), "datetime.time(12, 30, 15, 999999)");
}

TEST_F(ToPythonTest, TimeWithOffsetIsNaive) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::Time(12, 30, 15, 1'000, 3600, tala::String("CET"), 1));
    ASSERT_TRUE(result);
    EXPECT_EQ(reprOf(result.get()), "datetime.time(12, 30, 15, 1)");
    PyObjectPtr zone = PyObjectPtr::steal(PyObject_GetAttrString(result.get(), "tzinfo"));
    EXPECT_EQ(zone.get(), Py_None);
    PyObjectPtr fold = PyObjectPtr::steal(PyObject_GetAttrString(result.get(), "fold"));
    EXPECT_EQ(PyLong_AsLong(fold.get()), 0);
}

TEST_F(ToPythonTest, DateTimeWithOffsetIsNaive) {
    GilGuard gil;
    const tala::DateTime value(tala::Date(2024, 2, 29), tala::Time(23, 59, 58, 123'456'789, -5 * 3600));
    PyObjectPtr result = convert(value);
    PyObjectPtr dateTimeType = standardType("datetime", "datetime");
    ASSERT_TRUE(result && dateTimeType);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(result.get())), dateTimeType.get());
    EXPECT_EQ(reprOf(result.get()), "datetime.datetime(2024, 2, 29, 23, 59, 58, 123456)");
    PyObjectPtr zone = PyObjectPtr::steal(PyObject_GetAttrString(result.get(), "tzinfo"));
    EXPECT_EQ(zone.get(), Py_None);
}

TEST_F(ToPythonTest, DateOutOfPythonsRangeLeavesTheConstructorsError) {
    GilGuard gil;
    PyObject* result = to_python(tala::Date(10000, 1, 1));
    EXPECT_EQ(result, nullptr);
    ASSERT_NE(PyErr_Occurred(), nullptr);
    EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_ValueError));
    PyErr_Clear();
}

TEST_F(ToPythonTest, DecimalKeepsItsText) {
    GilGuard gil;
    auto parsed = tala::Decimal::fromString("1.10");
    ASSERT_TRUE(parsed.is<tala::Decimal>());
    PyObjectPtr result = convert(parsed.as<tala::Decimal>());
    PyObjectPtr decimalType = standardType("decimal", "Decimal");
    ASSERT_TRUE(result && decimalType);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(result.get())), decimalType.get());
    EXPECT_EQ(reprOf(result.get()), "Decimal('1.10')");

    for (const char* text : {"-0.000", "1E+1000", "123456789012345678901234567890.123456789"}) {
        auto other = tala::Decimal::fromString(text);
        ASSERT_TRUE(other.is<tala::Decimal>()) << text;
        PyObjectPtr converted = convert(other.as<tala::Decimal>());
        EXPECT_EQ(reprOf(converted.get()), "Decimal('" + other.as<tala::Decimal>().toString().toStdString() + "')");
    }
}

// A decimal comes over with its exact digits and exponent, as Python's own Decimal(text) reads
// them: whole numbers, 28 digits and more, exponents, zeros of either sign, specials; a context of
// low precision that traps rounding changes nothing.
TEST_F(ToPythonTest, DecimalKeepsItsDigitsAndExponent) {
    GilGuard gil;
    PyObjectPtr globals = tala_python_test::newGlobals();
    ASSERT_TRUE(tala_python_test::runPython("import decimal\n"
                                            "decimal.getcontext().prec = 3\n"
                                            "decimal.getcontext().traps[decimal.Inexact] = True\n"
                                            "decimal.getcontext().traps[decimal.Rounded] = True\n",
                                            globals.get()));
    for (const char* text :
         {"0", "-0", "12", "-12", "4.50", "1234567890123456789012345678", "-0.1234567890123456789012345678",
          "123456789012345678", "1234567890123456789", "9223372036854775807", "-9223372036854775808", "99999999999999999999",
          "1E+5", "1.5E-7", "-0E+3", "0.000", "1E+999999999", "7E-999999999", "sNaN", "-NaN123", "-Infinity",
          "-1234567890123456789012345678901234567890123456789012345678901234567890.5E-30"}) {
        auto parsed = tala::Decimal::fromString(text);
        ASSERT_TRUE(parsed.is<tala::Decimal>()) << text;
        PyObjectPtr converted = convert(parsed.as<tala::Decimal>());
        ASSERT_TRUE(converted) << text;
        ASSERT_EQ(PyDict_SetItemString(globals.get(), "converted", converted.get()), 0);
        const std::string check = std::string("(repr(converted), converted.as_tuple() == decimal.Decimal('") + text +
                                  "').as_tuple(), str(converted) == str(decimal.Decimal('" + text + "')))";
        PyObjectPtr answer = evalPython(check.c_str(), globals.get());
        EXPECT_EQ(reprOf(answer.get()), "(\"Decimal('" + std::string(parsed.as<tala::Decimal>().toString().view()) + "')\", True, True)")
            << text;
    }
    ASSERT_TRUE(tala_python_test::runPython("decimal.setcontext(decimal.Context())\n", globals.get()));
}

// ---- Tuples -----------------------------------------------------------------------------------

TEST_F(ToPythonTest, TupleBecomesATupleOfConvertedElements) {
    GilGuard gil;
    const tala::Tuple value{tala::Integer(1), tala::String("x"), tala::Any(), tala::Tuple{tala::Boolean(true)}};
    PyObjectPtr result = convert(value);
    ASSERT_TRUE(result);
    EXPECT_TRUE(PyTuple_CheckExact(result.get()));
    EXPECT_EQ(reprOf(result.get()), "(1, 'x', None, (True,))");
    EXPECT_EQ(Py_REFCNT(result.get()), 1);
}

TEST_F(ToPythonTest, EmptyTupleIsTheEmptyTuple) {
    GilGuard gil;
    PyObjectPtr result = convert(tala::Tuple());
    ASSERT_TRUE(result);
    EXPECT_TRUE(PyTuple_CheckExact(result.get()));
    EXPECT_EQ(PyTuple_Size(result.get()), 0);
    EXPECT_EQ(reprOf(result.get()), "()");
}

TEST_F(ToPythonTest, TupleWithAnErrorFailsAndLeaksNothing) {
    GilGuard gil;
    // The first element becomes a wrapper holding a reference to the list: if the half-built
    // tuple (and with it the wrapper) leaked, the list would keep that reference.
    const tala::List<tala::Integer> first{1, 2};
    const tala::Tuple value{first, tala::Error(tala::String("The second element is broken.")), tala::Integer(3)};
    const std::uint32_t before = hostRefCount(first);  // the list and the host tuple
    ASSERT_EQ(before, 2u);
    for (int round = 0; round < 3; ++round) {
        PyObject* result = to_python(value);
        EXPECT_EQ(result, nullptr);
        EXPECT_EQ(takePendingError(), "RuntimeError: The second element is broken.");
        EXPECT_EQ(hostRefCount(first), before);
    }
}

// ---- External values --------------------------------------------------------------------------

TEST_F(ToPythonTest, ExternalIsLoadedOnEachConversion) {
    GilGuard gil;
    int loads = 0;
    const tala::External value([&loads] {
        ++loads;
        return tala::Any(tala::Integer(42));
    });
    PyObjectPtr result = convert(value);
    ASSERT_TRUE(result);
    EXPECT_EQ(PyLong_AsLong(result.get()), 42);
    PyObjectPtr again = convert(value);
    EXPECT_EQ(loads, 2);
}

TEST_F(ToPythonTest, ExternalLoadingAListGivesAWrapperOfThatList) {
    GilGuard gil;
    const tala::List<tala::Integer> list{1, 2, 3};
    const tala::External value([list] { return tala::Any(list); });
    PyObjectPtr result = convert(value);
    ASSERT_TRUE(result);
    const tala::Any* wrapped = wrappedHostValue(result.get());
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->cell(), list.cell());
}

TEST_F(ToPythonTest, ExternalLoadingAnErrorRaisesIt) {
    GilGuard gil;
    const tala::External value([] { return tala::Any(tala::Error(tala::String("The row is gone."))); });
    EXPECT_EQ(to_python(value), nullptr);
    EXPECT_EQ(takePendingError(), "RuntimeError: The row is gone.");
}

// ---- Wrapped values ---------------------------------------------------------------------------

// Each of these values becomes a wrapper named ">TalaObject" that holds the very same cell.
void expectWrapped(const tala::Any& value) {
    SCOPED_TRACE(tala::display(value).toStdString());
    GilGuard gil;
    const std::uint32_t before = hostRefCount(value);
    PyObject* result = to_python(value);
    ASSERT_NE(result, nullptr) << takePendingError();
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    EXPECT_EQ(Py_TYPE(result)->tp_name, tala::python::kTalaObjectTypeName);
    EXPECT_STREQ(Py_TYPE(result)->tp_name, ">TalaObject");
    EXPECT_EQ(Py_REFCNT(result), 1);
    const tala::Any* wrapped = wrappedHostValue(result);
    ASSERT_NE(wrapped, nullptr);
    EXPECT_TRUE(wrapped->isSame(value));
    EXPECT_EQ(wrapped->cell(), value.cell());
    // The wrapper holds one copy (classes are immortal cells and keep no count).
    const bool counted = !value.cell()->isImmortal();
    if (counted) {
        EXPECT_EQ(hostRefCount(value), before + 1);
    }
    Py_DecRef(result);
    EXPECT_EQ(hostRefCount(value), before);
}

TEST_F(ToPythonTest, ListBecomesAWrapper) { expectWrapped(tala::List<tala::Integer>{1, 2}); }

TEST_F(ToPythonTest, HashMapBecomesAWrapper) {
    expectWrapped(tala::HashMap<tala::String, tala::Integer>{{tala::String("a"), tala::Integer(1)}});
}

TEST_F(ToPythonTest, SetBecomesAWrapper) { expectWrapped(tala::Set<tala::Integer>{1, 2}); }

TEST_F(ToPythonTest, FunctionBecomesAWrapper) {
    expectWrapped(tala::native_function([](std::int64_t a) { return a + 1; }, "increment", {"a"}));
}

TEST_F(ToPythonTest, BoxedValueBecomesAWrapper) { expectWrapped(tala::Boxed<int>(5)); }

TEST_F(ToPythonTest, HostClassBecomesAWrapper) {
    expectWrapped(kept(tala::ClassBuilder("ToPythonPlainClass").build()));
}

TEST_F(ToPythonTest, PlainInstanceBecomesAWrapper) {
    const tala::Class_Generic cls = kept(tala::ClassBuilder("ToPythonPlainInstance").build());
    expectWrapped(tala::make_instance(cls));
}

TEST_F(ToPythonTest, ConversionNeedsNoLockHeldByTheCaller) {
    // Called on a thread that has never entered Python.
    std::thread([] {
        PyObject* result = to_python(tala::Integer(5));
        ASSERT_NE(result, nullptr);
        EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
        GilGuard gil;
        EXPECT_EQ(PyLong_AsLong(result), 5);
        Py_DecRef(result);
    }).join();
}

// ---- Python objects that went to the host and come back ------------------------------------------

TEST_F(ToPythonTest, ProxyOfAPythonObjectGivesBackTheVeryObject) {
    GilGuard gil;
    PyObjectPtr list = evalPython("[1, 2, 3]");
    ASSERT_TRUE(list);
    const Py_ssize_t references = Py_REFCNT(list.get());
    {
        const tala::Any proxy = tala::python::makePythonProxy(list.get());
        PyObjectPtr back = convert(proxy);
        EXPECT_EQ(back.get(), list.get());
        const tala::Any collection = tala::python::from_python(list.get());
        PyObjectPtr again = convert(collection);
        EXPECT_EQ(again.get(), list.get());
    }
    EXPECT_EQ(Py_REFCNT(list.get()), references);
}

TEST_F(ToPythonTest, ProxyHoldingNothingFailsInsteadOfBeingWrapped) {
    GilGuard gil;
    const tala::Any empty = tala::make_instance(tala::python::PythonProxy::getClass());
    EXPECT_EQ(to_python(empty), nullptr);
    EXPECT_EQ(takePendingError(), "RuntimeError: The object is null.");
}

TEST_F(ToPythonTest, ClassViewOfAPythonClassGivesBackTheType) {
    GilGuard gil;
    PyObjectPtr globals = tala_python_test::newGlobals();
    ASSERT_TRUE(tala_python_test::runPython("class Widget:\n    pass\n", globals.get()));
    PyObject* type = PyDict_GetItemString(globals.get(), "Widget");  // borrowed
    ASSERT_NE(type, nullptr);
    const auto cls = tala::python::classOfPythonType(type);
    ASSERT_TRUE(cls.is<tala::Class_Generic>()) << tala::display(cls).toStdString();
    PyObjectPtr back = convert(cls.as<tala::Class_Generic>());
    EXPECT_EQ(back.get(), type);
    PyDict_Clear(globals.get());
}

// ---- Errors -----------------------------------------------------------------------------------

TEST_F(ToPythonTest, BaseErrorRaisesRuntimeErrorWithExactlyItsMessage) {
    GilGuard gil;
    const tala::Error error(tala::String("The value 'x' is not a number."));
    EXPECT_EQ(to_python(error), nullptr);
    PyObject* raised = PyErr_GetRaisedException();
    ASSERT_NE(raised, nullptr);
    PyObjectPtr exception = PyObjectPtr::steal(raised);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(raised)), PyExc_RuntimeError);
    PyObjectPtr text = PyObjectPtr::steal(PyObject_Str(raised));
    EXPECT_EQ(textOf(text.get()), "The value 'x' is not a number.");
    // A plain RuntimeError: nothing carries the host error.
    EXPECT_EQ(PyObject_HasAttrString(raised, "tala"), 0);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(ToPythonTest, BaseErrorWithANativeExceptionCarriesTheHostError) {
    GilGuard gil;
    const tala::Error error(tala::Error::getClass(), tala::String("The disk is full."),
                            std::make_exception_ptr(std::runtime_error("ENOSPC")));
    EXPECT_EQ(to_python(error), nullptr);
    PyObject* raised = PyErr_GetRaisedException();
    ASSERT_NE(raised, nullptr);
    PyObjectPtr exception = PyObjectPtr::steal(raised);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(raised)), PyExc_RuntimeError);
    PyObjectPtr carried = PyObjectPtr::steal(PyObject_GetAttrString(raised, "tala"));
    ASSERT_TRUE(carried) << takePendingError();
    const tala::Any* wrapped = wrappedHostValue(carried.get());
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->cell(), error.cell());
}

TEST_F(ToPythonTest, HostStopIterationRaisesPythonStopIteration) {
    GilGuard gil;
    EXPECT_EQ(to_python(tala::StopIteration()), nullptr);
    PyObject* raised = PyErr_GetRaisedException();
    ASSERT_NE(raised, nullptr);
    PyObjectPtr exception = PyObjectPtr::steal(raised);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(raised)), PyExc_StopIteration);
}

TEST_F(ToPythonTest, RaisedErrorIsReleasedWithTheException) {
    GilGuard gil;
    const tala::Class_Generic cls = kept(tala::ClassBuilder("ReleasedError").parent(tala::Error::getClass()).build());
    const tala::Error error(cls, tala::String("Released."));
    const std::uint32_t before = hostRefCount(error);
    EXPECT_EQ(to_python(error), nullptr);
    EXPECT_EQ(hostRefCount(error), before + 1);  // the exception's wrapper
    PyErr_Clear();
    EXPECT_EQ(hostRefCount(error), before);
}

}  // namespace
