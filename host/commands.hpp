// host/commands.hpp: the host program's commands, over the extension's module functions.
#pragma once

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

int evalCommand(const std::string& expression, const std::vector<std::string>& assignments);
int runCommand(const std::string& file, const std::vector<std::string>& assignments,
               const std::vector<std::string>& outNames);
int modulesCommand();
// The interactive prompt; `interactive` false reads plain lines (no line editing), for tests
// and pipes.
int promptCommand(bool interactive);

// Makes the output of Python's print() appear before what the host prints next.
void flushPythonOutput();

}  // namespace tala::host
