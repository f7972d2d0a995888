// host/commands.hpp: the host program's commands, over the extension's module functions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tala/tala.hpp"

namespace tala::host {

struct Script;

// Exit statuses: 0 success, 1 the evaluation failed, 2 usage or start-up errors, 124 the
// evaluation was stopped by --timeout (as the timeout program ends), 130 a KeyboardInterrupt
// (Ctrl-C) ended it: the program then ends as SIGINT ends a program, as Python's own does. A
// script that calls sys.exit ends the program with its status, as under Python's program.
constexpr int kOk = 0;
constexpr int kEvaluationFailed = 1;
constexpr int kUsage = 2;
constexpr int kTimedOut = 124;
constexpr int kInterrupted = 130;

// What eval and run are told besides their code and values.
struct EvaluationOptions {
    std::optional<double> timeoutSeconds;  // --timeout SECONDS
    double graceSeconds = 1.0;             // --grace SECONDS: how long cleanup may run once interrupted
    bool quietTraceback = false;           // --quiet-traceback: only the last line of a report
    bool profile = false;                  // --profile: the script's profile on standard error
};

// Turns "NAME=VALUE" arguments into locals: an integer when VALUE parses as one, else a float
// when it parses as one, else a string. An Error for an argument without "=" or with no name.
Any parseAssignments(const std::vector<std::string>& assignments, HashMap<String, Any>& into);
Any parseValue(std::string_view text);

// The module functions of "tala.python", looked up through the object model.
Any callModuleFunction(std::string_view name, std::initializer_list<Any> arguments);
// A static method of the class LanguagePython, called with the arguments.
Any callLanguageMethod(std::string_view name, std::initializer_list<Any> arguments);
// LanguagePython.importAllModules(): makes the Python modules on the search path known to the
// host. None, or an Error.
Any importAllModules();

int evalCommand(const std::string& expression, const std::vector<std::string>& assignments,
                const EvaluationOptions& options);
// Runs a script (of run, -c or standard input) as the body of a function, with sys.argv and
// sys.path[0] as Python's program sets them.
int runCommand(const Script& script, const std::vector<std::string>& assignments,
               const std::vector<std::string>& outNames, const EvaluationOptions& options);
// "tala VERSION (Python X.Y.Z)": the program's version and that of the loaded interpreter.
int versionCommand();
// The registered host modules; with `all`, then the Python modules known to the host (after
// importAllModules) that are not registered themselves.
int modulesCommand(bool all);
// The display text of python_import(path).
int importCommand(const std::string& path);
// The stub text of a host module; with `outDir`, writes the typed stubs of a stub package there
// instead: the module's, its children's and those of the modules they refer to, with the
// editor's files (__builtins__.pyi, and pyrightconfig.json when the folder has none).
int stubsCommand(const std::string& moduleName, const std::optional<std::string>& outDir);
// The same stub package for every registered module that is not internal.
int stubsOfAllCommand(const std::string& outDir);
// The interactive prompt; `interactive` false reads plain lines (no line editing), for tests
// and pipes.
int promptCommand(bool interactive);

// Makes the output of Python's print() appear before what the host prints next.
void flushPythonOutput();

// Prints a failed evaluation's report on standard error as Python's own program prints it (the
// traceback, or with `quiet` its last line; the message of an error that is no Python
// exception) and answers the status the program ends with: the status of a SystemExit, 130
// for a KeyboardInterrupt (the interruption included), else 1.
int reportFailure(const Any& result, bool quiet);

// A property of an error value that is a string, if it has one.
std::optional<String> errorText(const Any& error, std::string_view property);

}  // namespace tala::host
