// tests/python/extension/gil_test.cpp: the interpreter-lock holder, the Python reference holders
// and the rules for their use: nesting, giving the lock back on every way out, no interpreter
// call for a null reference.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "bridge/to_python.hpp"
#include "python_test_support.hpp"
#include "lock_check.hpp"

// ---- Counting the reference-count calls ---------------------------------------------------------
//
// The extension changes reference counts only through the interpreter's exported Py_IncRef and
// Py_DecRef. This test program defines both itself: every call made by the extension's code
// linked into it lands here first, is counted, and is passed on to the interpreter's own
// function. That lets a test see whether a holder called the interpreter at all.

namespace {

std::atomic<long> g_incRefCalls{0};
std::atomic<long> g_decRefCalls{0};

using RefFunction = void (*)(PyObject*);

RefFunction interpreterFunction(const char* name) {
    auto* function = reinterpret_cast<RefFunction>(dlsym(RTLD_NEXT, name));
    if (function == nullptr) std::abort();
    return function;
}

}  // namespace

extern "C" void Py_IncRef(PyObject* object) {
    static const RefFunction real = interpreterFunction("Py_IncRef");
    g_incRefCalls.fetch_add(1, std::memory_order_relaxed);
    real(object);
}

extern "C" void Py_DecRef(PyObject* object) {
    static const RefFunction real = interpreterFunction("Py_DecRef");
    g_decRefCalls.fetch_add(1, std::memory_order_relaxed);
    real(object);
}

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala::python::PyObjectPtr_Borrowed;
using tala_python_test::PythonTest;

// ---- Copy and move rules --------------------------------------------------------------------

static_assert(!std::is_copy_constructible_v<GilGuard>);
static_assert(!std::is_copy_assignable_v<GilGuard>);
static_assert(!std::is_move_constructible_v<GilGuard>);
static_assert(!std::is_move_assignable_v<GilGuard>);
static_assert(!std::is_copy_constructible_v<PyObjectPtr>);
static_assert(!std::is_copy_assignable_v<PyObjectPtr>);
static_assert(std::is_nothrow_move_constructible_v<PyObjectPtr>);
static_assert(std::is_nothrow_move_assignable_v<PyObjectPtr>);
static_assert(std::is_trivially_copyable_v<PyObjectPtr_Borrowed>);
static_assert(sizeof(PyObjectPtr) == sizeof(PyObject*));

class GilGuardTest : public PythonTest {};
class PyObjectPtrTest : public PythonTest {};
class InterpreterStartTest : public PythonTest {};

TEST_F(GilGuardTest, HoldersAreNotCopyable) {
    // The static assertions above are the test; this only records that they were compiled.
    EXPECT_FALSE(std::is_copy_constructible_v<GilGuard>);
    EXPECT_FALSE(std::is_copy_constructible_v<PyObjectPtr>);
}

// ---- PyObjectPtr ------------------------------------------------------------------------------

TEST_F(PyObjectPtrTest, NullHolderIsDestroyedWithoutAnInterpreterCall) {
    const long incBefore = g_incRefCalls.load();
    const long decBefore = g_decRefCalls.load();
    {
        PyObjectPtr empty;
        PyObjectPtr stolenNull = PyObjectPtr::steal(nullptr);
        PyObjectPtr borrowedNull = PyObjectPtr::borrow(static_cast<PyObject*>(nullptr));
        PyObjectPtr moved(std::move(stolenNull));
        EXPECT_FALSE(empty);
        EXPECT_FALSE(moved);
        EXPECT_FALSE(borrowedNull);
    }
    EXPECT_EQ(g_incRefCalls.load(), incBefore);
    EXPECT_EQ(g_decRefCalls.load(), decBefore);
}

TEST_F(PyObjectPtrTest, NullHolderNeedsNoInterpreterLock) {
    // Destroyed on a thread that has never entered Python: nothing may be called.
    const long decBefore = g_decRefCalls.load();
    std::thread([] {
        PyObjectPtr empty;
        empty.reset();
    }).join();
    EXPECT_EQ(g_decRefCalls.load(), decBefore);
}

