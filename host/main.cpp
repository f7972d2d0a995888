// host/main.cpp: the host program `tala`: loads the Python extension the way the host does, then runs a command.
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "commands.hpp"
#include "script.hpp"

namespace {

const char* const kUsageText = R"(Usage:
  tala [OPTIONS] run SCRIPT [NAME=VALUE ...] [--out NAME ...] [EVALUATION OPTIONS] [-- ARG ...]
  tala [OPTIONS] -c CODE [ARG ...]
  tala [OPTIONS] eval EXPR [NAME=VALUE ...] [EVALUATION OPTIONS]
  tala [OPTIONS] import PATH
  tala [OPTIONS] modules [--all]
  tala [OPTIONS] stubs MODULE [--out DIR]
  tala [OPTIONS] stubs --all --out DIR
  tala [OPTIONS] [prompt]
  tala [OPTIONS] < SCRIPT
  tala --help | --version

Loads the Python extension that lies beside the program (lib/libtala_python.so next to
bin/, or the library given by --extension), then the libraries given by --load, runs
their start-up, then:

  run SCRIPT [NAME=VALUE ...] [--out NAME ...] [-- ARG ...]
      Runs the Python script SCRIPT as Python's own program runs it: a file, a folder that
      holds __main__.py, or "-" for standard input. sys.argv is [SCRIPT, ARG ...], the
      script's folder comes first on sys.path, __file__ is its absolute path, and the text
      is decoded as Python decodes source (a UTF-8 byte-order mark, a coding cookie). The
      script runs as the body of a function: what it returns is printed unless it is None,
      then one line "NAME = value" for each --out NAME, in the order given, with the value
      the code left in that variable (a name the script never assigns is reported).
  -c CODE [ARG ...]
      Runs the statements CODE, with sys.argv ["-c", ARG ...] and "" first on sys.path.
  eval EXPR [NAME=VALUE ...]
      Evaluates the Python expression EXPR with the given locals and prints the display
      text of its value.
  import PATH
      Imports the Python module or module-level object at the dotted PATH ("os",
      "os.path", "json.dumps") and prints the display text of its host value.
  modules [--all]
      Prints the registered host modules, one name a line. With --all, then the Python
      modules known to the host once those on Python's search path are listed
      (python.json, ...).
  stubs MODULE [--out DIR]
      Prints the Python stub text of the host module MODULE (tala.python, python.json,
      ...). With --out DIR, writes a stub package for type checkers and editors instead:
      DIR/<MODULE as folders>/__init__.pyi with a py.typed marker, for the module, its
      children and the modules they refer to, DIR/__builtins__.pyi (the host modules
      scripts see without import), and DIR/pyrightconfig.json unless DIR has one, so
      that an editor opens DIR with it.
  stubs --all --out DIR
      Writes that stub package for every registered host module.
  prompt, or no command on a terminal
      Opens Python 3.13's prompt with the host modules by name: colour, multi-line
      editing, whole-block history (kept in ~/.tala_history as blocks are entered),
      auto-indent, bracketed paste, Tab completion of names and host members, exit or
      Ctrl-D to leave. A list of rows prints as a table. Ctrl-C stops the running
      block, or drops the one being typed. TERM=dumb or PYTHON_BASIC_REPL gives the
      basic prompt, as they do to Python's.
  no command, standard input not a terminal
      Runs standard input as a script ("run -" with sys.argv [""]).

OPTIONS, before the command:
  --extension PATH
      Loads the Python extension from PATH instead.
  --load NAME|PATH
      Loads another extension library with host modules. A bare NAME is libNAME.so, or
      else libtala_NAME.so, beside the Python extension (--load sqlite gives the module
      sqlite). Anything with a "/" or ending in ".so" is a path. May be given more than
      once: the libraries load in the order given.
  --interpreters shared|isolated
      How Python runs for the host's threads: shared (the default) runs every thread in
      one interpreter, and isolated gives each thread that enters Python an interpreter with
      a lock of its own, so that threads run Python on several cores at once (the
      environment variable TALA_PYTHON_INTERPRETERS says the same). The prompt and the
      script run in the main interpreter either way.
  --interpreter-count N
      The most interpreters the isolated layout makes, 1 to 64 (the number of cores by
      default, TALA_PYTHON_INTERPRETER_COUNT says the same).
  EVALUATION OPTIONS may come here too, for -c and standard input.

EVALUATION OPTIONS:
  --timeout SECONDS   stop the evaluation when it runs longer (exit status 124)
  --grace SECONDS     how long except and finally blocks may run once the evaluation is
                      stopped (Ctrl-C, --timeout) before it is stopped again at every
                      jump (1 by default)
  --quiet-traceback   report a failure with the last line of its traceback only
  --profile           print the profile of the code on standard error once it ends, as
                      python -m cProfile -s cumulative prints it

NAME=VALUE: VALUE becomes an integer when it parses as one, else a float when it parses
as one, else a string. The host modules are visible by name (tala.get_logger(), ...).

Ctrl-C stops a running evaluation: the code sees tala.python.Interrupted (a
KeyboardInterrupt) once, also inside time.sleep, a socket read or an SQL statement, and
its except and finally blocks run.

Exit status: 0 on success, 1 when the evaluation fails (its traceback goes to standard
error), 2 for usage and start-up errors, 124 when --timeout stopped it, 130 after a
KeyboardInterrupt (Ctrl-C: the program ends as SIGINT ends it, as Python's does). A
script that calls sys.exit() ends with the status it gives, as Python does.
)";

int usageError(const std::string& sentence) {
    std::fprintf(stderr, "%s Run 'tala --help' for usage.\n", sentence.c_str());
    return tala::host::kUsage;
}

// A number of seconds: positive, or with `zeroAllowed` not negative.
std::optional<double> secondsOf(const std::string& text, bool zeroAllowed) {
    double seconds = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(seconds)) return std::nullopt;
    if (zeroAllowed ? !(seconds >= 0) : !(seconds > 0)) return std::nullopt;
    return seconds;
}

