// host/commands.cpp: eval, run, modules and import.
#include "commands.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

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

Any importAllModules() {
    auto module = Module::find("tala.python");
    if (!module) return Error(String("The module tala.python is not registered: the Python extension is not loaded."));
    auto language = Class_Generic::cast(module->classes().get(String("LanguagePython")).value_or(Any()));
    if (!language) return Error(String("The module tala.python has no class LanguagePython."));
    auto method = definedMethod(*language, Identifier("$importAllModules"));
    if (method.isEmpty()) return Error(String("The class LanguagePython has no method importAllModules."));
    return resolve(method.as<I_Invokable_Generic>().invokeWith({}));
}

void flushPythonOutput() {
    std::fflush(stdout);
    (void)callModuleFunction("evaluate", {String("import sys\nsys.stdout.flush()\nsys.stderr.flush()"), Any(), Any(), Any()});
}

int reportFailure(const Any& result) {
    flushPythonOutput();
    const String message = Error::cast(result) ? Error(internal::unchecked, result).message() : display(result);
    std::fprintf(stderr, "%s\n", message.c_str());
    return kEvaluationFailed;
}

namespace {

void printLine(const String& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

}  // namespace

int evalCommand(const std::string& expression, const std::vector<std::string>& assignments) {
    HashMap<String, Any> locals;
    if (Any parsed = parseAssignments(assignments, locals); is_error_result(parsed)) {
        std::fprintf(stderr, "%s\n", Error(internal::unchecked, parsed).message().c_str());
        return kUsage;
    }
    Any result = callModuleFunction("evaluate_expr", {String(expression), locals, Any()});
    if (is_error_result(result)) return reportFailure(result);
    flushPythonOutput();
    printLine(display(result));
    return kOk;
}

int runCommand(const std::string& file, const std::vector<std::string>& assignments,
               const std::vector<std::string>& outNames) {
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
    HashMap<String, Any> locals;
    if (Any parsed = parseAssignments(assignments, locals); is_error_result(parsed)) {
        std::fprintf(stderr, "%s\n", Error(internal::unchecked, parsed).message().c_str());
        return kUsage;
    }
    HashMap<String, Any> outLocals;
    for (const std::string& name : outNames) outLocals.set(String(name), Any());
    Any result = callModuleFunction("evaluate", {String(text.str()), locals, Any(), outNames.empty() ? Any() : Any(outLocals)});
    if (is_error_result(result)) return reportFailure(result);
    flushPythonOutput();
    if (!result.isEmpty()) printLine(display(result));
    for (const std::string& name : outNames) {
        printLine(String("{} = {}").arg(String(name), display(outLocals.get(String(name)).value_or(Any()))));
    }
    return kOk;
}

int modulesCommand(bool all) {
    if (all) {
        if (Any listed = importAllModules(); is_error_result(listed)) return reportFailure(listed);
    }
    std::vector<String> printed;
    const std::vector<Module> registered = modules();
    for (const Module& module : registered) {
        printLine(module.name());
        printed.push_back(module.name());
    }
    if (!all) return kOk;
    for (const Module& module : registered) {
        for (const String& name : module.lazyModuleNames()) {
            if (std::find(printed.begin(), printed.end(), name) != printed.end()) continue;
            printLine(name);
            printed.push_back(name);
        }
    }
    return kOk;
}

int importCommand(const std::string& path) {
    Any result = callModuleFunction("python_import", {String(path)});
    if (is_error_result(result)) return reportFailure(result);
    flushPythonOutput();
    printLine(display(result));
    return kOk;
}

}  // namespace tala::host
