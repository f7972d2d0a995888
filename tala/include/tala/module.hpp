// tala/module.hpp: modules, the registry of modules, and the process-wide globals.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "tala/class.hpp"
#include "tala/containers.hpp"
#include "tala/invokable.hpp"

namespace tala {

namespace internal {
// A module is the one instance of a class of its own, derived from Module's class: its
// functions, classes, child modules and other members are properties of that class, so they
// are found by the ordinary member look-up and cannot be replaced through the module value.
class ModuleCell final : public ObjectCell {
public:
    ModuleCell(const ClassCell* moduleClass, String name, String doc);
    const String name;
    mutable std::mutex mutex;  // guards doc, classes, functions and lazyModules
    String doc;
    HashMap<String, Class_Generic> classes;
    HashMap<String, I_Invokable_Generic> functions;
    std::vector<String> lazyModules;  // full names, in the order they were first declared
};
}  // namespace internal

// A module: a name (dotted for children: "tala.python"), documentation, and its classes and
// functions. Classes, functions and child modules are also properties that the module's own
// class defines, so the ordinary member look-up finds them (`tala.get_logger`, `tala.python`),
// and they are read-only members of the module value.
class Module : public internal::View<Module> {
public:
    using View::View;
    static bool matches(const Any& value) noexcept;

    // The registered module of that name, created (and registered, after its parent if the
    // parent exists) when there is none yet.
    static Module create(std::string_view name, String doc = String());
    static std::optional<Module> find(std::string_view name);
    // A module whose class is `moduleClass` (a class derived from Module's, which holds what
    // addClass, addFunction, addProperty and setValue add, so give each module a class of its
    // own), kept out of the registry: a language bridge makes such modules for the modules of its
    // language, and the host reaches them as members of a registered module rather than by name.
    static Module makeUnregistered(String name, const Class_Generic& moduleClass, String doc = String());

    String name() const;
    String doc() const;
    void setDoc(String doc) const;
    HashMap<String, Class_Generic> classes() const;
    HashMap<String, I_Invokable_Generic> functions() const;

    // Adds a class (declared in this module when it has no declaring context yet) or a function.
    void addClass(const Class_Generic& cls) const;
    void addFunction(String name, const I_Invokable_Generic& function) const;
    // Adds a property computed on each read, or a value property.
    void addProperty(const Property& property) const;
    void setValue(Identifier name, Any value) const;

    // Declares the child module `name` without making it: the member named after what follows
    // this module's name and "." (the whole name when it does not begin so) is a property that
    // calls `make` on each read, so nothing is made or loaded before someone reads it. A maker
    // that must answer the same module every time keeps what it made. Declaring a name again
    // replaces its maker.
    void addLazyModule(String name, std::function<Any()> make) const;
    // The names given to addLazyModule, in the order they were first declared.
    std::vector<String> lazyModuleNames() const;

    // Marker properties read by language bridges: an internal module is hidden from scripts;
    // an inlined module's classes and functions are visible by their own names.
    void markInternal() const;
    void markInlined() const;
    bool isInternal() const;
    bool isInlined() const;

    internal::ModuleCell* cell() const noexcept { return cellAs<internal::ModuleCell>(); }
    static Class_Generic getClass();
};

// Every registered module, in registration order.
std::vector<Module> modules();
// A count that changes whenever a module is registered or any module's members or markers
// change: whoever keeps something made from the modules rebuilds it when the count moved.
std::uint64_t modules_generation() noexcept;
// The process-wide globals map.
HashMap<String, Any> globals();

}  // namespace tala
