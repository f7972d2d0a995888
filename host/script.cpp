// host/script.cpp: a script as Python's own program finds and reads it: a file, a folder with __main__.py, standard input or -c text, decoded as Python decodes source.
#include "script.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <sstream>

#include "commands.hpp"

namespace tala::host {

namespace {

// Decodes the bytes of a script as Python's program does: a UTF-8 byte-order mark, else a coding
// cookie on one of the first two lines, else UTF-8. What it cannot decode gets Python's own
// report in `report`.
const char* const kDecodeProgram = R"PY(
import ast, codecs, tokenize, traceback

def cookie_of(head):
    for line in head.split(b"\n", 2)[:2]:
        found = tokenize.cookie_re.match(line.decode("latin-1"))
        if found:
            return found.group(1)
        if not tokenize.blank_re.match(line):
            return None
    return None

bom = source.startswith(codecs.BOM_UTF8)
cookie = cookie_of(source[3:] if bom else source)
encoding = "utf-8"
if cookie is not None:
    try:
        encoding = codecs.lookup(cookie).name
    except LookupError:
        report = f"SyntaxError: encoding problem: {cookie}"
        return None
    if bom and encoding != "utf-8":
        report = f"SyntaxError: encoding problem: {tokenize._get_normal_name(cookie)} with BOM"
        return None
try:
    return source.decode("utf-8-sig" if bom else encoding)
except UnicodeDecodeError as error:
    if cookie is None and not bom:
        line = source.count(b"\n", 0, error.start) + 1
        report = (f"SyntaxError: Non-UTF-8 code starting with '\\x{source[error.start]:02x}' in file {path} on line "
                  f"{line}, but no encoding declared; see https://peps.python.org/pep-0263/ for details")
        return None
    if encoding != "utf-8":
        report = f"SyntaxError: encoding problem: {cookie}"
        return None
# Declared or marked UTF-8, and broken: where, as the compiler says it.
try:
    ast.parse(source, path)
    report = "SyntaxError: the text is not UTF-8"
except SyntaxError as error:
    report = "".join(traceback.format_exception_only(error)).rstrip("\n")
return None
)PY";

// sys.argv and sys.path[0] as Python's program sets them; breakpoint() opens pdb on the
// terminal (unless PYTHONBREAKPOINT says otherwise) and leaves SIGINT to the host: pdb would
// otherwise put a handler of Python's in place of the host's when the script continues.
const char* const kPrepareProgram = R"PY(
import sys
sys.argv[:] = list(argv)
if not sys.path or sys.path[0] != entry:
    sys.path.insert(0, entry)

def tala_breakpointhook(*args, **kws):
    import os
    if os.environ.get("PYTHONBREAKPOINT"):
        return sys.__breakpointhook__(*args, **kws)
    import pdb
    pdb.Pdb(nosigint=True).set_trace(sys._getframe(1))

sys.breakpointhook = tala_breakpointhook
)PY";

// The names of `names` the script never binds at its top level, one a line.
const char* const kUnassignedProgram = R"PY(
import symtable
try:
    table = symtable.symtable(text, file, "exec")
except (SyntaxError, ValueError):
    return ""
bound = set()
def visit(table, top):
    for symbol in table.get_symbols():
        if (symbol.is_assigned() or symbol.is_imported()) and (top or symbol.is_declared_global()):
            bound.add(symbol.get_name())
    for child in table.get_children():
        visit(child, False)
visit(table, True)
return "\n".join(name for name in names.split("\n") if name not in bound)
)PY";

std::string currentFolder() {
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::current_path(error);
    return error ? std::string() : folder.string();
}

// The path as Python's program makes it absolute: joined to the current folder, not normalised.
std::string absolutePath(const std::string& path) {
    if (path.starts_with('/')) return path;
    return currentFolder() + "/" + path;
}

