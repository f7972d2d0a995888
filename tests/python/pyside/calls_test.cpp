// tests/python/pyside/calls_test.cpp: calling wrapped host invokables from Python, by position or
// by name, and from several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "python_test_support.hpp"
#include "support/test_host_module.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala_python_test::HostTest;
using tala_python_test::hostRefCount;
using tala_python_test::takePendingError;
namespace testhost = tala_python_test::testhost;

class CallsTest : public HostTest {
protected:
    // The arguments of the last call of testhost.record, as the host received them.
    static tala::Any lastRecorded() {
        const tala::List<tala::Any> calls = testhost::recordedCalls();
        if (calls.isEmpty()) {
            ADD_FAILURE() << "record was never called";
            return tala::Any();
        }
        return calls[calls.size() - 1];
    }
    static std::string lastRecordedText() { return tala::display(lastRecorded()).toStdString(); }
};

// ---- By position and by name --------------------------------------------------------------------

TEST_F(CallsTest, PositionalArgumentsArePassedAsAListInOrder) {
    GilGuard gil;
    EXPECT_EQ(repr("testhost.join('x', 'y')"), "'x-y'");
    const std::size_t before = testhost::recordedCalls().size();
    ASSERT_TRUE(run("testhost.record(1, 2)"));
    EXPECT_EQ(testhost::recordedCalls().size(), before + 1);
    ASSERT_TRUE(tala::List_Generic::matches(lastRecorded()));
    EXPECT_EQ(lastRecordedText(), "[1, 2]");
}

TEST_F(CallsTest, KeywordArgumentsAreBoundByName) {
    GilGuard gil;
    EXPECT_EQ(repr("testhost.join(b='y', a='x')"), "'x-y'");
    EXPECT_EQ(repr("testhost.join(a='x', b='y')"), "'x-y'");
    EXPECT_EQ(raised("testhost.join(a='x', c='y')"), "ArgumentError: join() missing 1 required argument: 'b'");
    EXPECT_EQ(raised("testhost.join(a='x', b='y', c='z')"), "ArgumentError: join() got an unexpected keyword argument 'c'");
}

TEST_F(CallsTest, AnyKeywordArgumentMakesTheCallAByNameCallOnly) {
    GilGuard gil;
    ASSERT_TRUE(run("testhost.record(1, 2, k=3)"));
    const tala::Any got = lastRecorded();
    ASSERT_TRUE(tala::HashMap_Generic::matches(got)) << lastRecordedText();
    const tala::HashMap_Generic named(tala::internal::unchecked, got);
    EXPECT_EQ(named.size(), 1u);
    EXPECT_EQ(lastRecordedText(), "{'k': 3}");
    // A positional parameter given by position and by name: only the name reaches the host.
    EXPECT_EQ(repr("testhost.join('ignored', a='x', b='y')"), "'x-y'");
}

TEST_F(CallsTest, EmptyKeywordArgumentsBehaveAsNone) {
    GilGuard gil;
    ASSERT_TRUE(run("testhost.record(**{})"));
    EXPECT_EQ(lastRecordedText(), "[]");
    ASSERT_TRUE(run("testhost.record(1, 2, **{})"));
    EXPECT_EQ(lastRecordedText(), "[1, 2]");
    EXPECT_EQ(repr("testhost.join(*('x', 'y'), **{})"), "'x-y'");
}

