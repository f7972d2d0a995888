// tests/python/bridge/from_python_test.cpp: Python objects into host values, row by row of the
// fixed order of tests: plain data copied, host values and Python objects keeping their identity
// across the border, containers and callables wrapped, exceptions as host errors.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "functions/function_python.hpp"
#include "proxies/python_proxy.hpp"
#include "proxies/python_type.hpp"
#include "python_test_support.hpp"

#include <cstdlib>

// Under AddressSanitizer the interpreter of this program allocates its objects with malloc rather
// than in its own arenas (which LeakSanitizer does not scan), so that a host value held by a live
// Python object counts as reachable and a host value nobody holds any more is reported. Set before
// any test starts the interpreter.
#if defined(__SANITIZE_ADDRESS__)
[[maybe_unused]] static const int g_pythonUsesMalloc = setenv("PYTHONMALLOC", "malloc", 0);
#endif

namespace {

using tala::Any;
using tala::python::from_python;
using tala::python::from_python_result;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala::python::to_python;
using tala_python_test::evalPython;
using tala_python_test::hostRefCount;
using tala_python_test::PythonTest;
using tala_python_test::runPython;
using tala_python_test::takePendingError;

class FromPythonTest : public PythonTest {
protected:
    void SetUp() override {
        GilGuard gil;
        globals_ = tala_python_test::newGlobals();
        ASSERT_TRUE(runPython("import datetime, decimal, fractions\n", globals_.get()));
    }
    void TearDown() override {
        {
            GilGuard gil;
            globals_.reset();
        }
        PythonTest::TearDown();
    }

    // The object an expression evaluates to in this test's globals.
    PyObjectPtr object(const char* expression) { return evalPython(expression, globals_.get()); }

    // The host value of an expression; no Python error may be left pending.
    Any convert(const char* expression) {
        GilGuard gil;
        PyObjectPtr value = object(expression);
        EXPECT_TRUE(value) << expression;
        Any converted = from_python(value.get());
        EXPECT_EQ(PyErr_Occurred(), nullptr) << expression << ": " << takePendingError();
        return converted;
    }

