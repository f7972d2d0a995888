// host/prompt.cpp: the interactive prompt, with line editing and history.
#include <readline/history.h>
#include <readline/readline.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "commands.hpp"

namespace tala::host {

namespace {

// The names a line of code binds (assignments, definitions, imports), found by Python's own
// parser so that the prompt can keep them for later lines.
const char* const kBoundNames = R"PY(import ast
names = []
for node in ast.walk(ast.parse(source)):
    if isinstance(node, ast.Name) and isinstance(node.ctx, ast.Store):
        names.append(node.id)
    elif isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
        names.append(node.name)
    elif isinstance(node, (ast.Import, ast.ImportFrom)):
        for alias in node.names:
            names.append(alias.asname or alias.name.split('.')[0])
return names)PY";

// Whether a line is one expression, asked of Python's parser before anything runs: a line must
// run once, so its kind cannot be found out by trying it. Leading blanks are dropped, as eval()
// drops them.
const char* const kIsExpression = R"PY(import ast
try:
    ast.parse(source.lstrip(' \t'), mode='eval')
except SyntaxError:
    return False
return True)PY";

bool isExpression(const std::string& line) {
    HashMap<String, Any> parseLocals{{String("source"), String(line)}};
    const Any answer = callModuleFunction("evaluate", {String(kIsExpression), parseLocals, Any(), Any()});
    return Boolean::matches(answer) && Boolean(internal::unchecked, answer).value();
}

// One line: an expression prints its value; anything else runs as code, and the names it binds
// stay in `session` for the lines after it.
void runLine(const std::string& line, HashMap<String, Any>& session) {
    if (isExpression(line)) {
        Any value = callModuleFunction("evaluate_expr", {String(line), session, Any()});
        flushPythonOutput();
        if (is_error_result(value)) {
            std::fprintf(stderr, "%s\n", Error(internal::unchecked, value).message().c_str());
        } else if (!value.isEmpty()) {
            std::printf("%s\n", display(value).c_str());
        }
        return;
    }
    HashMap<String, Any> parseLocals{{String("source"), String(line)}};
    Any names = callModuleFunction("evaluate", {String(kBoundNames), parseLocals, Any(), Any()});
    HashMap<String, Any> outLocals;
    for (const auto& entry : session) outLocals.set(entry.key, entry.value);
    if (auto list = List_Generic::cast(names)) {
        for (std::int64_t index = 0; index < list->length(); ++index) {
            Any name = resolve(I_Sequence_Generic(internal::unchecked, *list).at(index));
            if (String::matches(name) && !outLocals.contains(name)) outLocals.set(name, None());
        }
    } else if (auto sequence = I_Sequence_Generic::cast(names)) {
        Any length = resolve(sequence->length());
        for (std::int64_t index = 0; length.kind() == Kind::Integer && index < length.rawInteger(); ++index) {
            Any name = resolve(sequence->at(index));
            if (String::matches(name) && !outLocals.contains(name)) outLocals.set(name, None());
        }
    }
    Any result = callModuleFunction("evaluate", {String(line), Any(), Any(), outLocals});
    flushPythonOutput();
    if (is_error_result(result)) {
        std::fprintf(stderr, "%s\n", Error(internal::unchecked, result).message().c_str());
        return;
    }
    for (const auto& entry : outLocals) session.set(entry.key, entry.value);
    if (!result.isEmpty()) std::printf("%s\n", display(result).c_str());
}

std::string historyFile() {
    const char* home = std::getenv("HOME");
    return home == nullptr ? std::string() : std::string(home) + "/.tala_history";
}

}  // namespace

int promptCommand(bool interactive) {
    HashMap<String, Any> session;
    if (!interactive) {
        for (std::string line; std::getline(std::cin, line);) {
            if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
            runLine(line, session);
            std::fflush(stdout);
        }
        return kOk;
    }
    const std::string history = historyFile();
    if (!history.empty()) read_history(history.c_str());
    std::printf("tala prompt: Python expressions print their value; other lines run as code. Ctrl-D leaves.\n");
    while (char* raw = readline(">>> ")) {
        const std::string line(raw);
        std::free(raw);
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        add_history(line.c_str());
        runLine(line, session);
        std::fflush(stdout);
    }
    std::printf("\n");
    if (!history.empty()) write_history(history.c_str());
    return kOk;
}

}  // namespace tala::host
