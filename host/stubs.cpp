// host/stubs.cpp: the stubs command: the stub text of a host module, or a stub package that type checkers and editors read.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

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

int cannotWrite(const std::string& outDir) {
    std::fprintf(stderr, "Cannot write the stub package in '%s'.\n", outDir.c_str());
    return kUsage;
}

// Writes one module's typed stub into the package, with the py.typed marker of its top-level
// package.
int writeStubFile(const std::filesystem::path& root, std::string_view moduleName, std::string_view text) {
    const std::filesystem::path stubFile = stub_file_path(root, moduleName);
    std::error_code error;
    std::filesystem::create_directories(stubFile.parent_path(), error);
    if (error) {
        std::fprintf(stderr, "Cannot make the folder '%s': %s.\n", stubFile.parent_path().string().c_str(),
                     error.message().c_str());
        return kUsage;
    }
    if (!writeFile(stubFile, stub_file_text(moduleName, text)) || !writeFile(stub_marker_path(root, moduleName), "")) {
        return cannotWrite(root.string());
    }
    return kOk;
}

// What the editor needs besides the stubs: the host modules scripts see without import (for
// every top-level package the folder holds, also from earlier runs), and a configuration to
// open the folder with, unless it has one.
int writeEditorFiles(const std::filesystem::path& root) {
    std::vector<std::string> visible;
    std::vector<std::string> inlined;
    for (const std::string& name : written_top_level_modules(root)) {
        const std::optional<Module> module = Module::find(name);
        if (module && module->isInternal()) continue;
        visible.push_back(name);
        if (module && module->isInlined()) inlined.push_back(name);
    }
    if (!writeFile(root / "__builtins__.pyi", builtins_stub_text(visible, inlined))) return cannotWrite(root.string());
    const std::filesystem::path configuration = root / "pyrightconfig.json";
    std::error_code error;
    if (!std::filesystem::exists(configuration, error) && !writeFile(configuration, kPyrightConfiguration)) {
        return cannotWrite(root.string());
    }
    return kOk;
}

// Writes the typed stubs that the modules need into the package at `outDir` (each module, its
// children and the modules they refer to), then the editor's files.
int writeStubPackage(const std::vector<Module>& roots, const std::string& outDir) {
    const std::filesystem::path root(outDir);
    for (const Module& module : roots) {
        Any stubs = callLanguageMethod("generateTypedStubs", {module});
        if (is_error_result(stubs)) return reportFailure(stubs, false);
        auto files = HashMap_Generic::cast(stubs);
        if (!files) return reportFailure(Error(String("The typed stubs are no map: {}.").arg(stubs)), false);
        for (const auto& entry : *files) {
            auto name = String::cast(entry.key);
            auto text = String::cast(entry.value);
            if (!name || !text) return reportFailure(Error(String("A typed stub is no text: {}.").arg(entry.value)), false);
            if (int status = writeStubFile(root, name->view(), text->view()); status != kOk) return status;
        }
    }
    return writeEditorFiles(root);
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
    if (outDir) return writeStubPackage({Module(internal::unchecked, module)}, *outDir);
    Any text = callModuleFunction("python_generate_stubs", {module});
    if (is_error_result(text)) return reportFailure(text, false);
    auto stubText = String::cast(text);
    if (!stubText) return reportFailure(Error(String("The stub text is no text: {}.").arg(text)), false);
    std::fwrite(stubText->data(), 1, stubText->size(), stdout);
    return kOk;
}

int stubsOfAllCommand(const std::string& outDir) {
    std::vector<Module> visible;
    for (const Module& module : modules()) {
        if (!module.isInternal()) visible.push_back(module);
    }
    return writeStubPackage(visible, outDir);
}

}  // namespace tala::host
