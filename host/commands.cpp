// host/commands.cpp: eval, run, modules and import, and how the host program reports a failed evaluation.
#include "commands.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

namespace tala::host {

Any parseValue(std::string_view text) {
    std::int64_t integer = 0;
    if (auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), integer);
        error == std::errc() && end == text.data() + text.size() && !text.empty()) {
        return Integer(integer);
    }
    double floating = 0;
    if (auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), floating);
        error == std::errc() && end == text.data() + text.size() && !text.empty()) {
        return Float(floating);
    }
    return String(text);
}

Any parseAssignments(const std::vector<std::string>& assignments, HashMap<String, Any>& into) {
    for (const std::string& assignment : assignments) {
        const std::size_t equals = assignment.find('=');
        if (equals == std::string::npos || equals == 0) {
            return Error(String("Expected NAME=VALUE, got '{}'.").arg(String(assignment)));
        }
        into.set(String(std::string_view(assignment).substr(0, equals)), parseValue(std::string_view(assignment).substr(equals + 1)));
    }
    return Any();
}

Any callModuleFunction(std::string_view name, std::initializer_list<Any> arguments) {
    auto module = Module::find("tala.python");
    if (!module) return Error(String("The module tala.python is not registered: the Python extension is not loaded."));
    auto function = property_of(*module, name);
    if (function.isEmpty()) return Error(String("The module tala.python has no function {}.").arg(String(name)));
    Any invokable = function.as<Property>().get(*module);
    if (!I_Invokable_Generic::matches(invokable)) return Error(String("tala.python.{} is not a function.").arg(String(name)));
    return resolve(I_Invokable_Generic(internal::unchecked, invokable).invokeWith(arguments));
}

Any callLanguageMethod(std::string_view name, std::initializer_list<Any> arguments) {
    auto module = Module::find("tala.python");
    if (!module) return Error(String("The module tala.python is not registered: the Python extension is not loaded."));
    auto language = Class_Generic::cast(module->classes().get(String("LanguagePython")).value_or(Any()));
    if (!language) return Error(String("The module tala.python has no class LanguagePython."));
    auto method = definedMethod(*language, Identifier::intern(name));
    if (method.isEmpty()) return Error(String("The class LanguagePython has no method {}.").arg(String(name)));
    return resolve(method.as<I_Invokable_Generic>().invokeWith(arguments));
}

Any importAllModules() { return callLanguageMethod("importAllModules", {}); }

void flushPythonOutput() {
    std::fflush(stdout);
    (void)callModuleFunction("evaluate", {String("import sys\nsys.stdout.flush()\nsys.stderr.flush()"), Any(), Any(), Any()});
}

std::optional<String> errorText(const Any& error, std::string_view property) {
    auto found = property_of(error, property);
    if (found.isEmpty()) return std::nullopt;
    return String::cast(resolve(found.as<Property>().get(error)));
}

namespace {

void printLine(FILE* stream, std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fputc('\n', stream);
}

// A report, which ends with a line feed of its own (a traceback) or not (a message).
void printReport(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    if (!text.ends_with('\n')) std::fputc('\n', stderr);
}

// The last line of a report that is not empty: "KeyError: 'k'".
std::string_view lastLine(std::string_view report) {
    while (report.ends_with('\n')) report.remove_suffix(1);
    const std::size_t start = report.rfind('\n');
    return start == std::string_view::npos ? report : report.substr(start + 1);
}

std::optional<std::int64_t> exitStatusOf(const Any& error) {
    auto found = property_of(error, std::string_view("exitStatus"));
    if (found.isEmpty()) return std::nullopt;
    const Any status = resolve(found.as<Property>().get(error));
    if (status.kind() != Kind::Integer) return std::nullopt;
    return status.rawInteger();
}

// How long an interrupted evaluation may take to end before the program ends without it: a
// call that waits inside C (time.sleep, a socket read) or a long loop in C sees the interruption
// only once it returns.
constexpr std::chrono::seconds kGraceAfterTimeout{2};

// Stops the evaluation of the calling thread when the time is up, through LanguagePython.interrupt;
// when it does not end within the grace period, ends the program.
class Deadline {
public:
    Deadline(std::optional<double> seconds) {
        if (!seconds) return;
        const Any threadId = callLanguageMethod("threadId", {});
        thread_ = std::thread([this, limit = *seconds, threadId] {
            std::unique_lock lock(mutex_);
            const auto duration = std::chrono::duration<double>(limit);
            if (changed_.wait_for(lock, duration, [this] { return done_; })) return;
            lock.unlock();
            const Any stopped = callLanguageMethod("interrupt", {threadId});
            lock.lock();
            expired_ = stopped.kind() == Kind::Boolean && stopped.rawBoolean();
            if (!expired_ || changed_.wait_for(lock, kGraceAfterTimeout, [this] { return done_; })) return;
            std::fflush(stdout);
            std::fprintf(stderr, "Stopped after the timeout of %g seconds.\n", limit);
            std::fflush(stderr);
            std::_Exit(kTimedOut);
        });
    }
    ~Deadline() { finish(); }
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

