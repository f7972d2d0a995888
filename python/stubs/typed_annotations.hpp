// python/stubs/typed_annotations.hpp: the annotations of typed stubs: host types as the Python types scripts receive.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "tala/tala.hpp"

namespace tala::python {

// The names every typed stub imports, under private aliases so that no member of a host module
// can hide them: typing, collections.abc, builtins, datetime, decimal and types.
extern const char* const kTypedStubImports;

// What the typed stub of one module knows while it is written: the module, the names it binds
// at its top level (a builtin of the same name is then written "_builtins.str"), and the other
// host modules its annotations name (each imported under its alias, see module_alias).
class StubScope {
public:
    explicit StubScope(Module module) : module_(std::move(module)) {}

    const Module& module() const noexcept { return module_; }
    void declare(std::string_view name) { declared_.emplace(name); }
    bool declares(std::string_view name) const { return declared_.contains(std::string(name)); }
    void refer(std::string_view moduleName) { referenced_.emplace(moduleName); }
    const std::set<std::string>& referencedModules() const noexcept { return referenced_; }

private:
    Module module_;
    std::set<std::string> declared_;
    std::set<std::string> referenced_;
};

// Where an annotation is written: a stub, and within it the body of a class, whose members hide
// the builtins of the same name as the module's top-level names do.
struct AnnotationPlace {
    StubScope& stub;
    const std::set<std::string>* classMembers = nullptr;
};

// The registered module that publishes `cls` (declares it, lists it under its name, and is not
// internal), when Python code can reach the class by that name.
std::optional<Module> publishing_module(const Class_Generic& cls);

// The annotation of a host type as the Python type a script gets or may pass:
//   Boolean bool, Integer int, Float float, String str, ByteArray bytes, None None,
//   Date/Time/DateTime datetime's date/time/datetime, Decimal decimal.Decimal,
//   List, HashMap, Set and the mutable interfaces: MutableSequence, MutableMapping, MutableSet;
//   the other interfaces: Sequence, Mapping, Set (AbstractSet), Iterable, Iterator; tuples
//   tuple[...]; invokables Callable[..., Any]; the classes that a registered module publishes by
//   their names (the module's own bare, another's through its alias, which the stub then
//   imports); an error class that none publishes Exception; anything else Any. An optional type
//   is "T | None". Type arguments that the host leaves out are Any.
std::string typed_annotation(const Type& type, AnnotationPlace& place);

// A builtin name as the place must write it ("str", or "_builtins.str" where a member hides it).
std::string builtin_name(std::string_view name, const AnnotationPlace& place);

// How a place writes a class that a registered module publishes: "Row", "_tala.Logger".
std::string class_reference(const Class_Generic& cls, const Module& publisher, AnnotationPlace& place);

}  // namespace tala::python