    PyObjectPtr globals_;
};

bool isExactly(const Any& value, const tala::Class_Generic& cls) { return tala::raw_class_of(value) == cls; }

// ---- None, NotImplemented, booleans ----------------------------------------------------------

TEST_F(FromPythonTest, NoneAndNullAreTheEmptyValue) {
    GilGuard gil;
    EXPECT_TRUE(from_python(nullptr).isEmpty());
    EXPECT_TRUE(from_python(Py_None).isEmpty());
    EXPECT_TRUE(convert("None").isEmpty());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FromPythonTest, NotImplementedIsUndefined) {
    GilGuard gil;
    const Any value = from_python(Py_NotImplemented);
    EXPECT_TRUE(tala::Undefined::matches(value));
    EXPECT_EQ(value.kind(), tala::Kind::Undefined);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FromPythonTest, BooleansAreHostBooleans) {
    const Any yes = convert("True");
    const Any no = convert("False");
    ASSERT_TRUE(tala::Boolean::matches(yes));
    ASSERT_TRUE(tala::Boolean::matches(no));
    EXPECT_TRUE(yes.rawBoolean());
    EXPECT_FALSE(no.rawBoolean());
}

// ---- Numbers ---------------------------------------------------------------------------------

TEST_F(FromPythonTest, IntIsAHostInteger) {
    const Any one = convert("1");
    ASSERT_TRUE(tala::Integer::matches(one));
    EXPECT_EQ(one.rawInteger(), 1);
    EXPECT_EQ(convert("-2**63").rawInteger(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(convert("2**63 - 1").rawInteger(), std::numeric_limits<std::int64_t>::max());
}

TEST_F(FromPythonTest, WholeFloatIsAnInteger) {
    const Any three = convert("3.0");
    ASSERT_TRUE(tala::Integer::matches(three));
    EXPECT_EQ(three.rawInteger(), 3);
    const Any negative = convert("-7.0");
    ASSERT_TRUE(tala::Integer::matches(negative));
    EXPECT_EQ(negative.rawInteger(), -7);
}

TEST_F(FromPythonTest, FractionalFloatIsAFloat) {
    const Any value = convert("3.5");
    ASSERT_TRUE(tala::Float::matches(value));
    EXPECT_EQ(value.rawFloat(), 3.5);
}

TEST_F(FromPythonTest, NanIsAFloatNan) {
    const Any value = convert("float('nan')");
    ASSERT_TRUE(tala::Float::matches(value));
    EXPECT_TRUE(std::isnan(value.rawFloat()));
}

TEST_F(FromPythonTest, InfinitiesStayFloats) {
    const Any positive = convert("float('inf')");
    const Any negative = convert("float('-inf')");
    ASSERT_TRUE(tala::Float::matches(positive));
    ASSERT_TRUE(tala::Float::matches(negative));
    EXPECT_EQ(positive.rawFloat(), std::numeric_limits<double>::infinity());
    EXPECT_EQ(negative.rawFloat(), -std::numeric_limits<double>::infinity());
}

TEST_F(FromPythonTest, WholeFloatsBeyondTheIntegerRangeStayFloats) {
    // A value no 64-bit integer holds is never replaced by another number.
    for (const char* text : {"1e20", "-1e20", "2.0**63", "1.7976931348623157e308", "-2.0**64"}) {
        SCOPED_TRACE(text);
        const Any value = convert(text);
        ASSERT_TRUE(tala::Float::matches(value));
        GilGuard gil;
        PyObjectPtr expected = tala_python_test::evalPython(text, globals_.get());
        EXPECT_EQ(value.rawFloat(), PyFloat_AsDouble(expected.get()));
    }
    // The largest and smallest whole floats an integer holds exactly become integers, as 3.0 does.
    EXPECT_EQ(convert("-2.0**63").rawInteger(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(convert("2.0**63 - 1024").rawInteger(), std::int64_t(9223372036854774784));
    EXPECT_EQ(convert("3.0").rawInteger(), 3);
}

TEST_F(FromPythonTest, FloatSubclassIsConvertedLikeAFloat) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class F(float): pass\n", globals_.get()));
    const Any whole = convert("F(4.0)");
    ASSERT_TRUE(tala::Integer::matches(whole));
    EXPECT_EQ(whole.rawInteger(), 4);
    const Any fraction = convert("F(0.25)");
    ASSERT_TRUE(tala::Float::matches(fraction));
    EXPECT_EQ(fraction.rawFloat(), 0.25);
}

TEST_F(FromPythonTest, IntBeyond64BitsGivesMinusOneWithOverflowErrorPending) {
    GilGuard gil;
    PyObjectPtr big = object("2**70");
    ASSERT_TRUE(big);
    const Any value = from_python(big.get());
    ASSERT_TRUE(tala::Integer::matches(value));
    EXPECT_EQ(value.rawInteger(), -1);
    ASSERT_NE(PyErr_Occurred(), nullptr);
    EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_OverflowError));
    PyErr_Clear();
}

TEST_F(FromPythonTest, IntBeyond64BitsAsAResultIsTheOverflowErrorAsHostError) {
    GilGuard gil;
    PyObjectPtr big = object("2**70");
    ASSERT_TRUE(big);
    const Any value = from_python_result(big.get());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    ASSERT_TRUE(tala::Error::matches(value));
    EXPECT_EQ(tala::raw_class_of(value), tala::Error::getClass());
    EXPECT_EQ(tala::Error(tala::internal::unchecked, value).message().view(), "int too big to convert");
}

TEST_F(FromPythonTest, ResultWithoutPendingErrorIsTheValue) {
    GilGuard gil;
    PyObjectPtr small = object("41 + 1");
    const Any value = from_python_result(small.get());
    ASSERT_TRUE(tala::Integer::matches(value));
    EXPECT_EQ(value.rawInteger(), 42);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FromPythonTest, ObjectsWithNumericSlotsAreTruncatedToIntegers) {
    const Any fraction = convert("fractions.Fraction(7, 2)");
    ASSERT_TRUE(tala::Integer::matches(fraction));
    EXPECT_EQ(fraction.rawInteger(), 3);

    GilGuard gil;
    ASSERT_TRUE(runPython("class Indexed:\n"
                          "    def __index__(self):\n"
                          "        return 12\n",
                          globals_.get()));
    const Any indexed = convert("Indexed()");
    ASSERT_TRUE(tala::Integer::matches(indexed));
    EXPECT_EQ(indexed.rawInteger(), 12);
}

TEST_F(FromPythonTest, FailingIntConversionGivesMinusOneWithTheFailurePending) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Bad:\n"
                          "    def __int__(self):\n"
                          "        raise ValueError('no int')\n",
                          globals_.get()));
    PyObjectPtr bad = object("Bad()");
    const Any value = from_python(bad.get());
    ASSERT_TRUE(tala::Integer::matches(value));
    EXPECT_EQ(value.rawInteger(), -1);
    EXPECT_EQ(takePendingError(), "ValueError: no int");
}