    // Whether the evaluation was stopped; ends the waiting either way.
    bool expired() {
        finish();
        return expired_;
    }

private:
    void finish() {
        if (!thread_.joinable()) return;
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
    bool expired_ = false;
    std::thread thread_;
};

// Runs one evaluation under the options: the result, or the status to end with after a
// failure was reported.
template <class Evaluate>
std::optional<int> evaluateWith(const EvaluationOptions& options, Any& result, Evaluate&& evaluate) {
    Deadline deadline(options.timeoutSeconds);
    result = evaluate();
    const bool timedOut = deadline.expired();
    if (!is_error_result(result)) return std::nullopt;
    const int status = reportFailure(result, options.quietTraceback);
    if (timedOut) {
        std::fprintf(stderr, "Stopped after the timeout of %g seconds.\n", *options.timeoutSeconds);
        return kTimedOut;
    }
    return status;
}

}  // namespace

int reportFailure(const Any& result, bool quiet) {
    flushPythonOutput();
    const std::optional<Error> error = Error::cast(result);
    if (!error) {
        printReport(display(result).view());
        return kEvaluationFailed;
    }
    if (errorText(*error, "exceptionType").value_or(String()) == "SystemExit") {
        // As Python's program ends: with the status, or printing the code and ending with 1.
        if (auto status = exitStatusOf(*error)) return static_cast<int>(*status);
        printReport(error->message().view());
        return kEvaluationFailed;
    }
    const std::optional<String> traceback = errorText(*error, "traceback");
    if (!traceback) {
        printReport(error->message().view());
    } else if (quiet) {
        printReport(lastLine(traceback->view()));
    } else {
        printReport(traceback->view());
    }
    return kEvaluationFailed;
}

int evalCommand(const std::string& expression, const std::vector<std::string>& assignments,
                const EvaluationOptions& options) {
    HashMap<String, Any> locals;
    if (Any parsed = parseAssignments(assignments, locals); is_error_result(parsed)) {
        std::fprintf(stderr, "%s\n", Error(internal::unchecked, parsed).message().c_str());
        return kUsage;
    }
    Any result;
    if (auto failed = evaluateWith(options, result, [&] {
            return callModuleFunction("evaluate_expr", {String(expression), locals, Any()});
        })) {
        return *failed;
    }
    flushPythonOutput();
    printLine(stdout, display(result).view());
    return kOk;
}

int runCommand(const std::string& file, const std::vector<std::string>& assignments,
               const std::vector<std::string>& outNames, const EvaluationOptions& options) {
    std::stringstream text;
    if (file == "-") {
        text << std::cin.rdbuf();
    } else {
        std::ifstream input(file, std::ios::binary);
        if (!input) {
            std::fprintf(stderr, "Cannot read the file '%s'.\n", file.c_str());
            return kUsage;
        }
        text << input.rdbuf();
    }
    // The script knows its file as Python's own program tells it, and its tracebacks name it.
    HashMap<String, Any> locals{{String("__file__"), String(file == "-" ? std::string("<stdin>") : file)}};
    if (Any parsed = parseAssignments(assignments, locals); is_error_result(parsed)) {
        std::fprintf(stderr, "%s\n", Error(internal::unchecked, parsed).message().c_str());
        return kUsage;
    }
    HashMap<String, Any> outLocals;
    for (const std::string& name : outNames) outLocals.set(String(name), Any());
    Any result;
    if (auto failed = evaluateWith(options, result, [&] {
            return callModuleFunction("evaluate", {String(text.str()), locals, Any(), outNames.empty() ? Any() : Any(outLocals)});
        })) {
        return *failed;
    }
    flushPythonOutput();
    if (!result.isEmpty()) printLine(stdout, display(result).view());
    for (const std::string& name : outNames) {
        printLine(stdout, String("{} = {}").arg(String(name), display(outLocals.get(String(name)).value_or(Any()))).view());
    }
    return kOk;
}

int modulesCommand(bool all) {
    if (all) {
        if (Any listed = importAllModules(); is_error_result(listed)) return reportFailure(listed, false);
    }
    std::vector<String> printed;
    const std::vector<Module> registered = modules();
    for (const Module& module : registered) {
        printLine(stdout, module.name().view());
        printed.push_back(module.name());
    }
    if (!all) return kOk;
    for (const Module& module : registered) {
        for (const String& name : module.lazyModuleNames()) {
            if (std::find(printed.begin(), printed.end(), name) != printed.end()) continue;
            printLine(stdout, name.view());
            printed.push_back(name);
        }
    }
    return kOk;
}

int importCommand(const std::string& path) {
    Any result = callModuleFunction("python_import", {String(path)});
    if (is_error_result(result)) return reportFailure(result, false);
    flushPythonOutput();
    printLine(stdout, display(result).view());
    return kOk;
}

}  // namespace tala::host
