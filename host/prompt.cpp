// host/prompt.cpp: the interactive prompt: Python's own prompt over the extension, with line editing, completion and history.
#include <pthread.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <iostream>
#include <string>
#include <thread>
#include <utility>

#include "commands.hpp"

namespace tala::host {

namespace {

// The session, in Python: the compiler of Python's own prompt decides whether a block needs
// more lines, code runs in one namespace for the whole session (so comprehensions, lambdas and
// functions see the prompt's names), expression statements print their value through
// sys.displayhook, and errors print as Python prints them.
const char* const kSessionProgram = R"PY(
import builtins
import codeop
import rlcompleter
import sys
import traceback


class HostCompleter(rlcompleter.Completer):
    def attr_matches(self, text):
        expression, _, prefix = text.rpartition('.')
        try:
            thing = eval(expression, self.namespace)
        except Exception:
            return []
        names = getattr(thing, '__dir__', None)
        if not isinstance(names, list):
            # Not a host value: Python's own rules.
            return super().attr_matches(text)
        return sorted({f"{expression}.{name}" for name in names
                       if isinstance(name, str) and name.startswith(prefix) and not name.startswith('_')})


def show_host_messages(report, error, seen):
    """An exception raised from a host error has no text of its own: its report shows the host
    error's message."""
    if id(error) in seen:
        return
    seen.add(id(error))
    carried = getattr(error, 'tala', None)
    if carried is not None and getattr(report, '_str', None) == '':
        try:
            report._str = str(carried)
        except Exception:
            pass
    for inner, cause in ((report.__cause__, error.__cause__), (report.__context__, error.__context__)):
        if inner is not None and cause is not None:
            show_host_messages(inner, cause, seen)


class TalaSession:
    def __init__(self, namespace):
        self.namespace = namespace
        self.compiler = codeop.CommandCompiler()
        self.lines = []
        self.completer = HostCompleter(namespace)
        self.matches = []

    def push(self, line):
        """Adds a line; True when the block needs more lines."""
        self.lines.append(line)
        source = "\n".join(self.lines)
        try:
            code = self.compiler(source, "<stdin>", "single")
        except (OverflowError, SyntaxError, ValueError) as error:
            self.lines = []
            self.show(error, frames=False)
            return False
        if code is None:
            return True
        self.lines = []
        try:
            exec(code, self.namespace)
        except SystemExit:
            raise
        except BaseException as error:
            self.show(error, frames=True)
        return False

    def reset(self):
        self.lines = []

    def show(self, error, frames):
        sys.stdout.flush()
        if isinstance(error, KeyboardInterrupt):
            print("KeyboardInterrupt", file=sys.stderr)
        else:
            # The frame of push() itself is nobody's code.
            tb = error.__traceback__.tb_next if frames and error.__traceback__ else None
            report = traceback.TracebackException(type(error), error, tb)
            show_host_messages(report, error, set())
            print(''.join(report.format()), end='', file=sys.stderr)
        sys.stderr.flush()

    def complete(self, text, state):
        return self.completer.complete(text, state)


# The host modules and builtins this program sees; its own names are locals of its function.
namespace = {name: value for name, value in globals().items() if name != 'self'}
namespace['__name__'] = '__main__'
namespace['__builtins__'] = builtins
return TalaSession(namespace)
)PY";

// The session's method `name`, called with the arguments; its result or an error.
Any callSession(const Any& session, std::string_view name, std::initializer_list<Any> arguments) {
    auto method = method_of(session, name);
    if (method.isEmpty()) return Error(String("The prompt's session has no method {}.").arg(String(name)));
    return resolve(method.as<I_Invokable_Generic>().invokeWith(arguments));
}

// Pushes one line; answers whether the block needs more lines. An error that the session
// could not show itself (the interruption that arrived while it compiled) is shown here.
bool pushLine(const Any& session, const std::string& line, bool& leave, int& status) {
    const Any more = callSession(session, "push", {String(line)});
    flushPythonOutput();
    if (is_error_result(more)) {
        const String type = errorText(more, "exceptionType").value_or(String());
        if (type == "SystemExit") {
            status = reportFailure(more, false);
            leave = true;
            return false;
        }
        if (type.view().ends_with("Interrupted")) {
            std::fputs("KeyboardInterrupt\n", stderr);
        } else {
            (void)reportFailure(more, false);
        }
        (void)callSession(session, "reset", {});
        return false;
    }
    return more.kind() == Kind::Boolean && more.rawBoolean();
}

// ---- Ctrl-C ------------------------------------------------------------------------------------
//
// The signal handler only writes a byte to one of two pipes. While a line runs, a thread of the
// prompt (which never takes the signal itself) reads it and stops the line through
// LanguagePython.interrupt. While a line is typed, the loop that waits for keys reads it and drops the
// line and any open block, as Python's own prompt does.

int g_interruptPipe[2] = {-1, -1};
int g_cancelPipe[2] = {-1, -1};
std::atomic<bool> g_running{false};

void onInterrupt(int) {
    const int saved = errno;
    const char byte = 'i';
    (void)!write(g_running.load() ? g_interruptPipe[1] : g_cancelPipe[1], &byte, 1);
    errno = saved;
}

void watchInterrupts(Any threadId) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    char byte = 0;
    while (read(g_interruptPipe[0], &byte, 1) == 1 && byte != 'q') (void)callLanguageMethod("interrupt", {threadId});
}

