// host/stub_package.hpp: the files of a stub package: where each module's stub goes, the names scripts see without import, and a configuration to open the folder with.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tala::host {

// The stub file of a host module in the package at `root`: a folder per part of the dotted name
// and "__init__.pyi" in the last one ("tala.python" is root/tala/python/__init__.pyi), so that a
// module and its children are packages alike.
std::filesystem::path stub_file_path(const std::filesystem::path& root, std::string_view moduleName);
// The py.typed marker of the module's top-level package: root/tala/py.typed for "tala.python".
std::filesystem::path stub_marker_path(const std::filesystem::path& root, std::string_view moduleName);

// The first line of every stub file that `tala stubs` writes, for the module.
std::string stub_file_comment(std::string_view moduleName);
// The content of the module's stub file: that comment line, then the stub text.
std::string stub_file_text(std::string_view moduleName, std::string_view stubText);

// The host modules a script sees without importing them, as a type checker must be told: the
// text of root/__builtins__.pyi, which pyright reads as names added to Python's builtins.
// `modules` are the top-level modules whose stubs the package holds, `inlined` the modules
// whose classes and functions scripts see by their own names; each list in the order given.
std::string builtins_stub_text(const std::vector<std::string>& modules, const std::vector<std::string>& inlined);

// The names of the top-level packages in the folder that `tala stubs` wrote (root/NAME/
// __init__.pyi beginning with the comment line of NAME), sorted: every module a package written
// there in earlier runs holds too.
std::vector<std::string> written_top_level_modules(const std::filesystem::path& root);

// The pyright configuration written into a package folder that has none: Python 3.13, the
// folder itself as the stub path (so that its __builtins__.pyi counts), and no report of the
// missing sources of host modules, which are no files.
extern const char* const kPyrightConfiguration;

}  // namespace tala::host
