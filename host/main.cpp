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

namespace {

const char* const kUsageText = R"(Usage:
  tala [OPTIONS] eval EXPR [NAME=VALUE ...] [EVALUATION OPTIONS]
  tala [OPTIONS] run FILE [NAME=VALUE ...] [--out NAME ...] [EVALUATION OPTIONS]
  tala [OPTIONS] import PATH
  tala [OPTIONS] modules [--all]
  tala [OPTIONS] stubs MODULE [--out DIR]
  tala [OPTIONS] stubs --all --out DIR
  tala [OPTIONS] [prompt]
  tala --help

Loads the Python extension that lies beside the program (lib/libtala_python.so next to
bin/, or the library given by --extension), then the libraries given by --load, runs
their start-up, then:

  eval EXPR [NAME=VALUE ...]
      Evaluates the Python expression EXPR with the given locals and prints the display
      text of its value.
  run FILE [NAME=VALUE ...] [--out NAME ...]
      Runs the Python code in FILE ("-" reads standard input) as the body of a function:
      what it returns is printed unless it is None, then one line "NAME = value" for each
      --out NAME, in the order given, with the value the code left in that variable.
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
      Opens Python's prompt: blocks continue on "..." lines until an empty line, names
      stay for the whole session, Tab completes names and attributes, history is kept in
      ~/.tala_history. Ctrl-C stops the running line, or clears the line being typed.
      Ctrl-D leaves.

OPTIONS, before the command:
  --extension PATH
      Loads the Python extension from PATH instead.
  --load NAME|PATH
      Loads another extension library with host modules. A bare NAME is libNAME.so, or
      else libtala_NAME.so, beside the Python extension (--load sqlite gives the module
      sqlite). Anything with a "/" or ending in ".so" is a path. May be given more than
      once: the libraries load in the order given.

EVALUATION OPTIONS of eval and run:
  --timeout SECONDS   stop the evaluation when it runs longer (exit status 124)
  --quiet-traceback   report a failure with the last line of its traceback only

NAME=VALUE: VALUE becomes an integer when it parses as one, else a float when it parses
as one, else a string. The host modules are visible by name (tala.get_logger(), ...).

Exit status: 0 on success, 1 when the evaluation fails (its traceback goes to standard
error), 2 for usage and start-up errors, 124 when --timeout stopped it. A script that
calls sys.exit() ends with the status it gives, as Python does.
)";

int usageError(const std::string& sentence) {
    std::fprintf(stderr, "%s Run 'tala --help' for usage.\n", sentence.c_str());
    return tala::host::kUsage;
}

std::optional<double> secondsOf(const std::string& text) {
    double seconds = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !(seconds > 0) || !std::isfinite(seconds)) return std::nullopt;
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

}  // namespace

int main(int argc, char** argv) {
    // Like Python's own program: a write to a closed pipe or socket raises BrokenPipeError in the
    // script, and one past the file size limit (ulimit -f) raises OSError, instead of killing the
    // process.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    giveThreadsEnoughStack();
    std::vector<std::string> arguments(argv + 1, argv + argc);
    std::string extension = defaultExtension();
    std::size_t next = 0;
    if (next < arguments.size() && (arguments[next] == "--help" || arguments[next] == "-h")) {
        std::fputs(kUsageText, stdout);
        return tala::host::kOk;
    }
    std::vector<std::string> libraries;
    while (next < arguments.size() && (arguments[next] == "--extension" || arguments[next] == "--load")) {
        const bool load = arguments[next] == "--load";
        if (next + 1 >= arguments.size()) return usageError(load ? "--load needs a name or a path." : "--extension needs a path.");
        if (load) {
            libraries.push_back(arguments[next + 1]);
        } else {
            extension = arguments[next + 1];
        }
        next += 2;
    }
    const std::string command = next < arguments.size() ? arguments[next++] : std::string();
    if (command == "--help" || command == "-h") {
        std::fputs(kUsageText, stdout);
        return tala::host::kOk;
    }
    static const char* const kCommands[] = {"eval", "run", "import", "modules", "stubs", "prompt", ""};
    if (std::find(std::begin(kCommands), std::end(kCommands), command) == std::end(kCommands)) {
        return usageError("Unknown command '" + command + "'.");
    }
    if (command.empty() && !isatty(STDIN_FILENO)) {
        return usageError("No command given, and standard input is not a terminal for the prompt.");
    }

    if (auto failed = loadLibrary(extension, "The Python extension was not found at '" + extension + "'.")) return *failed;
    for (const std::string& library : libraries) {
        const std::string path = loadedLibraryPath(library, extension);
        if (auto failed = loadLibrary(path, "The extension '" + library + "' was not found at '" + path + "'.")) return *failed;
    }

    std::vector<std::string> rest(arguments.begin() + static_cast<std::ptrdiff_t>(next), arguments.end());
    if (command == "eval" || command == "run") {
        const bool run = command == "run";
        std::vector<std::string> positional;
        std::vector<std::string> outNames;
        tala::host::EvaluationOptions options;
        for (std::size_t index = 0; index < rest.size(); ++index) {
            const std::string& argument = rest[index];
            if (run && argument == "--out") {
                if (index + 1 >= rest.size()) return usageError("--out needs a name.");
                outNames.push_back(rest[++index]);
            } else if (argument == "--timeout") {
                if (index + 1 >= rest.size()) return usageError("--timeout needs a number of seconds.");
                auto seconds = secondsOf(rest[++index]);
                if (!seconds) return usageError("--timeout needs a positive number of seconds, not '" + rest[index] + "'.");
                options.timeoutSeconds = seconds;
            } else if (argument == "--quiet-traceback") {
                options.quietTraceback = true;
            } else {
                positional.push_back(argument);
            }
        }
        if (positional.empty()) return usageError(run ? "run needs a file (or - for standard input)." : "eval needs an expression.");
        const std::vector<std::string> assignments(positional.begin() + 1, positional.end());
        if (run) return tala::host::runCommand(positional[0], assignments, outNames, options);
        return tala::host::evalCommand(positional[0], assignments, options);
    }
    if (command == "import") {
        if (rest.empty()) return usageError("import needs a path.");
        if (rest.size() > 1) return usageError("import takes one path.");
        return tala::host::importCommand(rest[0]);
    }
    if (command == "modules") {
        if (rest.size() == 1 && rest[0] == "--all") return tala::host::modulesCommand(true);
        if (!rest.empty()) return usageError("modules takes no arguments but --all.");
        return tala::host::modulesCommand(false);
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
        return tala::host::stubsCommand(*moduleName, outDir);
    }
    return tala::host::promptCommand(isatty(STDIN_FILENO) != 0);
}