// The library of `--load NAME|PATH`: a path as given; for a bare name, libNAME.so beside the
// Python extension, or else the project's own libtala_NAME.so there.
std::string loadedLibraryPath(const std::string& nameOrPath, const std::string& pythonExtension) {
    if (nameOrPath.find('/') != std::string::npos || nameOrPath.ends_with(".so")) return nameOrPath;
    const std::filesystem::path folder = std::filesystem::path(pythonExtension).parent_path();
    const std::filesystem::path plain = folder / ("lib" + nameOrPath + ".so");
    const std::filesystem::path own = folder / ("libtala_" + nameOrPath + ".so");
    return (std::filesystem::exists(plain) || !std::filesystem::exists(own) ? plain : own).string();
}

// Loads one extension library and runs its start-up; the exit status of a failure, or nothing.
std::optional<int> loadLibrary(const std::string& path, const std::string& missingSentence) {
    if (!std::filesystem::exists(path)) return usageError(missingSentence);
    tala::Any loaded = tala::load_extension(path);
    if (tala::is_error_result(loaded)) {
        std::fprintf(stderr, "%s\n", tala::Error(tala::internal::unchecked, loaded).message().c_str());
        return tala::host::kUsage;
    }
    return std::nullopt;
}

std::string defaultExtension() {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) return "libtala_python.so";
    return (self.parent_path().parent_path() / "lib" / "libtala_python.so").string();
}

