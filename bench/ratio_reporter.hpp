// bench/ratio_reporter.hpp: a console reporter that keeps each benchmark's CPU time and prints
// chosen pairs as ratios after the run (the median when the run has repetitions).
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace tala_bench {

// Keeps the CPU time per iteration of every run, to print the ratios after the run (CPU time,
// since a busy machine stretches the real time of both sides unevenly).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal, so that saved output stays plain text.
    explicit RatioReporter(const char* heading)
        : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_Tabular), heading_(heading) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        // With repetitions, the median stands for the benchmark; otherwise its one run does.
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const std::string name = run.run_name.str();
            const Times times{run.GetAdjustedCPUTime(), run.GetAdjustedRealTime()};
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                medians_[name] = times;
            } else if (run.run_type == Run::RT_Iteration) {
                times_[name] = times;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // Prints the time of `measured` as a multiple of the time of `floor`: CPU time, or real time
    // for benchmarks whose work runs on threads of their own.
    void printRatio(const char* measured, const char* floor, bool realTime = false) {
        const double time = timeOf(measured, realTime);
        const double baseline = timeOf(floor, realTime);
        if (time <= 0 || baseline <= 0) return;
        if (!headerPrinted_) std::printf("\n%s\n", heading_);
        headerPrinted_ = true;
        std::printf("%-44s / %-36s = %6.2f\n", measured, floor, time / baseline);
    }

private:
    struct Times {
        double cpu;
        double real;
    };

    double timeOf(const std::string& name, bool realTime) const {
        auto pick = [realTime](const Times& times) { return realTime ? times.real : times.cpu; };
        if (const auto median = medians_.find(name); median != medians_.end()) return pick(median->second);
        const auto time = times_.find(name);
        return time == times_.end() ? 0.0 : pick(time->second);
    }

    std::map<std::string, Times> times_;
    std::map<std::string, Times> medians_;
    const char* heading_;
    bool headerPrinted_ = false;
};

}  // namespace tala_bench
