// tests/stress/exit_child.cpp: a host that ends its process while other threads are inside Python:
// some run Python loops, some call host functions from Python, some wait in Python with the lock
// given up. The main thread calls exit() as soon as every thread has been in Python at least
// once; the process must end cleanly with status 0.
#include <Python.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "language/evaluate.hpp"
#include "python_test_support.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::String;
using MapArgument = tala::Union<tala::I_Map<String, Any>, tala::None>;

constexpr int kThreads = 4;

std::atomic<int> g_entered{0};

// What each thread runs, over and over, until the process ends under it.
const char* const kCode[kThreads] = {
    "sum(range(200000))",
    "[str(n) for n in range(20000)]",
    "bump() + sum(bump() for _ in range(500))",
    "__import__('time').sleep(0.001) or 1",
};

void loop(int index) {
    std::atomic<std::int64_t> calls{0};
    const Any bump = tala::native_function([&calls]() -> std::int64_t { return ++calls; }, String("bump"));
    const HashMap<String, Any> locals{{String("bump"), bump}};
    bool first = true;
    for (;;) {
        const Any result = tala::python::evaluate_expr(String(kCode[index]), MapArgument(tala::internal::unchecked, locals),
                                                       MapArgument(tala::None()));
        if (tala::is_error_result(result)) {
            std::fprintf(stderr, "thread %d: %s\n", index, tala::display(result).toStdString().c_str());
            std::_Exit(3);
        }
        if (first) {
            first = false;
            ++g_entered;
        }
    }
}

}  // namespace

// The process ends while its threads are in the middle of evaluations: what they hold then is in
// use, not leaked, and LeakSanitizer's check at exit (sanitizer builds) cannot tell the two
// apart. Leaks are counted by the tests whose threads finish their work.
extern "C" int __lsan_is_turned_off() { return 1; }

int main() {
    const Any handlers = tala::run_init_handlers();
    if (!handlers.isEmpty()) {
        std::fprintf(stderr, "start-up failed: %s\n", tala::display(handlers).toStdString().c_str());
        return 1;
    }
    const tala_python_test::Watchdog watchdog(std::chrono::seconds(30),
                                              "The threads never all entered Python within 30 s.");
    for (int index = 0; index < kThreads; ++index) std::thread(loop, index).detach();
    while (g_entered.load() < kThreads) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::exit(0);
}
