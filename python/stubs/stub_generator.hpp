// python/stubs/stub_generator.hpp: Python stub text for a host module.
#pragma once

#include "tala/tala.hpp"

namespace tala::python {

// The text of a Python stub that declares each class of `module` with its methods and
// properties as typed signatures with empty bodies:
//
//     from typing import Any, List, Optional, Self
//     import builtins
//
//     class LogRecord:
//     	def __init__(self, level, message) -> 'None': ...
//     	@builtins.property
//     	def level(self) -> 'int': ...
//
// Classes come in the order of their names, each once (a class listed under several names, as
// Python's `IOError = OSError`, is one class); a class whose name Python cannot declare there
// (not an identifier, a keyword, a name the first two lines bind, or the name of a class
// written before it) is left out. Within a class come the abstract methods it does not
// implement, its methods, then the abstract properties it does not implement and its
// properties, each list with "__init__" first and the rest in the order of their names. A class
// has one attribute per name in Python, so a name is written once: an abstract member that the
// class implements is written as the member that implements it, and a property whose name is
// already a method is left out. Members whose names begin with "_" (but "__init__"), are
// Python keywords or are no identifiers are left out; a parameter named like a keyword gets a
// trailing "_". A class with nothing written gets "\tpass\n". The names that the result
// annotations use from outside typing (Callable, date, Decimal, Mapping, ...) are not imported.
String generate_stubs(const Module& module);

// The annotation text of a host type, as a stub of `module` writes it inside class `described`.
String annotation_text(const Type& type, const Class_Generic& described, const Module& module);

// True when `name` is a Python keyword (`keyword.kwlist`, read once per process).
bool is_python_keyword(const String& name);

// True when `name` is made of letters, digits and "_" and does not begin with a digit; bytes
// beyond ASCII are taken as the letters of other scripts, which Python allows in names too.
bool is_python_identifier(std::string_view name);

}  // namespace tala::python