TEST_F(CallsTest, ArgumentsAndResultsCrossAsTheirHostValues) {
    GilGuard gil;
    ASSERT_TRUE(run("w = testhost.Widget('w', 1)\n"
                    "v = testhost.Widget('v', 2)\n"
                    "testhost.record(w, [1, 'a'], None, 2.5, b'x')\n"));
    const tala::Any got = lastRecorded();
    ASSERT_TRUE(tala::List_Generic::matches(got));
    const tala::List_Generic arguments(tala::internal::unchecked, got);
    ASSERT_EQ(arguments.size(), 5u);
    EXPECT_TRUE(arguments[0].isSame(hostValue("w")));  // a wrapper comes back as its host value
    EXPECT_TRUE(arguments[2].isEmpty());
    EXPECT_EQ(arguments[3].kind(), tala::Kind::Float);
    EXPECT_EQ(arguments[4].kind(), tala::Kind::ByteArray);
    EXPECT_EQ(repr("w.merge(v).size"), "3");
    EXPECT_EQ(repr("w.grow(by=2)"), "3");  // a bound method by name
    EXPECT_EQ(repr("testhost.Widget(size=4, label='n').label"), "'n'");  // a class by name
}

TEST_F(CallsTest, AnIntegerBeyondSixtyFourBitsRaisesOverflowError) {
    GilGuard gil;
    const std::size_t before = testhost::recordedCalls().size();
    EXPECT_EQ(raised("testhost.record(2 ** 70)"), "OverflowError: int too big to convert");
    EXPECT_EQ(raised("testhost.record(k=2 ** 70)"), "OverflowError: int too big to convert");
    EXPECT_EQ(testhost::recordedCalls().size(), before);  // the host was not called
}

// ---- Failures -----------------------------------------------------------------------------------

TEST_F(CallsTest, AnErrorResultOfTheHostRaisesIt) {
    GilGuard gil;
    EXPECT_EQ(raisedHostError("testhost.fail('boom')"), "testhost.TestError: boom");
    EXPECT_EQ(raised("testhost.add('a', 1)"), "ArgumentError: add() argument 'a' must be Integer, not String");
    EXPECT_EQ(raised("testhost.add(1)"), "ArgumentError: add() missing 1 required argument: 'b'");
}

TEST_F(CallsTest, CallingAValueThatIsNotInvokableRaisesRuntimeError) {
    GilGuard gil;
    ASSERT_TRUE(run("w = testhost.Widget('w', 3)"));
    // Per-class types are callable; the host value is not.
    EXPECT_EQ(repr("callable(w)"), "True");
    const std::string message = raised("w(1)");
    EXPECT_EQ(message.rfind("RuntimeError: Non-callable object: ", 0), 0u) << message;
    EXPECT_EQ(message, "RuntimeError: Non-callable object: Widget 'w' of size 3");
    EXPECT_EQ(raised("w(k=1)"), "RuntimeError: Non-callable object: Widget 'w' of size 3");
}

TEST_F(CallsTest, CallingAGenericNonCallableWrapperRaisesPythonsTypeError) {
    GilGuard gil;
    EXPECT_EQ(repr("callable(testhost.numbers())"), "False");
    EXPECT_EQ(raised("testhost.numbers()()"), "TypeError: '>TalaObject' object is not callable");
}

TEST_F(CallsTest, CallingAWrappedErrorRaisesIt) {
    GilGuard gil;
    ASSERT_TRUE(run("try:\n"
                    "    testhost.fail('called')\n"
                    "except RuntimeError as error:\n"
                    "    wrapped = error.tala\n"));
    EXPECT_EQ(raisedHostError("wrapped(1, 2)"), "testhost.TestError: called");
    EXPECT_EQ(raisedHostError("wrapped(k=1)"), "testhost.TestError: called");
}

// ---- Reference counts ---------------------------------------------------------------------------