// ---- Bytes and text --------------------------------------------------------------------------

TEST_F(FromPythonTest, EmptyBytesAndBytearrayAreEmptyByteArrays) {
    for (const char* expression : {"b''", "bytearray()"}) {
        const Any value = convert(expression);
        ASSERT_TRUE(tala::ByteArray::matches(value)) << expression;
        EXPECT_EQ(tala::ByteArray(tala::internal::unchecked, value).size(), 0u) << expression;
    }
}

TEST_F(FromPythonTest, BytesAndBytearrayKeepEveryByte) {
    for (const char* expression : {"b'a\\x00\\xff'", "bytearray(b'a\\x00\\xff')"}) {
        const Any value = convert(expression);
        ASSERT_TRUE(tala::ByteArray::matches(value)) << expression;
        EXPECT_EQ(tala::ByteArray(tala::internal::unchecked, value).view(), std::string_view("a\0\xff", 3)) << expression;
    }
}

TEST_F(FromPythonTest, BytesSubclassIsAByteArray) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class B(bytes): pass\n", globals_.get()));
    const Any value = convert("B(b'xy')");
    ASSERT_TRUE(tala::ByteArray::matches(value));
    EXPECT_EQ(tala::ByteArray(tala::internal::unchecked, value).view(), "xy");
}

TEST_F(FromPythonTest, EmptyStrIsTheEmptyString) {
    const Any value = convert("''");
    ASSERT_TRUE(tala::String::matches(value));
    EXPECT_TRUE(tala::String(tala::internal::unchecked, value).isEmpty());
}

TEST_F(FromPythonTest, StrIsUtf8Text) {
    const Any value = convert("'gr\\u00fc\\u00df \\u20ac'");
    ASSERT_TRUE(tala::String::matches(value));
    EXPECT_EQ(tala::String(tala::internal::unchecked, value).view(), "gr\xc3\xbc\xc3\x9f \xe2\x82\xac");
    const Any withNul = convert("'a\\x00b'");
    EXPECT_EQ(tala::String(tala::internal::unchecked, withNul).view(), std::string_view("a\0b", 3));
}

TEST_F(FromPythonTest, LoneSurrogateIsTheEmptyStringWithNoErrorPending) {
    const Any value = convert("'ab\\ud800cd'");  // convert() checks that nothing is pending
    ASSERT_TRUE(tala::String::matches(value));
    EXPECT_TRUE(tala::String(tala::internal::unchecked, value).isEmpty());
}

TEST_F(FromPythonTest, StrSubclassIsAString) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class S(str): pass\n", globals_.get()));
    const Any value = convert("S('sub')");
    ASSERT_TRUE(tala::String::matches(value));
    EXPECT_EQ(tala::String(tala::internal::unchecked, value).view(), "sub");
}

