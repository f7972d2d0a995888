// python/stubs/stub_text.cpp: small pieces of Python stub text: names Python can declare, docstrings, module aliases.
#include "stubs/stub_text.hpp"

#include "stubs/stub_generator.hpp"

namespace tala::python {

bool is_declarable_name(std::string_view name) {
    return is_python_identifier(name) && !is_python_keyword(String(name));
}

std::string docstring(std::string_view text, std::string_view indent) {
    std::string out = "\"\"\"";
    bool lineStart = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (lineStart && c != '\n') out += indent;  // an empty line stays empty
        lineStart = c == '\n';
        // A quote is escaped only where it could end the string: before another quote, or last.
        if (c == '\\' || (c == '"' && (at + 1 == text.size() || text[at + 1] == '"'))) out += '\\';
        out += c;
    }
    if (lineStart) out += indent;
    out += "\"\"\"\n";
    return out;
}

std::string module_alias(std::string_view moduleName) {
    std::string alias = "_";
    for (char c : moduleName) {
        if (c == '.') {
            alias += "__";
        } else {
            alias += c;
        }
    }
    return alias;
}

}  // namespace tala::python
