// host/stub_package.hpp: the files of a stub package: where each module's stub goes, and the imports that make it stand on its own.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tala::host {

// The stub file of a host module in the package at `root`: a folder per part of the dotted name
// and "__init__.pyi" in the last one ("tala.python" is root/tala/python/__init__.pyi), so that a
// module and its children are packages alike.
std::filesystem::path stub_file_path(const std::filesystem::path& root, std::string_view moduleName);
// The py.typed marker of the module's top-level package: root/tala/py.typed for "tala.python".
std::filesystem::path stub_marker_path(const std::filesystem::path& root, std::string_view moduleName);

// The import lines that a stub text needs for the names its result annotations use from
// collections.abc, datetime and decimal (the text itself imports only from typing and
// builtins): one line per module, in that order, with the names in a fixed order; none for a
// name the text declares as a class of its own.
std::string stub_imports(std::string_view stubText);

// The content of the module's stub file: a comment line, the imports, then the stub text.
std::string stub_file_text(std::string_view moduleName, std::string_view stubText);

}  // namespace tala::host