// Every thread of the program gets the stack Python needs: its deepest recursion in C (the json
// encoder at its limit) takes about 1.8 MiB. The main thread, which runs the scripts, may grow to
// the stack limit (`ulimit -s`), raised here as far as the hard limit allows; the threads made
// later (the program's own, Python's threading) get it as their default size.
void giveThreadsEnoughStack() {
    constexpr std::size_t kStack = 8 * 1024 * 1024;
    rlimit limit{};
    if (getrlimit(RLIMIT_STACK, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < kStack) {
        limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? kStack : std::min<rlim_t>(kStack, limit.rlim_max);
        (void)setrlimit(RLIMIT_STACK, &limit);
    }
    pthread_attr_t defaults;
    if (pthread_getattr_default_np(&defaults) != 0) return;
    std::size_t size = 0;
    if (pthread_attr_getstacksize(&defaults, &size) == 0 && size < kStack && pthread_attr_setstacksize(&defaults, kStack) == 0) {
        (void)pthread_setattr_default_np(&defaults);
    }
    pthread_attr_destroy(&defaults);
}

// Reads the evaluation option at arguments[index], moving `index` past its value. False when the
// argument is no evaluation option; when it is one, `failed` holds the status of a usage error,
// if any.
bool takeEvaluationOption(const std::vector<std::string>& arguments, std::size_t& index,
                          tala::host::EvaluationOptions& options, std::optional<int>& failed) {
    const std::string& argument = arguments[index];
    if (argument == "--quiet-traceback") {
        options.quietTraceback = true;
    } else if (argument == "--profile") {
        options.profile = true;
    } else if (argument == "--timeout" || argument == "--grace") {
        const bool timeout = argument == "--timeout";
        if (index + 1 >= arguments.size()) {
            failed = usageError(argument + " needs a number of seconds.");
            return true;
        }
        const std::string& given = arguments[++index];
        auto seconds = secondsOf(given, !timeout);
        if (!seconds) {
            failed = usageError(argument + (timeout ? " needs a positive number of seconds, not '" : " needs a number of seconds, not '") +
                                given + "'.");
            return true;
        }
        if (timeout) {
            options.timeoutSeconds = seconds;
        } else {
            options.graceSeconds = *seconds;
        }
    } else {
        return false;
    }
    return true;
}

// The arguments of `run`: the script, its locals, the --out names, its own arguments after --.
struct RunArguments {
    std::vector<std::string> positional;
    std::vector<std::string> outNames;
    std::vector<std::string> scriptArguments;
};

// Reads the arguments of run or eval after the command; the status of a usage error, or nothing.
std::optional<int> readRunArguments(bool isRun, const std::vector<std::string>& rest, tala::host::EvaluationOptions& options,
                                    RunArguments& into) {
    std::optional<int> failed;
    for (std::size_t index = 0; index < rest.size(); ++index) {
        const std::string& argument = rest[index];
        if (isRun && argument == "--") {
            into.scriptArguments.assign(rest.begin() + static_cast<std::ptrdiff_t>(index) + 1, rest.end());
            break;
        }
        if (isRun && argument == "--out") {
            if (index + 1 >= rest.size()) return usageError("--out needs a name.");
            into.outNames.push_back(rest[++index]);
        } else if (takeEvaluationOption(rest, index, options, failed)) {
            if (failed) return failed;
        } else if (argument.starts_with("--") && argument.size() > 2) {
            return usageError("Unknown option '" + argument + "'." + (isRun ? " The script's own arguments go after --." : ""));
        } else {
            into.positional.push_back(argument);
        }
    }
    if (into.positional.empty()) return usageError(isRun ? "run needs a script (or - for standard input)." : "eval needs an expression.");
    return std::nullopt;
}

// run SCRIPT, -c CODE, or standard input as the script.
int runScript(const std::string& command, const std::vector<std::string>& rest, const RunArguments& runArguments,
              const tala::host::EvaluationOptions& options) {
    using namespace tala::host;
    Script script;
    std::vector<std::string> assignments;
    if (command == "run") {
        assignments.assign(runArguments.positional.begin() + 1, runArguments.positional.end());
        if (auto unreadable = readScriptFile(runArguments.positional[0], runArguments.scriptArguments, script)) return *unreadable;
    } else if (command == "-c") {
        script = commandScript(rest[0], std::vector<std::string>(rest.begin() + 1, rest.end()));
    } else if (auto unreadable = readStandardInputScript(script)) {
        return *unreadable;
    }
    return runCommand(script, assignments, runArguments.outNames, options);
}

// Ends the program with `status`: after a KeyboardInterrupt, as SIGINT ends a program that
// does not handle it (its caller sees the signal; a shell shows 130), as Python's does.
int finish(int status) {
    if (status != tala::host::kInterrupted) return status;
    std::fflush(stdout);
    std::fflush(stderr);
    std::signal(SIGINT, SIG_DFL);
    kill(getpid(), SIGINT);
    return status;
}

int run(const std::vector<std::string>& arguments) {
    using namespace tala::host;
    std::string extension = defaultExtension();
    std::vector<std::string> libraries;
    EvaluationOptions options;
    std::optional<int> failed;
    std::size_t next = 0;
    // Options before the command; -c is a command that takes the rest.
    for (; next < arguments.size(); ++next) {
        const std::string& argument = arguments[next];
        if (argument == "--help" || argument == "-h") {
            std::fputs(kUsageText, stdout);
            return kOk;
        }
        if (argument == "--extension" || argument == "--load") {
            const bool load = argument == "--load";
            if (next + 1 >= arguments.size()) return usageError(load ? "--load needs a name or a path." : "--extension needs a path.");
            (load ? libraries.emplace_back() : extension) = arguments[++next];
        } else if (argument == "--interpreters") {
            if (next + 1 >= arguments.size()) return usageError("--interpreters needs shared or isolated.");
            const std::string& layout = arguments[++next];
            if (layout != "shared" && layout != "isolated") {
                return usageError("--interpreters takes shared or isolated, not '" + layout + "'.");
            }
            // Read by the extension when Python starts, which is after the libraries load.
            tala::set_language_option("python.interpreters", tala::String(layout));
        } else if (argument == "--interpreter-count") {
            if (next + 1 >= arguments.size()) return usageError("--interpreter-count needs a number from 1 to 64.");
            const std::string& text = arguments[++next];
            int count = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
            if (error != std::errc() || end != text.data() + text.size() || count < 1 || count > 64) {
                return usageError("--interpreter-count needs a number from 1 to 64, not '" + text + "'.");
            }
            tala::set_language_option("python.interpreterCount", tala::Integer(count));
        } else if (!takeEvaluationOption(arguments, next, options, failed)) {
            break;
        }
        if (failed) return *failed;
    }
    const std::string command = next < arguments.size() ? arguments[next++] : std::string();
    static const char* const kCommands[] = {"eval", "run", "import", "modules", "stubs", "prompt", "-c", "--version", ""};
    if (std::find(std::begin(kCommands), std::end(kCommands), command) == std::end(kCommands)) {
        return usageError((command.starts_with('-') ? "Unknown option '" : "Unknown command '") + command + "'.");
    }
    std::vector<std::string> rest(arguments.begin() + static_cast<std::ptrdiff_t>(next), arguments.end());
    if (command == "-c" && rest.empty()) return usageError("-c needs the code to run.");

    // Arguments of run and eval, checked before anything is loaded.
    RunArguments runArguments;
    if (command == "eval" || command == "run") {
        if (auto wrong = readRunArguments(command == "run", rest, options, runArguments)) return *wrong;
    }

    if (auto loadFailed = loadLibrary(extension, "The Python extension was not found at '" + extension + "'.")) return *loadFailed;
    for (const std::string& library : libraries) {
        const std::string path = loadedLibraryPath(library, extension);
        if (auto loadFailed = loadLibrary(path, "The extension '" + library + "' was not found at '" + path + "'.")) return *loadFailed;
    }

    if (command == "--version") return versionCommand();
    if (command == "eval") {
        const std::vector<std::string> assignments(runArguments.positional.begin() + 1, runArguments.positional.end());
        return evalCommand(runArguments.positional[0], assignments, options);
    }
    if (command == "run" || command == "-c" || (command.empty() && !isatty(STDIN_FILENO))) {
        return runScript(command, rest, runArguments, options);
    }
    if (command == "import") {
        if (rest.empty()) return usageError("import needs a path.");
        if (rest.size() > 1) return usageError("import takes one path.");
        return importCommand(rest[0]);
    }
    if (command == "modules") {
        if (rest.size() == 1 && rest[0] == "--all") return modulesCommand(true);
        if (!rest.empty()) return usageError("modules takes no arguments but --all.");
        return modulesCommand(false);
    }
    if (command == "stubs") {
        std::optional<std::string> moduleName;
        std::optional<std::string> outDir;
        bool all = false;
        for (std::size_t index = 0; index < rest.size(); ++index) {
            if (rest[index] == "--out") {
                if (index + 1 >= rest.size()) return usageError("--out needs a folder.");
                outDir = rest[++index];
            } else if (rest[index] == "--all") {
                all = true;
            } else if (moduleName) {
                return usageError("stubs takes one module.");
            } else {
                moduleName = rest[index];
            }
        }
        if (all) {
            if (moduleName) return usageError("stubs takes a module or --all, not both.");
            if (!outDir) return usageError("stubs --all needs --out DIR.");
            return tala::host::stubsOfAllCommand(*outDir);
        }
        if (!moduleName) return usageError("stubs needs a module.");
        return stubsCommand(*moduleName, outDir);
    }
    return promptCommand(isatty(STDIN_FILENO) != 0);
}

}  // namespace

int main(int argc, char** argv) {
    // Like Python's own program: a write to a closed pipe or socket raises BrokenPipeError in the
    // script, and one past the file size limit (ulimit -f) raises OSError, instead of killing the
    // process.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    giveThreadsEnoughStack();
    return finish(run(std::vector<std::string>(argv + 1, argv + argc)));
}
