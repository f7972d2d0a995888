// tests/python/extension/fork_test.cpp: a host that forks while Python runs on another of its
// threads: the child can still enter Python, and os.fork() from Python code still works.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "language/evaluate.hpp"
#include "python_test_support.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;

// The exit status of `child`, or -1 when it has not ended within the time given (it is killed).
int waitForChild(pid_t child, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            (void)waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// In a forked child: evaluates an expression and ends with 0 when it gave the expected value.
[[noreturn]] void evaluateInChild() {
    const tala::Any result = tala::python::evaluate_expr(tala::String("sum(range(10))"), tala::None(), tala::None());
    _exit(result.kind() == tala::Kind::Integer && result.rawInteger() == 45 ? 0 : 3);
}

// AddressSanitizer's allocator in this toolchain takes no part in fork(): a child forked while
// another thread is inside malloc waits on that thread's allocator lock forever, before any of
// the extension's code runs. Under it the busy thread runs Python that allocates nothing once it
// is under way (a loop over a byte the test flips); elsewhere it evaluates text again and again,
// allocating as real work does.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kBusyWithoutAllocating = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kBusyWithoutAllocating = true;
#else
constexpr bool kBusyWithoutAllocating = false;
#endif
#else
constexpr bool kBusyWithoutAllocating = false;
#endif

TEST(Fork, ChildOfAHostThreadEvaluatesWhileAnotherThreadRunsPython) {
    ASSERT_TRUE(tala::python::ensurePythonOnce());
    std::atomic<bool> stop{false};
    std::atomic<long> rounds{0};
    // flags[0] asks the loop to end, flags[1] says it runs; a bytearray's storage, read by Python.
    std::atomic<char*> flags{nullptr};
    std::thread busy([&] {
        if (kBusyWithoutAllocating) {
            GilGuard gil;
            PyObjectPtr bytes = PyObjectPtr::steal(PyByteArray_FromStringAndSize("\0\0", 2));
            PyObjectPtr globals = tala_python_test::newGlobals();
            ASSERT_TRUE(bytes && PyDict_SetItemString(globals.get(), "flags", bytes.get()) == 0);
            flags = PyByteArray_AS_STRING(bytes.get());
            EXPECT_TRUE(tala_python_test::runPython("flags[1] = 1\nwhile not flags[0]: pass\n", globals.get()));
            return;
        }
        while (!stop.load()) {
            GilGuard gil;
            PyObjectPtr sum = tala_python_test::evalPython("sum(range(20000))");
            ++rounds;
        }
    });
    const auto busyStarted = [&] {
        if (!kBusyWithoutAllocating) return rounds.load() > 0;
        return flags.load() != nullptr && std::atomic_ref<char>(flags.load()[1]).load() != 0;
    };
    const auto startLimit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!busyStarted() && std::chrono::steady_clock::now() < startLimit) std::this_thread::yield();
    if (!busyStarted()) {
        busy.detach();
        FAIL() << "the busy thread did not start running Python";
    }
    for (int child = 0; child < 10; ++child) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) evaluateInChild();
        EXPECT_EQ(waitForChild(pid, std::chrono::seconds(20)), 0) << "child " << child << " (-1: it hung)";
    }
    stop = true;
    if (kBusyWithoutAllocating) std::atomic_ref<char>(flags.load()[0]).store(1);
    busy.join();
    // The parent goes on as before.
    GilGuard gil;
    PyObjectPtr value = tala_python_test::evalPython("6 * 7");
    EXPECT_EQ(PyLong_AsLong(value.get()), 42);
}

TEST(Fork, OsForkFromPythonCodeStillWorks) {
    ASSERT_TRUE(tala::python::ensurePythonOnce());
    const tala::Any status = tala::python::evaluate(tala::String("import os, warnings\n"
                                                                 "warnings.simplefilter('ignore', DeprecationWarning)\n"
                                                                 "pid = os.fork()\n"
                                                                 "if pid == 0:\n"
                                                                 "    os._exit(7 if sum(range(4)) == 6 else 1)\n"
                                                                 "return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])"),
                                                    tala::None(), tala::None(), tala::None());
    ASSERT_EQ(status.kind(), tala::Kind::Integer) << tala::display(status).toStdString();
    EXPECT_EQ(status.rawInteger(), 7);
}

}  // namespace