// ---- Line editing ------------------------------------------------------------------------------

Any* g_session = nullptr;

char* completionMatch(const char* text, int state) {
    const Any match = callSession(*g_session, "complete", {String(text), Integer(state)});
    auto asString = String::cast(match);
    if (!asString) return nullptr;
    return strdup(asString->c_str());
}

char** complete(const char* text, int, int) {
    rl_attempted_completion_over = 1;  // no file names
    return rl_completion_matches(text, completionMatch);
}

std::string historyFile() {
    const char* home = std::getenv("HOME");
    return home == nullptr ? std::string() : std::string(home) + "/.tala_history";
}

// What readline's line handler received.
struct TypedLine {
    std::string text;
    bool complete = false;  // a line was entered
    bool ended = false;     // Ctrl-D
};
TypedLine g_typed;

void onLine(char* raw) {
    // No prompt until the prompt is installed again, after the line ran.
    rl_callback_handler_remove();
    if (raw == nullptr) {
        g_typed.ended = true;
        return;
    }
    g_typed.text = raw;
    g_typed.complete = true;
    std::free(raw);
}

enum class Typed { Line, Cancelled, Ended };

// Reads one line with readline's callback interface, so that a Ctrl-C can end the waiting at
// once (the loop waits for a key or the cancel pipe).
Typed readLine(const char* prompt, std::string& line) {
    g_typed = TypedLine{};
    rl_callback_handler_install(prompt, onLine);
    while (!g_typed.complete && !g_typed.ended) {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(STDIN_FILENO, &ready);
        FD_SET(g_cancelPipe[0], &ready);
        if (select(std::max(STDIN_FILENO, g_cancelPipe[0]) + 1, &ready, nullptr, nullptr, nullptr) < 0) {
            if (errno == EINTR) continue;
            rl_callback_handler_remove();
            return Typed::Ended;
        }
        if (FD_ISSET(g_cancelPipe[0], &ready)) {
            char byte = 0;
            (void)!read(g_cancelPipe[0], &byte, 1);
            rl_free_line_state();
            rl_callback_sigcleanup();
            rl_callback_handler_remove();
            return Typed::Cancelled;
        }
        rl_callback_read_char();
    }
    if (g_typed.ended) return Typed::Ended;
    line = g_typed.text;
    return Typed::Line;
}

int interactivePrompt(const Any& session) {
    g_session = const_cast<Any*>(&session);
    // The session imported Python's readline module (rlcompleter does), which shares this
    // program's readline and binds Tab to insert a tab: take Tab and completion back.
    rl_bind_key('\t', rl_complete);
    rl_completion_entry_function = nullptr;
    rl_attempted_completion_function = complete;
    rl_completer_word_break_characters = const_cast<char*>(" \t\n`~!@#$%^&*()-=+[{]}\\|;:'\",<>/?");
    rl_catch_signals = 0;
    const std::string history = historyFile();
    if (!history.empty()) read_history(history.c_str());

    if (pipe(g_interruptPipe) != 0 || pipe(g_cancelPipe) != 0) return kUsage;
    std::thread watcher(watchInterrupts, callLanguageMethod("threadId", {}));
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);

    const Any version = callModuleFunction("evaluate_expr", {String("__import__('sys').version.split()[0]"), Any(), Any()});
    std::printf("Python %s on the tala host. Ctrl-D leaves.\n", String::cast(version).value_or(String("3")).c_str());
    std::fflush(stdout);
    bool more = false;
    bool leave = false;
    int status = kOk;
    while (!leave) {
        std::string line;
        const Typed typed = readLine(more ? "... " : ">>> ", line);
        if (typed == Typed::Ended) {
            std::fputc('\n', stdout);
            break;
        }
        if (typed == Typed::Cancelled) {
            std::fputs("\nKeyboardInterrupt\n", stdout);
            (void)callSession(session, "reset", {});
            more = false;
            continue;
        }
        if (line.find_first_not_of(" \t\r") != std::string::npos) add_history(line.c_str());
        g_running = true;
        more = pushLine(session, line, leave, status);
        g_running = false;
        std::fflush(stdout);
    }
    signal(SIGINT, SIG_DFL);
    const char quit = 'q';
    (void)!write(g_interruptPipe[1], &quit, 1);
    watcher.join();
    if (!history.empty()) write_history(history.c_str());
    return status;
}

}  // namespace

int promptCommand(bool interactive) {
    const Any session = callModuleFunction("evaluate", {String(kSessionProgram), Any(), Any(), Any()});
    if (is_error_result(session)) return reportFailure(session, false);
    if (interactive) return interactivePrompt(session);
    // Lines from a pipe: the same session, without line editing or prompts.
    bool leave = false;
    int status = kOk;
    for (std::string line; !leave && std::getline(std::cin, line);) {
        (void)pushLine(session, line, leave, status);
        std::fflush(stdout);
    }
    // A block still open at the end of the input runs, as an empty line would run it.
    if (!leave) (void)pushLine(session, "", leave, status);
    return status;
}

}  // namespace tala::host