// Decodes `bytes` into `into.source`; the exit status after the report, or nothing.
std::optional<int> decode(const std::string& bytes, const std::string& path, Script& into) {
    const HashMap<String, Any> locals{{String("source"), ByteArray(bytes)}, {String("path"), String(path)}};
    const HashMap<String, Any> outLocals{{String("report"), Any()}};
    const Any text = callModuleFunction("evaluate", {String(kDecodeProgram), locals, Any(), outLocals});
    if (is_error_result(text)) return reportFailure(text, false);
    if (auto decoded = String::cast(text)) {
        into.source = decoded->toStdString();
        return std::nullopt;
    }
    flushPythonOutput();
    const String report = String::cast(outLocals.get(String("report")).value_or(Any())).value_or(String("SyntaxError"));
    std::fprintf(stderr, "%s\n", report.c_str());
    return kEvaluationFailed;
}

std::string readAll(std::istream& input) {
    return std::string(std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>());
}

// The bytes of a file, or Python's report of why it cannot be opened (errno's text).
std::optional<std::string> readFile(const std::string& path, std::string& failure) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        failure = "[Errno " + std::to_string(errno) + "] " + std::strerror(errno);
        return std::nullopt;
    }
    std::string bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t count = read(descriptor, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            failure = "[Errno " + std::to_string(errno) + "] " + std::strerror(errno);
            close(descriptor);
            return std::nullopt;
        }
        if (count == 0) break;
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    close(descriptor);
    return bytes;
}

}  // namespace

std::optional<int> readScriptFile(const std::string& path, const std::vector<std::string>& arguments, Script& into) {
    into.argv = {path};
    into.argv.insert(into.argv.end(), arguments.begin(), arguments.end());
    if (path == "-") {
        into.file = "<stdin>";
        into.pathEntry.clear();
        return decode(readAll(std::cin), "<stdin>", into);
    }
    std::error_code error;
    std::string file = absolutePath(path);
    if (std::filesystem::is_directory(path, error)) {
        // A folder runs its __main__.py, with the folder first on the search path.
        into.pathEntry = file;
        file += file.ends_with('/') ? "__main__.py" : "/__main__.py";
        if (!std::filesystem::is_regular_file(file, error)) {
            std::fprintf(stderr, "tala: can't find '__main__' module in '%s'\n", into.pathEntry.c_str());
            return kEvaluationFailed;
        }
    } else {
        const std::filesystem::path resolved = std::filesystem::canonical(path, error);
        into.pathEntry = error ? std::filesystem::path(file).parent_path().string() : resolved.parent_path().string();
    }
    std::string failure;
    const std::optional<std::string> bytes = readFile(file, failure);
    if (!bytes) {
        std::fprintf(stderr, "tala: can't open file '%s': %s\n", file.c_str(), failure.c_str());
        return kUsage;
    }
    into.file = file;
    return decode(*bytes, file, into);
}

std::optional<int> readStandardInputScript(Script& into) {
    into.argv = {""};
    into.file = "<stdin>";
    into.pathEntry.clear();
    return decode(readAll(std::cin), "<stdin>", into);
}

Script commandScript(const std::string& code, const std::vector<std::string>& arguments) {
    Script script;
    script.source = code;
    script.argv = {"-c"};
    script.argv.insert(script.argv.end(), arguments.begin(), arguments.end());
    return script;
}

Any prepareInterpreter(const std::vector<std::string>& argv, const std::string& pathEntry) {
    List<String> arguments;
    for (const std::string& argument : argv) arguments.append(String(argument));
    const HashMap<String, Any> locals{{String("argv"), arguments}, {String("entry"), String(pathEntry)}};
    const Any prepared = callModuleFunction("evaluate", {String(kPrepareProgram), locals, Any(), Any()});
    return is_error_result(prepared) ? prepared : Any();
}

std::vector<std::string> namesNeverAssigned(const Script& script, const std::vector<std::string>& names) {
    std::string joined;
    for (const std::string& name : names) joined += (joined.empty() ? "" : "\n") + name;
    const HashMap<String, Any> locals{{String("text"), String(script.source)},
                                      {String("file"), String(script.file.value_or("<string>"))},
                                      {String("names"), String(joined)}};
    const Any found = callModuleFunction("evaluate", {String(kUnassignedProgram), locals, Any(), Any()});
    std::vector<std::string> unassigned;
    std::istringstream lines(String::cast(found).value_or(String()).toStdString());
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) unassigned.push_back(line);
    }
    return unassigned;
}

}  // namespace tala::host
