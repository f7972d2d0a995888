// tests/stress/processes_stress_test.cpp: stress that needs a fresh process each time: the first
// use of Python from many threads, and the end of a process while its threads are inside Python.
// Each child runs with a deadline; a child that hangs is killed and reported.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "stress_support.hpp"

namespace {

using tala_stress::ChildOutcome;
using tala_stress::describe;
using tala_stress::runChild;

// Runs `program` `count` times, two at a time (the machines have two cores), and reports every
// run that did not end with status 0 and no output.
void runManyTimes(const char* program, int count, std::chrono::seconds limit) {
    int clean = 0;
    for (int first = 0; first < count; first += 2) {
        std::vector<std::future<ChildOutcome>> running;
        for (int run = first; run < first + 2 && run < count; ++run) {
            running.push_back(std::async(std::launch::async, [program, limit] { return runChild(program, {}, limit); }));
        }
        for (std::size_t index = 0; index < running.size(); ++index) {
            const ChildOutcome outcome = running[index].get();
            const bool ok = outcome.status == 0 && outcome.output.empty();
            EXPECT_TRUE(ok) << "run " << first + index + 1 << " of " << count << ": " << describe(outcome);
            clean += ok ? 1 : 0;
        }
    }
    EXPECT_EQ(clean, count);
}

TEST(StressProcesses, FirstUseFromSixteenThreadsInTwentyFreshProcesses) {
    runManyTimes(TALA_STRESS_FIRST_USE_CHILD, 20, std::chrono::seconds(90));
}

TEST(StressProcesses, ExitWhileThreadsAreInsidePythonFiftyTimes) {
    runManyTimes(TALA_STRESS_EXIT_CHILD, 50, std::chrono::seconds(60));
}

}  // namespace
