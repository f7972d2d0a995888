// bench/interruption_bench.cpp: how long an interrupted evaluation takes to end, for each kind of
// wait: Python code, time.sleep, select, a socket read, Lock.acquire, os.waitpid, a subprocess
// wait and a runaway recursive SQL statement of the sqlite module.
//
// Each benchmark makes 100 tries on the thread that started the interpreter (the host program's
// main thread, where every wait of Python's can be reached): the code tells the host it is about
// to wait, another thread calls LanguagePython.interrupt 5 ms later, and the time from that call
// to the end of the evaluation is one latency. The counters give the median and the maximum in
// milliseconds; a try that ends any other way than interrupted, or a maximum of 100 ms or more,
// fails the benchmark (the subprocess wait excepted: subprocess gives the child 0.25 s to end
// after a KeyboardInterrupt, as under Python's own program).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "loaded_extension.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::String;
using Clock = std::chrono::steady_clock;

constexpr int kTries = 100;

// The Python extension loaded as a host loads it (this thread starts the interpreter), and the
// functions the benchmarks call.
struct Setup {
    tala::I_Invokable_Generic evaluate{tala::internal::unchecked, Any()};
    tala::I_Invokable_Generic interrupt{tala::internal::unchecked, Any()};
    Any threadId;
    bool ready = false;

    Setup() {
        if (!tala_bench::loadPythonExtension()) return;
        evaluate = tala::I_Invokable_Generic(tala::internal::unchecked, tala_bench::pythonModuleFunction("evaluate"));
        const auto module = tala::Module::find("tala.python");
        const auto language = tala::Class_Generic::cast(module->classes().get(String("LanguagePython")).value_or(Any()));
        auto method = [&](const char* name) {
            return tala::definedMethod(*language, tala::Identifier::intern(name)).as<tala::I_Invokable_Generic>();
        };
        interrupt = method("interrupt");
        threadId = tala::resolve(method("threadId")());
        ready = true;
    }
};

Setup& setup() {
    static Setup instance;
    return instance;
}

std::string errorType(const Any& result) {
    if (!tala::Error::matches(result)) return "<no error: " + tala::display(result).toStdString() + ">";
    auto found = tala::property_of(result, std::string_view("exceptionType"));
    if (found.isEmpty()) return tala::Error(tala::internal::unchecked, result).message().toStdString();
    return tala::display(tala::resolve(found.as<tala::Property>().get(result))).toStdString();
}

// 100 interrupted evaluations of `code` (which calls started() right before it waits).
void interruptions(benchmark::State& state, const char* code, bool boundedByPython) {
    Setup& host = setup();
    if (!host.ready) {
        state.SkipWithError("the extension did not load");
        return;
    }
    const Any database = tala::resolve(tala::resolve(host.evaluate(
        String("return sqlite.Database.open(':memory:')"), Any(), Any(), Any())));
    std::vector<double> latencies;
    for (auto _ : state) {
        latencies.clear();
        for (int attempt = 0; attempt < kTries; ++attempt) {
            std::atomic<bool> started{false};
            std::atomic<bool> finished{false};
            Clock::time_point asked{};
            std::thread interrupter([&] {
                while (!started.load() && !finished.load()) std::this_thread::sleep_for(std::chrono::microseconds(100));
                if (finished.load()) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                asked = Clock::now();
                (void)host.interrupt(host.threadId);
            });
            const HashMap<String, Any> locals{{String("started"), tala::native_function([&started] { started = true; }, "started")},
                                              {String("db"), database}};
            const Any result = tala::resolve(host.evaluate(String(code), locals, Any(), Any()));
            const auto ended = Clock::now();
            finished = true;
            interrupter.join();
            if (errorType(result) != "'tala.python.Interrupted'") {
                state.SkipWithError(("the evaluation ended otherwise: " + errorType(result)).c_str());
                return;
            }
            latencies.push_back(std::chrono::duration<double, std::milli>(ended - asked).count());
        }
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["max_ms"] = latencies.back();
    if (!boundedByPython && latencies.back() >= 100.0) state.SkipWithError("an interruption took 100 ms or more");
}

void BM_Interruption(benchmark::State& state, const char* code) { interruptions(state, code, false); }
void BM_InterruptionAfterPythonsOwnWait(benchmark::State& state, const char* code) { interruptions(state, code, true); }

#define TALA_INTERRUPTION_BENCHMARK(function, name, code) \
    BENCHMARK_CAPTURE(function, name, code)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime()

TALA_INTERRUPTION_BENCHMARK(BM_Interruption, loop, "started()\nwhile True:\n    pass");
TALA_INTERRUPTION_BENCHMARK(BM_Interruption, time_sleep, "import time\nstarted()\ntime.sleep(60)");
TALA_INTERRUPTION_BENCHMARK(BM_Interruption, select, "import os, select\nr, w = os.pipe()\ntry:\n    started()\n"
                                                     "    select.select([r], [], [], 60)\nfinally:\n    os.close(r)\n    os.close(w)");
TALA_INTERRUPTION_BENCHMARK(BM_Interruption, socket_read, "import socket\na, b = socket.socketpair()\nwith a, b:\n    started()\n"
                                                          "    a.recv(1)");
TALA_INTERRUPTION_BENCHMARK(BM_Interruption, lock_acquire, "import threading\nlock = threading.Lock()\nlock.acquire()\nstarted()\n"
                                                           "lock.acquire()");
TALA_INTERRUPTION_BENCHMARK(BM_Interruption, os_waitpid, "import os, subprocess\nchild = subprocess.Popen(['sleep', '60'])\n"
                                                         "try:\n    started()\n    os.waitpid(child.pid, 0)\nfinally:\n"
                                                         "    child.kill()\n    child.wait()");
TALA_INTERRUPTION_BENCHMARK(BM_Interruption, sqlite_recursive_query,
                            "started()\ndb.query('WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) "
                            "SELECT count(*) FROM c')");
TALA_INTERRUPTION_BENCHMARK(BM_InterruptionAfterPythonsOwnWait, subprocess_wait,
                            "import subprocess\nchild = subprocess.Popen(['sleep', '60'])\ntry:\n    started()\n"
                            "    child.wait()\nfinally:\n    child.kill()\n    child.wait()");

}  // namespace

BENCHMARK_MAIN();
