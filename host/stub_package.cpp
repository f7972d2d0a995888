// host/stub_package.cpp: the files of a stub package and the imports each stub needs.
#include "stub_package.hpp"

#include <set>
#include <vector>

namespace tala::host {

namespace {

// Where the names that result annotations use outside `typing` and `builtins` come from. The
// stub text itself imports only from typing; a file of the package imports the rest of what it
// uses, so that it stands on its own.
struct AnnotationSource {
    const char* module;
    std::vector<const char*> names;
};
const AnnotationSource kAnnotationSources[] = {
    {"collections.abc",
     {"Callable", "Iterable", "Iterator", "Mapping", "MutableMapping", "MutableSequence", "MutableSet", "Sequence", "Set"}},
    {"datetime", {"date", "datetime", "time"}},
    {"decimal", {"Decimal"}},
};

bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// The names in the result annotations of a stub text (the quoted texts after "-> "), and the
// names of the classes it declares.
void namesOf(std::string_view text, std::set<std::string>& annotationNames, std::set<std::string>& classNames) {
    std::size_t line = 0;
    while (line < text.size()) {
        std::size_t end = text.find('\n', line);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view current = text.substr(line, end - line);
        line = end + 1;
        if (current.starts_with("class ")) {
            classNames.emplace(current.substr(6, current.find(':') - 6));
            continue;
        }
        const std::size_t arrow = current.find("-> '");
        if (arrow == std::string_view::npos) continue;
        const std::size_t start = arrow + 4;
        const std::size_t close = current.find('\'', start);
        const std::string_view annotation = current.substr(start, close == std::string_view::npos ? std::string_view::npos : close - start);
        for (std::size_t at = 0; at < annotation.size();) {
            if (!isNameCharacter(annotation[at])) {
                ++at;
                continue;
            }
            std::size_t after = at;
            while (after < annotation.size() && isNameCharacter(annotation[after])) ++after;
            annotationNames.emplace(annotation.substr(at, after - at));
            at = after;
        }
    }
}

}  // namespace

std::string stub_imports(std::string_view stubText) {
    std::set<std::string> used;
    std::set<std::string> declared;
    namesOf(stubText, used, declared);
    std::string lines;
    for (const AnnotationSource& source : kAnnotationSources) {
        std::string names;
        for (const char* name : source.names) {
            if (!used.contains(name) || declared.contains(name)) continue;
            if (!names.empty()) names += ", ";
            names += name;
        }
        if (!names.empty()) lines += std::string("from ") + source.module + " import " + names + "\n";
    }
    return lines;
}

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

std::string stub_file_text(std::string_view moduleName, std::string_view stubText) {
    std::string text = "# Stubs of the host module " + std::string(moduleName) + ", written by `tala stubs`.\n";
    text += stub_imports(stubText);
    text += stubText;
    return text;
}

}  // namespace tala::host
