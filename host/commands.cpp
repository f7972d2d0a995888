// host/commands.cpp: eval, run, modules and import, and how the host program reports a failed evaluation.
#include "commands.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "profile.hpp"
#include "script.hpp"
#include "stopping.hpp"

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

// Runs one evaluation under the options: Ctrl-C and the timeout stop it, and with --profile its
// profile is printed once it ends, whichever way. The result, or the status to end with after a
// failure was reported.
template <class Evaluate>
std::optional<int> evaluateWith(const EvaluationOptions& options, Any& result, Evaluate&& evaluate) {
    const Any profiler = options.profile ? startProfile() : Any();
    if (is_error_result(profiler)) return reportFailure(profiler, false);
    Stopping stopping({options.timeoutSeconds, options.graceSeconds, true});
    {
        const Stopping::Running running(stopping);
        result = evaluate();
    }
    if (options.profile) printProfile(profiler);
    if (!is_error_result(result)) return std::nullopt;
    const int status = reportFailure(result, options.quietTraceback);
    if (stopping.timedOut()) {
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
    const String exceptionType = errorText(*error, "exceptionType").value_or(String());
    if (exceptionType == "SystemExit") {
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
    const bool interrupted = exceptionType == "KeyboardInterrupt" || exceptionType == "tala.python.Interrupted";
    return interrupted ? kInterrupted : kEvaluationFailed;
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

int runCommand(const Script& script, const std::vector<std::string>& assignments,
               const std::vector<std::string>& outNames, const EvaluationOptions& options) {
    // The script knows its file as Python's own program tells it, and its tracebacks name it.
    HashMap<String, Any> locals;
    if (script.file) locals.set(String("__file__"), String(*script.file));
    if (Any parsed = parseAssignments(assignments, locals); is_error_result(parsed)) {
        std::fprintf(stderr, "%s The script's own arguments go after --.\n", Error(internal::unchecked, parsed).message().c_str());
        return kUsage;
    }
    if (Any prepared = prepareInterpreter(script.argv, script.pathEntry); is_error_result(prepared)) {
        return reportFailure(prepared, false);
    }
    HashMap<String, Any> outLocals;
    for (const std::string& name : outNames) outLocals.set(String(name), Any());
    Any result;
    if (auto failed = evaluateWith(options, result, [&] {
            return callModuleFunction("evaluate", {String(script.source), locals, Any(), outNames.empty() ? Any() : Any(outLocals)});
        })) {
        return *failed;
    }
    flushPythonOutput();
    if (!result.isEmpty()) printLine(stdout, display(result).view());
    // A name the script never binds is reported instead of printed as None.
    std::vector<std::string> unassigned;
    for (const std::string& name : outNames) {
        if (outLocals.get(String(name)).value_or(Any()).isEmpty()) unassigned.push_back(name);
    }
    if (!unassigned.empty()) unassigned = namesNeverAssigned(script, unassigned);
    for (const std::string& name : outNames) {
        if (std::find(unassigned.begin(), unassigned.end(), name) != unassigned.end()) continue;
        printLine(stdout, String("{} = {}").arg(String(name), display(outLocals.get(String(name)).value_or(Any()))).view());
    }
    std::fflush(stdout);
    for (const std::string& name : unassigned) {
        std::fprintf(stderr, "--out %s: the script never assigns '%s'.\n", name.c_str(), name.c_str());
    }
    return unassigned.empty() ? kOk : kEvaluationFailed;
}

int versionCommand() {
    const Any version = callModuleFunction("evaluate_expr", {String("__import__('sys').version.split()[0]"), Any(), Any()});
    if (is_error_result(version)) return reportFailure(version, false);
    std::printf("tala %s (Python %s)\n", TALA_VERSION, String::cast(version).value_or(String()).c_str());
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