TEST_F(CallsTest, CallsLeaveNoReferencesBehind) {
    GilGuard gil;
    const tala::List<tala::Integer> numbers{1, 2, 3};
    put("numbers", numbers);
    ASSERT_TRUE(run("import gc, sys\n"
                    "w = testhost.Widget('w', 1)\n"
                    "def churn():\n"
                    "    for i in range(300):\n"
                    "        assert testhost.add(i, 1) == i + 1\n"
                    "        assert testhost.join(b=str(i), a='x') == 'x-' + str(i)\n"
                    "        testhost.record(numbers, w, i)\n"
                    "        testhost.record(k=numbers, a=w)\n"
                    "        testhost.Widget('t', i).merge(w)\n"
                    "        for code in ('testhost.fail(\"x\")', 'w(1)', 'numbers()', 'testhost.add(\"a\", 1)'):\n"
                    "            try:\n"
                    "                exec(code)\n"
                    "            except (RuntimeError, TypeError):\n"
                    "                pass\n"
                    "churn()\n"
                    "gc.collect()\n"));
    testhost::recordedCalls().clear();
    const std::int64_t widgets = testhost::liveWidgets();
    const std::uint32_t listReferences = hostRefCount(numbers);
    ASSERT_TRUE(run(tala_python_test::kLeastBlockGrowthOfThreeChurns));
    EXPECT_EQ(testhost::recordedCalls().size(), 3 * 600u);
    testhost::recordedCalls().clear();
    EXPECT_EQ(testhost::liveWidgets(), widgets);
    EXPECT_EQ(hostRefCount(numbers), listReferences);
    PyObjectPtr grown = eval("grown");
    ASSERT_TRUE(grown);
    EXPECT_LT(PyLong_AsLong(grown.get()), 100) << "Python memory blocks grew over 300 rounds";
}

// ---- Threads ------------------------------------------------------------------------------------

TEST_F(CallsTest, FourThreadsCallingAHostFunctionAtOnceGetTheirOwnResults) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 10000;
    PyObject* add = nullptr;
    {
        GilGuard gil;
        PyObjectPtr found = eval("testhost.add");
        ASSERT_TRUE(found);
        add = found.release();  // dropped below, after the threads
    }
    std::atomic<int> wrong{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([add, thread, &wrong, &failed] {
            for (int call = 0; call < kCalls; ++call) {
                const PyGILState_STATE state = PyGILState_Ensure();
                PyObject* result = PyObject_CallFunction(add, "ii", call, thread * 1000000);
                if (result == nullptr) {
                    ++failed;
                    PyErr_Clear();
                } else {
                    if (PyLong_AsLongLong(result) != call + thread * 1000000) ++wrong;
                    Py_DecRef(result);
                }
                if (PyErr_Occurred() != nullptr) {
                    ++failed;
                    PyErr_Clear();
                }
                PyGILState_Release(state);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(wrong.load(), 0);
    GilGuard gil;
    Py_DecRef(add);
}

TEST_F(CallsTest, FourThreadsRunningPythonLoopsOverHostCallsAtOnce) {
    constexpr int kThreads = 4;
    {
        GilGuard gil;
        ASSERT_TRUE(run("def total(offset):\n"
                        "    sum = 0\n"
                        "    for i in range(10000):\n"
                        "        sum += testhost.add(i, offset)\n"
                        "    return sum\n"));
    }
    PyObject* globals = this->globals();
    tala::python::Interpreter* interpreter = nullptr;
    {
        GilGuard gil;
        interpreter = tala::python::currentInterpreter();
    }
    std::vector<long long> totals(kThreads, -1);
    std::vector<std::string> errors(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        // Every thread enters the interpreter of the globals and the function (its own home may
        // be another one in the isolated layout).
        threads.emplace_back([globals, interpreter, thread, &totals, &errors] {
            GilGuard gil(interpreter);
            PyObject* total = PyDict_GetItemString(globals, "total");  // borrowed
            PyObjectPtr result = PyObjectPtr::steal(PyObject_CallFunction(total, "i", thread));
            if (!result) {
                errors[thread] = takePendingError();
                return;
            }
            totals[thread] = PyLong_AsLongLong(result.get());
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_EQ(errors[thread], "");
        EXPECT_EQ(totals[thread], 49995000LL + 10000LL * thread);
    }
    GilGuard gil;
    ASSERT_TRUE(run("del total"));  // the function refers to the globals: break the cycle
}

}  // namespace
