// tests/stress/first_use_child.cpp: one fresh process whose first use of Python comes from 16
// threads at the same moment. Exits 0 when every thread got exactly its expected results, and 1
// with a message when one did not or when the threads did not finish in time (the watchdog).
#include <Python.h>

#include <atomic>
#include <cstdio>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "extension/gil.hpp"
#include "language/evaluate.hpp"
#include "python_test_support.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using MapArgument = tala::Union<tala::I_Map<String, Any>, tala::None>;
using MutableMapArgument = tala::Union<tala::I_MutableMap<String, Any>, tala::None>;

constexpr int kThreads = 16;
constexpr int kRounds = 20;

// One thread's work: every conversion and both evaluations, each checked exactly. Returns an
// empty text, or what went wrong first.
std::string work(int thread) {
    for (int round = 0; round < kRounds; ++round) {
        const std::int64_t x = thread * 1000 + round;
        const HashMap<String, Any> locals{
            {String("x"), Integer(x)},
            {String("day"), tala::Date(2024, 2, 29)},
            {String("price"), tala::Decimal::fromString("19.99").as<tala::Decimal>()},
            {String("at"), tala::Time(12, 30, 15, 1000)},
            {String("items"), tala::List<Any>{Integer(1), Integer(2), Integer(x)}},
        };
        const Any expression = tala::python::evaluate_expr(
            String("(x + day.day + at.microsecond + len(items) + int(price * 100), [x, str(price)], {'k': x})"),
            MapArgument(tala::internal::unchecked, locals), MapArgument(tala::None()));
        auto tuple = tala::I_Sequence_Generic::cast(expression);
        if (!tuple) return "the expression gave " + tala::display(expression).toStdString();
        const Any sum = tuple->at(0);
        if (sum.kind() != tala::Kind::Integer || sum.rawInteger() != x + 29 + 1 + 3 + 1999) {
            return "the sum was " + tala::display(sum).toStdString();
        }
        const Any list = tuple->at(1);
        if (tala::display(list).toStdString() != "[" + std::to_string(x) + ", '19.99']") {
            return "the list was " + tala::display(list).toStdString();
        }

        const HashMap<String, Any> out{{String("y"), Any()}};
        const Any code = tala::python::evaluate(String("import datetime\ny = day + datetime.timedelta(days=1)\nreturn x * 3"),
                                                MapArgument(tala::internal::unchecked, locals), MapArgument(tala::None()),
                                                MutableMapArgument(tala::internal::unchecked, out));
        if (code.kind() != tala::Kind::Integer || code.rawInteger() != x * 3) {
            return "the code gave " + tala::display(code).toStdString();
        }
        const std::optional<Any> y = out.get(String("y"));
        if (!y || tala::display(*y).toStdString() != "2024-03-01") {
            return "y was " + (y ? tala::display(*y).toStdString() : std::string("missing"));
        }
    }
    tala::python::GilGuard gil;
    if (PyErr_Occurred() != nullptr) return "a Python error was left pending";
    return std::string();
}

}  // namespace

int main() {
    if (Py_IsInitialized()) {
        std::fprintf(stderr, "The interpreter runs before the first use.\n");
        return 1;
    }
    std::vector<std::string> failures(kThreads);
    {
        const tala_python_test::Watchdog watchdog(std::chrono::seconds(60),
                                                  "The first use from 16 threads did not finish within 60 s.");
        std::latch go(kThreads);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&go, &failures, thread] {
                go.arrive_and_wait();
                failures[thread] = work(thread);
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    int failed = 0;
    for (int thread = 0; thread < kThreads; ++thread) {
        if (failures[thread].empty()) continue;
        std::fprintf(stderr, "thread %d: %s\n", thread, failures[thread].c_str());
        ++failed;
    }
    return failed == 0 ? 0 : 1;
}
