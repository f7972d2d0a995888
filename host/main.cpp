// host/main.cpp: the host program `tala`: loads the Python extension the way the host does, then runs a command.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "commands.hpp"

namespace {

const char* const kUsageText = R"(Usage:
  tala [OPTIONS] eval EXPR [NAME=VALUE ...]
  tala [OPTIONS] run FILE [NAME=VALUE ...] [--out NAME ...]
  tala [OPTIONS] modules
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
  modules
      Prints the registered host modules, one name a line.
  prompt, or no command on a terminal
      Opens a prompt with line editing and history: an expression line prints its value,
      any other line runs as code, and names assigned at the prompt stay visible to later
      lines. Ctrl-D leaves.

OPTIONS, before the command:
  --extension PATH
      Loads the Python extension from PATH instead.
  --load NAME|PATH
      Loads another extension library with host modules. A bare NAME is libNAME.so, or
      else libtala_NAME.so, beside the Python extension (--load sqlite gives the module
      sqlite). Anything with a "/" or ending in ".so" is a path. May be given more than
      once: the libraries load in the order given.

NAME=VALUE: VALUE becomes an integer when it parses as one, else a float when it parses
as one, else a string. The host modules are visible by name (tala.get_logger(), ...).

Exit status: 0 on success, 1 when the evaluation fails (its message goes to standard
error), 2 for usage and start-up errors.
)";

int usageError(const std::string& sentence) {
    std::fprintf(stderr, "%s Run 'tala --help' for usage.\n", sentence.c_str());
    return tala::host::kUsage;
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

}  // namespace

int main(int argc, char** argv) {
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
    static const char* const kCommands[] = {"eval", "run", "modules", "prompt", ""};
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
    if (command == "eval") {
        if (rest.empty()) return usageError("eval needs an expression.");
        return tala::host::evalCommand(rest[0], std::vector<std::string>(rest.begin() + 1, rest.end()));
    }
    if (command == "run") {
        if (rest.empty()) return usageError("run needs a file (or - for standard input).");
        std::vector<std::string> assignments;
        std::vector<std::string> outNames;
        for (std::size_t index = 1; index < rest.size(); ++index) {
            if (rest[index] == "--out") {
                if (index + 1 >= rest.size()) return usageError("--out needs a name.");
                outNames.push_back(rest[++index]);
            } else {
                assignments.push_back(rest[index]);
            }
        }
        return tala::host::runCommand(rest[0], assignments, outNames);
    }
    if (command == "modules") {
        if (!rest.empty()) return usageError("modules takes no arguments.");
        return tala::host::modulesCommand();
    }
    return tala::host::promptCommand(isatty(STDIN_FILENO) != 0);
}