// ---- Decimals, dates, times ------------------------------------------------------------------

TEST_F(FromPythonTest, DecimalKeepsItsText) {
    const Any value = convert("decimal.Decimal('1.10')");
    ASSERT_TRUE(tala::Decimal::matches(value));
    EXPECT_EQ(tala::Decimal(tala::internal::unchecked, value).toString().view(), "1.10");
    const Any large = convert("decimal.Decimal('-123456789012345678901234567890.5')");
    ASSERT_TRUE(tala::Decimal::matches(large));
    EXPECT_EQ(tala::Decimal(tala::internal::unchecked, large).toString().view(), "-123456789012345678901234567890.5");
}

// Digits and exponent exactly, the sign of zero and the specials included.
TEST_F(FromPythonTest, DecimalKeepsItsDigitsAndExponent) {
    for (const char* text : {"1234567890123456789012345678", "-0.1234567890123456789012345678", "1.5E-7", "1E+5", "-0E+3",
                             "-0", "0.000", "sNaN", "-NaN123", "-Infinity"}) {
        const std::string expression = std::string("decimal.Decimal('") + text + "')";
        const Any value = convert(expression.c_str());
        ASSERT_TRUE(tala::Decimal::matches(value)) << text;
        const auto expected = tala::Decimal::fromString(text);
        ASSERT_TRUE(expected.is<tala::Decimal>()) << text;
        const tala::Decimal decimal(tala::internal::unchecked, value);
        EXPECT_EQ(decimal.toString().view(), expected.as<tala::Decimal>().toString().view()) << text;
        const auto finite = decimal.finite();
        const auto expectedFinite = expected.as<tala::Decimal>().finite();
        ASSERT_EQ(finite.has_value(), expectedFinite.has_value()) << text;
        if (finite) {
            EXPECT_EQ(finite->negative, expectedFinite->negative) << text;
            EXPECT_EQ(finite->digits, expectedFinite->digits) << text;
            EXPECT_EQ(finite->exponent, expectedFinite->exponent) << text;
        }
    }
}

TEST_F(FromPythonTest, DecimalSubclassGoesByTheNumberRow) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class D(decimal.Decimal): pass\n", globals_.get()));
    const Any value = convert("D('7.9')");
    ASSERT_TRUE(tala::Integer::matches(value));
    EXPECT_EQ(value.rawInteger(), 7);
}

TEST_F(FromPythonTest, DateIsAHostDate) {
    const Any value = convert("datetime.date(2024, 2, 29)");
    ASSERT_TRUE(tala::Date::matches(value));
    const tala::Date date(tala::internal::unchecked, value);
    EXPECT_EQ(date.year(), 2024);
    EXPECT_EQ(date.month(), 2);
    EXPECT_EQ(date.day(), 29);
    EXPECT_EQ(tala::display(value).view(), "2024-02-29");
}

TEST_F(FromPythonTest, NaiveTimeIsAHostTime) {
    const Any value = convert("datetime.time(23, 59, 58, 999999)");
    ASSERT_TRUE(tala::Time::matches(value));
    const tala::Time time(tala::internal::unchecked, value);
    EXPECT_EQ(time.hour(), 23);
    EXPECT_EQ(time.minute(), 59);
    EXPECT_EQ(time.second(), 58);
    EXPECT_EQ(time.nanoseconds(), 999'999'000u);
    EXPECT_FALSE(time.offsetSeconds().has_value());
}

TEST_F(FromPythonTest, StandardAwareTimeComesOverNaive) {
    const Any value = convert("datetime.time(1, 2, 3, 4, tzinfo=datetime.timezone.utc)");
    ASSERT_TRUE(tala::Time::matches(value));
    const tala::Time time(tala::internal::unchecked, value);
    EXPECT_EQ(time.hour(), 1);
    EXPECT_EQ(time.minute(), 2);
    EXPECT_EQ(time.second(), 3);
    EXPECT_EQ(time.nanoseconds(), 4000u);
    EXPECT_FALSE(time.offsetSeconds().has_value());
    EXPECT_TRUE(time.zoneName().isEmpty());
    EXPECT_EQ(time.fold(), 0);
}

