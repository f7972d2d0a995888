// python/language/language_python.hpp: LanguagePython, the host's view of Python as one of its languages, and the host module "python".
#pragma once

#include <optional>
#include <span>

#include "tala/tala.hpp"

namespace tala {

// The extension's I_Language: the three evaluations, the catalogue of Python modules known to
// the host, and the listing of a package's modules, all as static methods (no instance is ever
// made). A member of module "tala.python".
class LanguagePython : public internal::View<LanguagePython> {
public:
    using View::View;
    static bool matches(const Any& value);
    static Class_Generic getClass();
};

namespace python {

// A Python module known to the host from start-up: the host module's name and the Python
// module's.
struct StandardModule {
    const char* hostName;
    const char* pythonName;
};
// The eight standard modules, in the order they are declared.
std::span<const StandardModule> standardModules();

// The description of the language, as the host module "python" carries it.
extern const char* const kLanguageName;
extern const char* const kLanguageDescription;
extern const char* const kLanguageIcon;

// Fills in the language description on the host module "python" (made when there is none):
// its name, description (also the module's documentation), icon, and the standard modules,
// declared but not imported. Start-up calls it with the interpreter lock held.
void describeLanguage();

// Makes the Python module `pythonName` known to the host: the host module "python" gets the
// child module `hostName` (a name beginning with "python."), made when it is first read.
void declarePythonModule(const String& hostName, const String& pythonName);

// The Python module that the host module `hostName` is declared for ("decimal" for
// "python.decimal"), without importing it; nothing for a name declared by no one.
std::optional<String> declaredPythonModule(const String& hostName);

// The host module for the Python module `pythonName`: imported and made (a ModulePython with a
// class of its own) on the first call for `hostName`, the same value on every call after. The
// error of the import when it fails; a failed import is tried again on the next call.
Any modulePythonFor(const String& hostName, const String& pythonName);

// Declares "python.<name>" for every module that pkgutil finds on the search path, except
// names that are empty or begin with "_", "builtins", "this" and "antigravity". None, or the
// error of the listing.
Any importAllModules();

// The names of the modules of the Python package `package` (a proxy of it, or any host value
// that becomes the package in Python), as pkgutil lists them: a List<String>, empty for a
// package without `__path__`; or the error of the listing.
Any submoduleNames(const Any& package);

}  // namespace python
}  // namespace tala
