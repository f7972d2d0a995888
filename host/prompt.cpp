// host/prompt.cpp: the interactive prompt: Python 3.13's own console over the extension, each block read and run as an evaluation of its own.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "commands.hpp"
#include "script.hpp"
#include "stopping.hpp"

namespace tala::host {

namespace {

#include "prompt_session.inc"  // kSessionProgram: host/prompt_session.py

// The session's method `name`, called with the arguments; its result or an error.
Any callSession(const Any& session, std::string_view name, std::initializer_list<Any> arguments) {
    auto method = method_of(session, name);
    if (method.isEmpty()) return Error(String("The prompt's session has no method {}.").arg(String(name)));
    return resolve(method.as<I_Invokable_Generic>().invokeWith(arguments));
}

bool isInterruption(const Any& error) {
    const String type = errorText(error, "exceptionType").value_or(String());
    return type == "tala.python.Interrupted" || type == "KeyboardInterrupt";
}

bool isSystemExit(const Any& error) { return errorText(error, "exceptionType").value_or(String()) == "SystemExit"; }

std::string historyFile() {
    const char* home = std::getenv("HOME");
    return home == nullptr ? std::string() : std::string(home) + "/.tala_history";
}

Any makeSession(bool interactive) {
    const HashMap<String, Any> locals{{String("session_history"), String(historyFile())},
                                      {String("session_interactive"), Boolean(interactive)}};
    const std::string program = std::string(kSessionProgram) + "\nreturn make_session(session_history, session_interactive)\n";
    return callModuleFunction("evaluate", {String(program), locals, Any(), Any()});
}

// Reads and runs blocks until Ctrl-D, exit or sys.exit; the status to end with. Ctrl-C stops the
// evaluation that runs (the reading of a block, or the block): its names and the history stay.
int interactivePrompt(const Any& session) {
    Stopping stopping({std::nullopt, 1.0, false});
    int failedReads = 0;
    for (;;) {
        Any block;
        {
            const Stopping::Running running(stopping);
            block = callSession(session, "read", {});
        }
        if (is_error_result(block)) {
            if (isSystemExit(block)) return reportFailure(block, false);
            if (isInterruption(block)) {
                (void)callSession(session, "stopped_while_reading", {});
                continue;
            }
            // Reading itself failed: report it, and give up when it keeps failing.
            (void)reportFailure(block, false);
            if (++failedReads == 3) return kEvaluationFailed;
            continue;
        }
        failedReads = 0;
        if (block.isEmpty()) return kOk;  // Ctrl-D
        if (String::cast(block).value_or(String()).isEmpty()) continue;  // a command of the prompt's own ran
        Any ran;
        {
            const Stopping::Running running(stopping);
            ran = callSession(session, "run", {block});
        }
        flushPythonOutput();
        // The console showed the block's own errors, the interruption included.
        if (is_error_result(ran) && isSystemExit(ran)) return reportFailure(ran, false);
        if (is_error_result(ran) && !isInterruption(ran)) (void)reportFailure(ran, false);
    }
}

// Lines from a pipe: the basic console's rules, without prompts.
int pipedPrompt(const Any& session) {
    Stopping stopping({std::nullopt, 1.0, true});
    std::string line;
    bool more = true;
    while (more) {
        more = static_cast<bool>(std::getline(std::cin, line));
        // A block still open at the end of the input runs, as an empty line would run it.
        if (!more) line.clear();
        Any pushed;
        {
            const Stopping::Running running(stopping);
            pushed = callSession(session, "push", {String(line)});
        }
        flushPythonOutput();
        if (is_error_result(pushed)) {
            if (isSystemExit(pushed) || isInterruption(pushed)) return reportFailure(pushed, false);
            (void)reportFailure(pushed, false);
        }
    }
    return kOk;
}

}  // namespace

int promptCommand(bool interactive) {
    if (Any prepared = prepareInterpreter({""}, ""); is_error_result(prepared)) return reportFailure(prepared, false);
    if (interactive) {
        const Any version = callModuleFunction("evaluate_expr", {String("__import__('sys').version.split()[0]"), Any(), Any()});
        std::printf("Python %s on the tala host. Type \"help\" for help, exit or Ctrl-D to leave.\n",
                    String::cast(version).value_or(String("3")).c_str());
        std::fflush(stdout);
    }
    const Any session = makeSession(interactive);
    if (is_error_result(session)) return reportFailure(session, false);
    return interactive ? interactivePrompt(session) : pipedPrompt(session);
}

}  // namespace tala::host