TEST_F(FromPythonTest, OffsetWhoseTotalSecondsIsAnIntIsKept) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Delta(datetime.timedelta):\n"
                          "    def total_seconds(self):\n"
                          "        return int(datetime.timedelta.total_seconds(self))\n"
                          "class Zone(datetime.tzinfo):\n"
                          "    def utcoffset(self, when):\n"
                          "        return Delta(hours=2)\n"
                          "    def tzname(self, when):\n"
                          "        return 'ZZ'\n",
                          globals_.get()));
    const Any value = convert("datetime.time(4, 5, 6, 7, tzinfo=Zone(), fold=1)");
    ASSERT_TRUE(tala::Time::matches(value));
    const tala::Time time(tala::internal::unchecked, value);
    EXPECT_EQ(time.hour(), 4);
    EXPECT_EQ(time.nanoseconds(), 7000u);
    ASSERT_TRUE(time.offsetSeconds().has_value());
    EXPECT_EQ(*time.offsetSeconds(), 7200);
    EXPECT_EQ(time.zoneName().view(), "ZZ");
    EXPECT_EQ(time.fold(), 1);
}

TEST_F(FromPythonTest, DateTimeIsAHostDateTime) {
    const Any value = convert("datetime.datetime(2024, 2, 29, 12, 30, 15, 5)");
    ASSERT_TRUE(tala::DateTime::matches(value));
    const tala::DateTime dateTime(tala::internal::unchecked, value);
    EXPECT_EQ(dateTime.date().year(), 2024);
    EXPECT_EQ(dateTime.date().month(), 2);
    EXPECT_EQ(dateTime.date().day(), 29);
    EXPECT_EQ(dateTime.time().hour(), 12);
    EXPECT_EQ(dateTime.time().minute(), 30);
    EXPECT_EQ(dateTime.time().second(), 15);
    EXPECT_EQ(dateTime.time().nanoseconds(), 5000u);
    EXPECT_FALSE(dateTime.time().offsetSeconds().has_value());

    const Any aware = convert("datetime.datetime(2020, 1, 2, 3, 4, 5, tzinfo=datetime.timezone.utc)");
    ASSERT_TRUE(tala::DateTime::matches(aware));
    EXPECT_FALSE(tala::DateTime(tala::internal::unchecked, aware).time().offsetSeconds().has_value());
}

TEST_F(FromPythonTest, DateSubclassIsAPlainProxy) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class MyDate(datetime.date): pass\n", globals_.get()));
    const Any value = convert("MyDate(2000, 1, 1)");
    EXPECT_TRUE(isExactly(value, tala::python::PythonProxy::getClass()));
}

TEST_F(FromPythonTest, DateHelpersReadFieldsOnlyWhenTheyAreInts) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Fake:\n"
                          "    year, month, day = 1999, 12, 31\n"
                          "class NotInts:\n"
                          "    year, month, day = 1999, '12', 31\n"
                          "    hour, minute, second, microsecond = 1, 2, 3.0, 4\n",
                          globals_.get()));
    PyObjectPtr fake = object("Fake()");
    auto date = tala::python::date_from_python(fake.get());
    ASSERT_TRUE(date.has_value());
    EXPECT_EQ(tala::display(*date).view(), "1999-12-31");
    PyObjectPtr notInts = object("NotInts()");
    EXPECT_FALSE(tala::python::date_from_python(notInts.get()).has_value());
    EXPECT_FALSE(tala::python::time_from_python(notInts.get()).has_value());
    EXPECT_FALSE(tala::python::time_from_python(fake.get()).has_value());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Identity across the border --------------------------------------------------------------

