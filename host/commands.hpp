// host/commands.hpp: the host program's commands, over the extension's module functions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tala/tala.hpp"

namespace tala::host {

// Exit statuses: 0 success, 1 the evaluation failed, 2 usage or start-up errors.
constexpr int kOk = 0;
constexpr int kEvaluationFailed = 1;
constexpr int kUsage = 2;

// Turns "NAME=VALUE" arguments into locals: an integer when VALUE parses as one, else a float
// when it parses as one, else a string. An Error for an argument without "=" or with no name.
Any parseAssignments(const std::vector<std::string>& assignments, HashMap<String, Any>& into);
Any parseValue(std::string_view text);

// The module functions of "tala.python", looked up through the object model.
Any callModuleFunction(std::string_view name, std::initializer_list<Any> arguments);
// LanguagePython.importAllModules(): makes the Python modules on the search path known to the
// host. None, or an Error.
Any importAllModules();
// Prints the message of a failed evaluation on standard error; returns kEvaluationFailed.
int reportFailure(const Any& result);

int evalCommand(const std::string& expression, const std::vector<std::string>& assignments);
int runCommand(const std::string& file, const std::vector<std::string>& assignments,
               const std::vector<std::string>& outNames);
// The registered host modules; with `all`, then the Python modules known to the host (after
// importAllModules) that are not registered themselves.
int modulesCommand(bool all);
// The display text of python_import(path).
int importCommand(const std::string& path);
// The stub text of a host module; with `outDir`, writes it into a stub package there instead.
int stubsCommand(const std::string& moduleName, const std::optional<std::string>& outDir);
// The interactive prompt; `interactive` false reads plain lines (no line editing), for tests
// and pipes.
int promptCommand(bool interactive);

// Makes the output of Python's print() appear before what the host prints next.
void flushPythonOutput();

}  // namespace tala::host
