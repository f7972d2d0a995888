// host/stubs.cpp: the stubs command: the stub text of a host module, or a stub package that type checkers read.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "commands.hpp"
#include "stub_package.hpp"

namespace tala::host {

namespace {

// The host module of that name: a registered module, or one that a registered module declares
// to be made when first read (the Python modules known to the host). The empty value when there
// is none; an Error when making it failed.
Any findHostModule(const std::string& name) {
    if (auto module = Module::find(name)) return *module;
    for (const Module& parent : modules()) {
        for (const String& declared : parent.lazyModuleNames()) {
            if (declared.view() != name) continue;
            std::string_view member = declared.view();
            const std::string_view own = parent.name().view();
            if (member.size() > own.size() + 1 && member.starts_with(own) && member[own.size()] == '.') {
                member.remove_prefix(own.size() + 1);
            }
            auto property = property_of(parent, member);
            if (property.isEmpty()) continue;
            return resolve(property.as<Property>().get(parent));
        }
    }
    return Any();
}

bool writeFile(const std::filesystem::path& path, std::string_view text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    return static_cast<bool>(file);
}

// Writes the stub file of the module into the package at `outDir`, and a py.typed marker in
// the top-level package folder.
int writeStubPackage(const std::string& moduleName, const String& stubText, const std::string& outDir) {
    const std::filesystem::path stubFile = stub_file_path(outDir, moduleName);
    std::error_code error;
    std::filesystem::create_directories(stubFile.parent_path(), error);
    if (error) {
        std::fprintf(stderr, "Cannot make the folder '%s': %s.\n", stubFile.parent_path().string().c_str(),
                     error.message().c_str());
        return kUsage;
    }
    if (!writeFile(stubFile, stub_file_text(moduleName, stubText.view())) ||
        !writeFile(stub_marker_path(outDir, moduleName), "")) {
        std::fprintf(stderr, "Cannot write the stub package in '%s'.\n", outDir.c_str());
        return kUsage;
    }
    return kOk;
}

}  // namespace

int stubsCommand(const std::string& moduleName, const std::optional<std::string>& outDir) {
    Any module = findHostModule(moduleName);
    // The Python modules that pkgutil finds are known to the host only once they are listed.
    if (module.isEmpty() && moduleName.starts_with("python.")) {
        if (Any listed = importAllModules(); is_error_result(listed)) return reportFailure(listed, false);
        module = findHostModule(moduleName);
    }
    if (is_error_result(module)) return reportFailure(module, false);
    if (!Module::matches(module)) {
        std::fprintf(stderr, "No host module is named '%s'.\n", moduleName.c_str());
        return kUsage;
    }
    Any text = callModuleFunction("python_generate_stubs", {module});
    if (is_error_result(text)) return reportFailure(text, false);
    auto stubText = String::cast(text);
    if (!stubText) return reportFailure(Error(String("The stub text is no text: {}.").arg(text)), false);
    if (outDir) return writeStubPackage(moduleName, *stubText, *outDir);
    std::fwrite(stubText->data(), 1, stubText->size(), stdout);
    return kOk;
}

}  // namespace tala::host
