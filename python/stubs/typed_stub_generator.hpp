// python/stubs/typed_stub_generator.hpp: typed stubs of host modules, made for type checkers and editors.
#pragma once

#include <set>
#include <string>

#include "tala/tala.hpp"

namespace tala::python {

// The typed stub of one host module: its text, and the other host modules the text imports.
struct TypedStub {
    String text;
    std::set<std::string> references;
};

// The stub of `module` as type checkers and editors read it (the file `__init__.pyi` of a
// package named after the module), beside the fixed text of generate_stubs:
//
//     """SQLite databases: ..."""                 the module's documentation
//     import builtins as _builtins                 the names annotations use, under aliases
//     ...
//     import tala as _tala                         other host modules whose classes it names
//     from . import python as python               registered child modules
//     import decimal as decimal                    Python modules it declares ("python.decimal")
//     name: str                                    other members: constants
//     """The module's dotted name."""
//     def get_logger() -> Logger:                  functions
//         """..."""
//     class Database:                              classes, by name
//         """..."""
//         def __init__(self, path: str) -> None: ...  how the class is constructed
//         @_builtins.staticmethod                  methods that need no instance
//         def open(path: str) -> Database: ...
//         def query(self, sql: str, parameters: _typing.Any = None) -> _abc.MutableSequence[Row]: ...
//         @_builtins.property                      properties, with a setter when writable
//         def path(self) -> str: ...
//     class SqlError(RuntimeError):                error classes derive from the Python
//         tala: object | None                       exceptions their exception types derive from
//         code: int                                 and show the host error's properties
//
// Classes get the bases and special methods of the protocols their wrappers support (see
// class_protocols); parameters that callers may leave out get defaults (None where None is
// accepted, "..." otherwise); every module, class, function, method and property gets a
// docstring, the host's documentation (the host signature, or a sentence naming it, where the
// host has none). A module that stands for a Python module (a ModulePython) re-exports that
// module. Names Python cannot declare are left out, as generate_stubs leaves them out.
TypedStub generate_typed_stub(const Module& module);

// The typed stubs that a package needs for `module`: its own, those of its registered
// descendants and of every module they refer to (with theirs), by module name. Internal modules
// are never part of it.
HashMap<String, String> generate_typed_stub_package(const Module& module);

}  // namespace tala::python
