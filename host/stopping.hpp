// host/stopping.hpp: Ctrl-C and --timeout: stopping the evaluation that runs on the program's main thread, and ending the program when it will not stop.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "tala/tala.hpp"

namespace tala::host {

// How long an evaluation may take to end once it was interrupted again after its grace period,
// before a program that runs one evaluation ends without it: a wait in C that nothing can reach
// (a C extension's own loop, a blocking host call that cannot be stopped).
constexpr std::chrono::seconds kLastWait{2};

// While it lives, Ctrl-C (SIGINT) interrupts the evaluation that runs on the thread that made it
// (LanguagePython.interrupt); so does the end of the timeout, counted from the first evaluation.
// An evaluation still running a grace period after its interruption is interrupted again (no
// more grace); with `endProgram`, one that still runs kLastWait after that ends the program:
// with 124 after a timeout, else as SIGINT ends it. Ctrl-C between evaluations ends a program
// with `endProgram` the same way, and is dropped otherwise.
class Stopping {
public:
    struct Options {
        std::optional<double> timeoutSeconds;
        double graceSeconds = 1.0;
        bool endProgram = true;
    };

    explicit Stopping(Options options);
    ~Stopping();
    Stopping(const Stopping&) = delete;
    Stopping& operator=(const Stopping&) = delete;

    // One evaluation on the thread that made this: the time it runs is the time a Ctrl-C or the
    // timeout interrupts it.
    class Running {
    public:
        explicit Running(Stopping& stopping);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        Stopping& stopping_;
    };

    // Whether the timeout stopped an evaluation.
    bool timedOut() const;

private:
    enum class Stage { Idle, Running, Interrupted, InterruptedAgain };

    void watch();
    void interrupt(std::unique_lock<std::mutex>& lock);
    void endProgram(std::unique_lock<std::mutex>& lock);
    void wake();

    const Options options_;
    const Any threadId_;
    mutable std::mutex mutex_;
    Stage stage_ = Stage::Idle;
    bool everRan_ = false;
    bool timedOut_ = false;
    bool quitting_ = false;
    std::optional<std::chrono::steady_clock::time_point> deadline_;
    std::chrono::steady_clock::time_point stageSince_{};
    int wakePipe_[2] = {-1, -1};
    std::thread watcher_;
};

}  // namespace tala::host