TEST_F(PyObjectPtrTest, StealTakesOverAndDestructionDropsOnce) {
    GilGuard gil;
    PyObject* raw = PyList_New(0);
    ASSERT_NE(raw, nullptr);
    Py_IncRef(raw);  // our own reference, to watch the count
    const long decBefore = g_decRefCalls.load();
    {
        PyObjectPtr held = PyObjectPtr::steal(raw);
        EXPECT_EQ(Py_REFCNT(raw), 2);
        PyObjectPtr movedTo(std::move(held));
        EXPECT_FALSE(held);  // NOLINT(bugprone-use-after-move): a moved-from holder is null
        EXPECT_EQ(movedTo.get(), raw);
        EXPECT_EQ(Py_REFCNT(raw), 2);
    }
    EXPECT_EQ(g_decRefCalls.load(), decBefore + 1);
    EXPECT_EQ(Py_REFCNT(raw), 1);
    Py_DecRef(raw);
}

TEST_F(PyObjectPtrTest, BorrowAddsAReferenceAndReleaseHandsItOver) {
    GilGuard gil;
    PyObjectPtr list = PyObjectPtr::steal(PyList_New(0));
    ASSERT_TRUE(list);
    const long incBefore = g_incRefCalls.load();
    {
        PyObjectPtr second = PyObjectPtr::borrow(PyObjectPtr_Borrowed(list.get()));
        EXPECT_EQ(g_incRefCalls.load(), incBefore + 1);
        EXPECT_EQ(Py_REFCNT(list.get()), 2);
        EXPECT_EQ(second.borrowed().get(), list.get());
    }
    EXPECT_EQ(Py_REFCNT(list.get()), 1);

    PyObjectPtr third = PyObjectPtr::borrow(list.get());
    PyObject* handedOver = third.release();
    EXPECT_FALSE(third);
    EXPECT_EQ(Py_REFCNT(list.get()), 2);
    Py_DecRef(handedOver);
    EXPECT_EQ(Py_REFCNT(list.get()), 1);
}

TEST_F(PyObjectPtrTest, MoveAssignmentDropsTheOldReference) {
    GilGuard gil;
    PyObjectPtr first = PyObjectPtr::steal(PyList_New(0));
    PyObjectPtr second = PyObjectPtr::steal(PyList_New(0));
    PyObjectPtr watch = PyObjectPtr::borrow(first.get());
    EXPECT_EQ(Py_REFCNT(watch.get()), 2);
    first = std::move(second);
    EXPECT_EQ(Py_REFCNT(watch.get()), 1);
    EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move)
    first = std::move(first);  // self-move keeps the object
    EXPECT_TRUE(first);
    EXPECT_EQ(Py_REFCNT(first.get()), 1);
}

TEST_F(PyObjectPtrTest, ResetDropsTheOldAndKeepsTheNew) {
    GilGuard gil;
    PyObjectPtr holder = PyObjectPtr::steal(PyList_New(0));
    PyObjectPtr watch = PyObjectPtr::borrow(holder.get());
    holder.reset(PyDict_New());
    EXPECT_EQ(Py_REFCNT(watch.get()), 1);
    EXPECT_TRUE(PyDict_Check(holder.get()));
    holder.reset();
    EXPECT_FALSE(holder);
}

// ---- GilGuard ---------------------------------------------------------------------------------

TEST_F(GilGuardTest, NestedGuardsOnOneThreadDoNotDeadlock) {
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
    {
        GilGuard outer;
        EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
        {
            GilGuard inner;
            EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
            // An operation that takes the lock itself, called with the lock held.
            PyObjectPtr value = PyObjectPtr::steal(tala::python::to_python(tala::Integer(7)));
            ASSERT_TRUE(value);
            EXPECT_EQ(PyLong_AsLong(value.get()), 7);
        }
        EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
    }
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
}

TEST_F(GilGuardTest, NoThreadHoldsTheLockBetweenCalls) {
    // After start-up the starting thread gave the lock up for good.
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
    std::thread([] {
        EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
        {
            GilGuard gil;
            EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
        }
        EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
    }).join();
}

TEST_F(GilGuardTest, LockIsGivenBackWhenAnExceptionLeavesTheScope) {
    std::thread([] {
        try {
            GilGuard gil;
            EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
            throw std::runtime_error("leaving the scope");
        } catch (const std::runtime_error&) {
        }
        EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
    }).join();
    // The lock is free: this thread can take it at once.
    GilGuard gil;
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
}