TEST_F(FromPythonTest, WrappedHostValueComesBackAsTheSameHostValue) {
    GilGuard gil;
    const tala::List<Any> list{tala::Integer(1), tala::String("two")};
    PyObjectPtr wrapper = PyObjectPtr::steal(to_python(list));
    ASSERT_TRUE(wrapper) << takePendingError();
    const Any back = from_python(wrapper.get());
    EXPECT_EQ(back.cell(), list.cell());
    EXPECT_TRUE(back.isSame(list));
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FromPythonTest, PythonObjectThatWentToTheHostComesBackAsItself) {
    GilGuard gil;
    for (const char* expression : {"[1, 2]", "{1: 2}", "{1}", "object()", "frozenset()", "(x for x in [])"}) {
        PyObjectPtr original = object(expression);
        ASSERT_TRUE(original);
        const Any proxy = from_python(original.get());
        PyObjectPtr back = PyObjectPtr::steal(to_python(proxy));
        EXPECT_EQ(back.get(), original.get()) << expression;
    }
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Proxies, functions, classes -------------------------------------------------------------

TEST_F(FromPythonTest, ListAndTupleAreSequenceProxies) {
    EXPECT_TRUE(isExactly(convert("[1, 2]"), tala::python::PythonProxySequence::getClass()));
    EXPECT_TRUE(isExactly(convert("(1, 2)"), tala::python::PythonProxySequence::getClass()));
    GilGuard gil;
    ASSERT_TRUE(runPython("class L(list): pass\n", globals_.get()));
    EXPECT_TRUE(isExactly(convert("L()"), tala::python::PythonProxySequence::getClass()));
}

TEST_F(FromPythonTest, DictIsAMappingProxy) {
    EXPECT_TRUE(isExactly(convert("{1: 2}"), tala::python::PythonProxyMapping::getClass()));
    GilGuard gil;
    ASSERT_TRUE(runPython("class M(dict): pass\n", globals_.get()));
    EXPECT_TRUE(isExactly(convert("M()"), tala::python::PythonProxyMapping::getClass()));
}

TEST_F(FromPythonTest, SetIsASetProxyButFrozensetOnlyIterable) {
    EXPECT_TRUE(isExactly(convert("{1}"), tala::python::PythonProxySet::getClass()));
    EXPECT_TRUE(isExactly(convert("frozenset()"), tala::python::PythonProxyIterable::getClass()));
}

TEST_F(FromPythonTest, GeneratorIsAnIterableProxy) {
    EXPECT_TRUE(isExactly(convert("(x for x in range(3))"), tala::python::PythonProxyIterable::getClass()));
}

TEST_F(FromPythonTest, PlainObjectIsAPlainProxy) {
    const Any value = convert("object()");
    EXPECT_TRUE(isExactly(value, tala::python::PythonProxy::getClass()));
    EXPECT_TRUE(tala::python::PythonProxy::matches(value));
}

TEST_F(FromPythonTest, CollectionProxiesArePythonProxiesToo) {
    EXPECT_TRUE(tala::python::PythonProxy::matches(convert("[1]")));
    EXPECT_TRUE(tala::I_Iterable_Generic::matches(convert("frozenset()")));
    EXPECT_TRUE(tala::I_MutableSequence_Generic::matches(convert("[1]")));
    EXPECT_TRUE(tala::I_MutableMap_Generic::matches(convert("{}")));
    EXPECT_TRUE(tala::I_MutableSet_Generic::matches(convert("set()")));
}

TEST_F(FromPythonTest, BuiltinFunctionIsAFunctionPython) {
    const Any value = convert("len");
    EXPECT_TRUE(tala::FunctionPython::matches(value));
    EXPECT_TRUE(tala::I_Invokable_Generic::matches(value));
}

TEST_F(FromPythonTest, CallablesWinOverContainers) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class CallableDict(dict):\n"
                          "    def __call__(self):\n"
                          "        return 1\n",
                          globals_.get()));
    EXPECT_TRUE(tala::FunctionPython::matches(convert("CallableDict()")));
}

