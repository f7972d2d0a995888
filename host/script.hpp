// host/script.hpp: a script as Python's own program finds and reads it: a file, a folder with __main__.py, standard input or -c text, decoded as Python decodes source.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tala/tala.hpp"

namespace tala::host {

struct Script {
    std::string source;              // the text, decoded
    std::optional<std::string> file;  // __file__: the absolute path, or "<stdin>" (names it in tracebacks)
    std::vector<std::string> argv;   // sys.argv
    std::string pathEntry;           // sys.path[0]: the script's folder (symbolic links resolved), or ""
};

// The script of `run PATH`: a file, a folder that holds __main__.py, or standard input for "-".
// `arguments` follow PATH in sys.argv. The exit status after Python's report of why it cannot
// be run (2 for a file that cannot be opened, 1 for a folder without __main__.py or text that
// cannot be decoded), or nothing.
std::optional<int> readScriptFile(const std::string& path, const std::vector<std::string>& arguments, Script& into);

// The script on standard input when it is not a terminal and no command was given: sys.argv is
// [""], as under Python's program. The exit status after a report, or nothing.
std::optional<int> readStandardInputScript(Script& into);

// The statements of `-c CODE`: sys.argv is ["-c", arguments...].
Script commandScript(const std::string& code, const std::vector<std::string>& arguments);

// Makes the interpreter look to code as it looks under Python's own program: sys.argv,
// sys.path[0], and breakpoint() opening pdb on the terminal (pdb leaves SIGINT to the host,
// which stops the evaluation on Ctrl-C). None, or an Error.
Any prepareInterpreter(const std::vector<std::string>& argv, const std::string& pathEntry);

// Of the names `names`, those the script never binds: not assigned, imported, defined or
// declared global and assigned anywhere in it. Empty when its text does not even compile (the
// evaluation reports that).
std::vector<std::string> namesNeverAssigned(const Script& script, const std::vector<std::string>& names);

}  // namespace tala::host