TEST_F(GilGuardTest, FailedOperationLeavesTheLockFreeForAnotherThread) {
    std::promise<void> failed;
    std::promise<void> secondDone;
    std::shared_future<void> secondDoneFuture = secondDone.get_future().share();
    std::atomic<bool> resultWasNull{false};
    std::atomic<int> lockHeldAfterFailure{-1};

    // Thread A: a conversion that raises (a host error) after taking the lock; then it stays
    // alive, without the lock, until thread B is through.
    std::thread first([&] {
        PyObject* result = tala::python::to_python(tala::Error(tala::String("The operation failed.")));
        resultWasNull = result == nullptr;
        lockHeldAfterFailure = tala_python_test::holdsAnInterpreterLock();
        failed.set_value();
        secondDoneFuture.wait_for(std::chrono::seconds(10));
    });
    failed.get_future().wait();

    // Thread B: enters Python right away and does some work.
    std::atomic<long> answer{0};
    std::thread second([&] {
        GilGuard gil;
        PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr value = PyObjectPtr::steal(PyRun_String("6 * 7", Py_eval_input, globals.get(), globals.get()));
        answer = value ? PyLong_AsLong(value.get()) : -1;
        secondDone.set_value();
    });

    const bool entered = secondDoneFuture.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    if (!entered) {
        // Thread B is stuck on the lock; joining would hang the whole run.
        first.detach();
        second.detach();
        FAIL() << "a second thread could not enter Python after a failed operation";
    }
    first.join();
    second.join();
    EXPECT_TRUE(resultWasNull);
    EXPECT_EQ(lockHeldAfterFailure, 0);
    EXPECT_EQ(answer, 42);
}

// The number of interpreter thread states alive now.
int threadStates() {
    GilGuard gil;
    int count = 0;
    for (PyThreadState* state = PyInterpreterState_ThreadHead(PyInterpreterState_Main()); state != nullptr;
         state = PyThreadState_Next(state)) {
        ++count;
    }
    return count;
}

TEST_F(GilGuardTest, AHostThreadKeepsItsInterpreterStateFromEntryToEntry) {
    std::thread([] {
        PyThreadState* first = nullptr;
        PyThreadState* second = nullptr;
        {
            GilGuard gil;
            first = PyThreadState_Get();
        }
        EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
        {
            GilGuard gil;
            second = PyThreadState_Get();
            // The interpreter's own book-keeping nests inside the kept state.
            const PyGILState_STATE state = PyGILState_Ensure();
            EXPECT_EQ(state, PyGILState_LOCKED);
            PyGILState_Release(state);
        }
        EXPECT_EQ(first, second);
        EXPECT_EQ(PyGILState_GetThisThreadState(), first);
    }).join();
}

TEST_F(GilGuardTest, ThreadStatesGoWithTheirThreads) {
    const int before = threadStates();
    for (int round = 0; round < 1000; ++round) {
        std::thread([] {
            for (int entry = 0; entry < 3; ++entry) {
                GilGuard gil;
                PyObjectPtr value = PyObjectPtr::steal(PyLong_FromLong(entry));
            }
        }).join();
    }
    EXPECT_EQ(threadStates(), before);
}

// ---- Start-up ---------------------------------------------------------------------------------

TEST_F(InterpreterStartTest, StartedOnceAndLockGivenUp) {
    EXPECT_TRUE(Py_IsInitialized());
    EXPECT_EQ(tala::python::testing::interpreterStarts(), 1);
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
    EXPECT_TRUE(tala::python::ensurePythonOnce());
    EXPECT_EQ(tala::python::testing::interpreterStarts(), 1);
}

TEST_F(InterpreterStartTest, OwnStartDescribesTheLanguageAndRegistersItsClass) {
    const auto language = tala::Module::find("python");
    ASSERT_TRUE(language.has_value());
    EXPECT_TRUE(language->doc().startsWith("Python is an easy to learn, powerful programming language."));
    EXPECT_EQ(language->lazyModuleNames().size(), 8u);
    const auto extension = tala::Module::find("tala.python");
    ASSERT_TRUE(extension.has_value());
    EXPECT_TRUE(extension->classes().contains(tala::String("LanguagePython")));
}

TEST_F(InterpreterStartTest, DirectSecondRunDoesNotInitialiseAgain) {
    EXPECT_TRUE(tala::python::ensurePythonInitialized());
    EXPECT_TRUE(tala::python::ensurePythonInitialized());
    EXPECT_EQ(tala::python::testing::interpreterStarts(), 1);
    // Nor did it describe the language again.
    EXPECT_EQ(tala::Module::find("python")->lazyModuleNames().size(), 8u);
    // Nor did it take or give up the lock on this thread.
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
    GilGuard gil;
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
}

}  // namespace
