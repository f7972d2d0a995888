// host/stub_package.cpp: the files of a stub package: where each module's stub goes, the names scripts see without import, and a configuration to open the folder with.
#include "stub_package.hpp"

#include <algorithm>
#include <fstream>
#include <system_error>

namespace tala::host {

const char* const kPyrightConfiguration = R"({
    "pythonVersion": "3.13",
    "stubPath": ".",
    "reportMissingModuleSource": "none"
}
)";

std::filesystem::path stub_file_path(const std::filesystem::path& root, std::string_view moduleName) {
    std::filesystem::path folder = root;
    std::size_t start = 0;
    for (;;) {
        const std::size_t dot = moduleName.find('.', start);
        folder /= std::string(moduleName.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start));
        if (dot == std::string_view::npos) break;
        start = dot + 1;
    }
    return folder / "__init__.pyi";
}

std::filesystem::path stub_marker_path(const std::filesystem::path& root, std::string_view moduleName) {
    return root / std::string(moduleName.substr(0, moduleName.find('.'))) / "py.typed";
}

std::string stub_file_comment(std::string_view moduleName) {
    return "# Stubs of the host module " + std::string(moduleName) + ", written by `tala stubs`.\n";
}

std::string stub_file_text(std::string_view moduleName, std::string_view stubText) {
    return stub_file_comment(moduleName) + std::string(stubText);
}

std::string builtins_stub_text(const std::vector<std::string>& modules, const std::vector<std::string>& inlined) {
    std::string text =
        "# The host modules that scripts see by name, written by `tala stubs`: for a type checker they are\n"
        "# builtins, as they are for the scripts.\n";
    for (const std::string& name : modules) text += "import " + name + " as " + name + "\n";
    for (const std::string& name : inlined) text += "from " + name + " import *\n";
    return text;
}

std::vector<std::string> written_top_level_modules(const std::filesystem::path& root) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(root, error)) {
        if (!entry.is_directory(error)) continue;
        const std::string name = entry.path().filename().string();
        std::ifstream file(entry.path() / "__init__.pyi");
        std::string first;
        if (!std::getline(file, first)) continue;
        if (first + "\n" == stub_file_comment(name)) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace tala::host
