// python/stubs/stub_text.hpp: small pieces of Python stub text: names Python can declare, docstrings, module aliases.
#pragma once

#include <string>
#include <string_view>

namespace tala::python {

// True when Python code can declare `name`: an identifier (bytes beyond ASCII taken as letters
// of other scripts) that is no keyword.
bool is_declarable_name(std::string_view name);

// `text` as a docstring at the indentation `indent`: between triple quotes, with its backslashes
// escaped and every quote that could end the string (one followed by another, or the last
// character), its lines after the first indented (empty lines stay empty), then a line feed.
std::string docstring(std::string_view text, std::string_view indent);

// The private name under which a stub imports the host module `moduleName`: "_" and the dotted
// name with each "." written "__" ("tala.python" is "_tala__python"). Names beginning with "_"
// are never members of host modules, so the alias hides nothing.
std::string module_alias(std::string_view moduleName);

}  // namespace tala::python
