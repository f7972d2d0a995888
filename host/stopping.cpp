// host/stopping.cpp: Ctrl-C and --timeout: stopping the evaluation that runs on the program's main thread, and ending the program when it will not stop.
//
// The SIGINT handler only writes a byte to a pipe. A thread of this class (which never takes
// SIGINT itself) reads it, and keeps the clock of the timeout and of the grace periods; it stops
// an evaluation through LanguagePython.interrupt, which reaches Python code, Python's waits in C
// on the main thread and blocking host calls.
#include "stopping.hpp"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "commands.hpp"

namespace tala::host {

namespace {

using Clock = std::chrono::steady_clock;

// A number of seconds as the clock counts; longer than about 31 years is as good as never, and
// bounded so that the time it ends stays within the clock's range.
Clock::duration durationOf(double seconds) {
    constexpr double kLongestSeconds = 1e9;
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::min(seconds, kLongestSeconds)));
}

int g_signalPipe = -1;  // the write end the SIGINT handler writes to, while a Stopping lives
struct sigaction g_previousSigint {};

void onSigint(int) {
    const int saved = errno;
    const char byte = 'i';
    if (g_signalPipe >= 0) (void)!write(g_signalPipe, &byte, 1);
    errno = saved;
}

}  // namespace

Stopping::Stopping(Options options) : options_(options), threadId_(callLanguageMethod("threadId", {})) {
    if (pipe(wakePipe_) != 0) return;
    g_signalPipe = wakePipe_[1];
    struct sigaction action {};
    action.sa_handler = onSigint;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &g_previousSigint);
    watcher_ = std::thread([this] { watch(); });
}

Stopping::~Stopping() {
    if (!watcher_.joinable()) return;
    {
        std::lock_guard lock(mutex_);
        quitting_ = true;
    }
    wake();
    watcher_.join();
    sigaction(SIGINT, &g_previousSigint, nullptr);
    g_signalPipe = -1;
    close(wakePipe_[0]);
    close(wakePipe_[1]);
}

Stopping::Running::Running(Stopping& stopping) : stopping_(stopping) {
    {
        std::lock_guard lock(stopping_.mutex_);
        if (!stopping_.everRan_ && stopping_.options_.timeoutSeconds) {
            stopping_.deadline_ = Clock::now() + durationOf(*stopping_.options_.timeoutSeconds);
        }
        stopping_.everRan_ = true;
        stopping_.stage_ = Stage::Running;
    }
    stopping_.wake();
}

Stopping::Running::~Running() {
    {
        std::lock_guard lock(stopping_.mutex_);
        stopping_.stage_ = Stage::Idle;
    }
    stopping_.wake();
}

bool Stopping::timedOut() const {
    std::lock_guard lock(mutex_);
    return timedOut_;
}

void Stopping::wake() {
    const char byte = 'w';
    if (wakePipe_[1] >= 0) (void)!write(wakePipe_[1], &byte, 1);
}

void Stopping::interrupt(std::unique_lock<std::mutex>& lock) {
    const Stage before = stage_;
    lock.unlock();
    // The grace period is the interruption's own; asked again, it ends.
    const Any stopped = callLanguageMethod("interrupt", {threadId_, Float(options_.graceSeconds)});
    lock.lock();
    if (stage_ != before || !(stopped.kind() == Kind::Boolean && stopped.rawBoolean())) return;  // it ended meanwhile
    // A Ctrl-C after the second one does not put the end of the last wait off.
    if (stage_ == Stage::InterruptedAgain) return;
    stage_ = stage_ == Stage::Running ? Stage::Interrupted : Stage::InterruptedAgain;
    stageSince_ = Clock::now();
}

void Stopping::endProgram(std::unique_lock<std::mutex>& lock) {
    const bool timedOut = timedOut_;
    lock.unlock();
    std::fflush(stdout);
    if (timedOut) {
        std::fprintf(stderr, "Stopped after the timeout of %g seconds.\n", *options_.timeoutSeconds);
        std::fflush(stderr);
        std::_Exit(kTimedOut);
    }
    // As SIGINT ends a program that does not handle it, so that its caller sees that.
    std::fflush(stderr);
    signal(SIGINT, SIG_DFL);
    kill(getpid(), SIGINT);
    std::_Exit(kInterrupted);
}

void Stopping::watch() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::unique_lock lock(mutex_);
    while (!quitting_) {
        // The next moment something is due: the timeout, the end of a grace period, the last wait.
        std::optional<Clock::time_point> due;
        if (stage_ == Stage::Running && deadline_ && !timedOut_) due = *deadline_;
        if (stage_ == Stage::Interrupted) {
            due = stageSince_ + durationOf(options_.graceSeconds);
        }
        if (stage_ == Stage::InterruptedAgain && options_.endProgram) due = stageSince_ + kLastWait;
        lock.unlock();
        int waitMilliseconds = -1;
        if (due) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now()).count();
            waitMilliseconds = static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
        }
        pollfd ready{wakePipe_[0], POLLIN, 0};
        bool sigint = false;
        if (poll(&ready, 1, waitMilliseconds) > 0 && (ready.revents & POLLIN) != 0) {
            char bytes[64];
            const ssize_t count = read(wakePipe_[0], bytes, sizeof bytes);
            for (ssize_t index = 0; index < count; ++index) sigint = sigint || bytes[index] == 'i';
        }
        lock.lock();
        if (quitting_) break;
        const auto now = Clock::now();
        if (sigint) {
            if (stage_ != Stage::Idle) {
                interrupt(lock);
            } else if (options_.endProgram) {
                endProgram(lock);
            }
            continue;
        }
        if (stage_ == Stage::Running && deadline_ && !timedOut_ && now >= *deadline_) {
            timedOut_ = true;
            interrupt(lock);
        } else if (due && now >= *due && (stage_ == Stage::Interrupted || stage_ == Stage::InterruptedAgain)) {
            if (stage_ == Stage::Interrupted) {
                interrupt(lock);
            } else {
                endProgram(lock);
            }
        }
    }
}

}  // namespace tala::host