TEST_F(FromPythonTest, ClassIsAClassViewThatGoesBackAsTheClass) {
    GilGuard gil;
    const Any value = convert("int");
    ASSERT_TRUE(tala::python::object_value_python_type::matches(value));
    const tala::python::object_value_python_type view(tala::internal::unchecked, value);
    EXPECT_EQ(view.pythonType(), reinterpret_cast<PyObject*>(&PyLong_Type));
    EXPECT_EQ(tala::Class_Generic(tala::internal::unchecked, value).name().view(), "int");
    PyObjectPtr back = PyObjectPtr::steal(to_python(value));
    EXPECT_EQ(back.get(), reinterpret_cast<PyObject*>(&PyLong_Type));
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FromPythonTest, ExceptionInstanceIsAHostError) {
    const Any value = convert("ValueError('bad')");
    ASSERT_TRUE(tala::Error::matches(value));
    EXPECT_EQ(tala::raw_class_of(value), tala::Error::getClass());
    EXPECT_EQ(tala::Error(tala::internal::unchecked, value).message().view(), "bad");
}

// ---- References ------------------------------------------------------------------------------

// Each kind of proxy takes exactly one reference and gives it back with its last host reference.
TEST_F(FromPythonTest, ProxiesTakeOneReferenceAndGiveItBack) {
    GilGuard gil;
    for (const char* expression : {"[1, 2]", "(1, 2)", "{1: 2}", "{1}", "frozenset()", "object()", "len",
                                   "(x for x in [])"}) {
        PyObjectPtr original = object(expression);
        ASSERT_TRUE(original);
        const Py_ssize_t before = Py_REFCNT(original.get());
        {
            Any proxy = from_python(original.get());
            EXPECT_EQ(Py_REFCNT(original.get()), before + 1) << expression;
            Any copy = proxy;
            EXPECT_EQ(Py_REFCNT(original.get()), before + 1) << expression;
            proxy.reset();
            EXPECT_EQ(Py_REFCNT(original.get()), before + 1) << expression;
            EXPECT_EQ(hostRefCount(copy), 1u) << expression;
        }
        EXPECT_EQ(Py_REFCNT(original.get()), before) << expression;
    }
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FromPythonTest, CopiedValuesTakeNoReference) {
    GilGuard gil;
    for (const char* expression : {"12345678901", "2.5", "'text'", "b'bytes'", "decimal.Decimal('1.5')",
                                   "datetime.date(2001, 1, 1)"}) {
        PyObjectPtr original = object(expression);
        ASSERT_TRUE(original);
        const Py_ssize_t before = Py_REFCNT(original.get());
        const Any value = from_python(original.get());
        EXPECT_EQ(Py_REFCNT(original.get()), before) << expression;
    }
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(FromPythonTest, ManyConversionsLeaveNothingBehind) {
    GilGuard gil;
    PyObjectPtr list = object("[1, 2, 3]");
    PyObjectPtr sys = PyObjectPtr::steal(PyImport_ImportModule("sys"));
    ASSERT_TRUE(list && sys);
    auto blocks = [&] {
        PyObjectPtr count = PyObjectPtr::steal(PyObject_CallMethod(sys.get(), "getallocatedblocks", nullptr));
        return PyLong_AsLongLong(count.get());
    };
    for (int warm = 0; warm < 100; ++warm) (void)from_python(list.get());
    const Py_ssize_t references = Py_REFCNT(list.get());
    const long long before = blocks();
    for (int round = 0; round < 10000; ++round) {
        Any proxy = from_python(list.get());
        Any text = from_python(PyObjectPtr::steal(PyUnicode_FromString("abc")).get());
    }
    EXPECT_EQ(Py_REFCNT(list.get()), references);
    EXPECT_LT(blocks() - before, 50);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

}  // namespace
