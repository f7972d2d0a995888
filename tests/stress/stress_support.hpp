// tests/stress/stress_support.hpp: helpers of the stress tests: child processes with a deadline,
// the interpreter's thread states, resident memory, and what the build runs under.
#pragma once

#include <Python.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "extension/gil.hpp"

extern char** environ;

namespace tala_stress {

// Whether a sanitizer slows this build down (loops are then shorter, memory is not measured).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// How a child process ended: its exit status, or 128 + the signal that ended it, or -1 when it
// was still running at its deadline (it is then killed). `output` is what it wrote on standard
// output and standard error.
struct ChildOutcome {
    int status = -1;
    std::string output;
};

inline std::string describe(const ChildOutcome& outcome) {
    std::string text = outcome.status == -1 ? std::string("it hung and was killed at its deadline")
                       : outcome.status > 128 ? "it died of signal " + std::to_string(outcome.status - 128)
                                              : "exit status " + std::to_string(outcome.status);
    if (!outcome.output.empty()) text += "; it wrote:\n" + outcome.output;
    return text;
}

// Runs `program` with `arguments`, its output into a file of its own, and waits for it at most
// `limit`. The caller's environment is passed on (sanitizer options included).
inline ChildOutcome runChild(const std::string& program, const std::vector<std::string>& arguments,
                             std::chrono::seconds limit) {
    ChildOutcome outcome;
    char outputPath[] = "/tmp/tala_stress_child_XXXXXX";
    const int outputFile = mkstemp(outputPath);
    if (outputFile < 0) {
        outcome.output = "cannot make a file for the child's output";
        return outcome;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outputFile, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outputFile, STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t child = 0;
    const int spawned = posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(outputFile);
    if (spawned != 0) {
        outcome.output = "cannot start " + program;
        unlink(outputPath);
        return outcome;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            (void)waitpid(child, &status, 0);
            outcome.status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::ifstream written(outputPath);
    std::stringstream text;
    text << written.rdbuf();
    outcome.output = text.str();
    unlink(outputPath);
    return outcome;
}

// The number of thread states of the interpreter, counted under the lock (the caller's own
// included).
inline int threadStateCount() {
    tala::python::GilGuard gil;
    int count = 0;
    for (PyThreadState* state = PyInterpreterState_ThreadHead(PyInterpreterState_Get()); state != nullptr;
         state = PyThreadState_Next(state)) {
        ++count;
    }
    return count;
}

// The resident memory of this process, in bytes.
inline std::int64_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::int64_t size = 0;
    std::int64_t resident = 0;
    statm >> size >> resident;
    return resident * static_cast<std::int64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace tala_stress
