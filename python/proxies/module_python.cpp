// python/proxies/module_python.cpp: ModulePython: a Python module's public classes and callables as a host module.
#include "proxies/module_python.hpp"

#include <mutex>
#include <utility>
#include <vector>

#include "bridge/from_python.hpp"
#include "bridge/module_attribute.hpp"
#include "extension/identifiers.hpp"
#include "extension/interpreters.hpp"
#include "extension/registration_hook.hpp"
#include "proxies/python_proxy.hpp"
#include "proxies/python_type.hpp"

namespace tala {

using python::GilGuard;
using python::PyObjectPtr;

namespace {

// One exported entry of the module's dictionary: a class or an invokable, under its key.
struct Export {
    Identifier name;
    String key;
    Any member;
    bool isClass;
};

// The exported entries, in the dictionary's order. The walk goes over a copy of the items, so
// that what the conversions run (a class view reads its type's members) cannot change the
// dictionary under it. Entries whose conversion fails are left out without a word.
std::vector<Export> exportsOf(PyObject* module) {
    std::vector<Export> exports;
    PyObject* dictionary = PyModule_Check(module) ? PyModule_GetDict(module) : nullptr;  // borrowed
    if (dictionary == nullptr) {
        PyErr_Clear();
        return exports;
    }
    PyObjectPtr items = PyObjectPtr::steal(PyDict_Items(dictionary));
    if (!items) {
        PyErr_Clear();
        return exports;
    }
    const Py_ssize_t count = PyList_Size(items.get());
    for (Py_ssize_t index = 0; index < count; ++index) {
        PyObject* pair = PyList_GetItem(items.get(), index);  // borrowed
        PyObject* key = PyTuple_GetItem(pair, 0);
        PyObject* value = PyTuple_GetItem(pair, 1);
        auto name = String::cast(python::fromPythonLocked(key));
        PyErr_Clear();
        // Private and dunder names (`_cache`, `__all__`, `__doc__`) are never exported.
        if (!name || name->isEmpty() || name->startsWith("_")) continue;
        const Identifier id = Identifier::intern(name->view());
        if (PyType_Check(value)) {
            auto cls = Class_Generic::cast(python::fromPythonLocked(value));
            PyErr_Clear();
            if (cls) exports.push_back(Export{id, *name, *cls, true});
        } else if (PyCallable_Check(value)) {
            auto invokable = I_Invokable_Generic::cast(python::fromPythonLocked(value));
            PyErr_Clear();
            if (invokable) exports.push_back(Export{id, *name, *invokable, false});
        }
        // Anything else (constants, sub-modules, data) is no member.
    }
    return exports;
}

String docOf(PyObject* module) {
    PyObjectPtr doc = python::attributeOrNull(module, "__doc__");
    if (!doc) return String();
    auto text = String::cast(python::fromPythonLocked(doc.get()));
    PyErr_Clear();
    return text.value_or(String());
}

// A class the module exports is declared in it when it is declared nowhere yet, as
// Module::addClass declares classes. Only views of Python classes are: the host classes that
// stand for Python's own types (Boolean for bool, Date for datetime.date, ...) belong to the
// host, and a module that exports such a type does not make them its own.
void declareIn(const Class_Generic& cls, const Module& module) {
    if (!python::object_value_python_type::matches(cls)) return;
    auto* cell = const_cast<internal::ClassCell*>(cls.cell());
    if (!cell->declaringContext.isEmpty()) return;
    cell->declaringContext = module;
    cell->qualname = String::join({module.name().view(), cell->name.view()}, ".");
}

// Without a class of its own, the exported members are the module value's own: inserted into
// the one object as the object model inserts members, not through the proxy's insertion (which
// would set attributes of the Python module) nor Module::setValue (which would give them to the
// class that every such module shares).
void insertOwnMember(const Module& module, Identifier name, const Any& member) {
    internal::OwnMembers& own = module.cell()->ensureOwnMembers();
    std::lock_guard lock(own.lock);
    own.properties.push_back(internal::MemberDef{name, Property::value(name, member)});
}

// The classes made for single modules. The object model never frees a class; kept here, they
// stay reachable for as long as they exist, also after their module has gone. Entries are never
// removed; `mutex` guards the list and is never held while Python runs.
struct OwnClasses {
    std::mutex mutex;
    std::vector<Class_Generic> classes;
};

Class_Generic keptForGood(const Class_Generic& cls) {
    static auto* own = new OwnClasses();
    std::lock_guard lock(own->mutex);
    own->classes.push_back(cls);
    return cls;
}

Any makeModule(const String& name, PyObject* object, bool ownClass) {
    GilGuard gil;
    const std::vector<Export> exports = exportsOf(object);
    Class_Generic moduleClass = ModulePython::getClass();
    if (ownClass) {
        // The class properties go in while the class is described: added to a published class,
        // each would make every class rebuild its member tables.
        ClassBuilder builder{String("Module")};
        builder.parent(moduleClass).flags(class_flags::MembersFirst);
        for (const Export& entry : exports) builder.classProperty(entry.name, entry.member);
        moduleClass = keptForGood(builder.build());
    }
    const Module module = Module::makeUnregistered(name, moduleClass);
    Py_IncRef(object);
    (void)module.setFieldValue(python::$_pyobj, Boxed<PyObject*>(object));
    python::markOwnedHere(module);
    HashMap<String, Class_Generic> classes;
    HashMap<String, I_Invokable_Generic> functions;
    for (const Export& entry : exports) {
        if (!ownClass) insertOwnMember(module, entry.name, entry.member);
        if (entry.isClass) {
            const Class_Generic cls(internal::unchecked, entry.member);
            declareIn(cls, module);
            classes.set(entry.key, cls);
        } else {
            functions.set(entry.key, I_Invokable_Generic(internal::unchecked, entry.member));
        }
    }
    const String doc = docOf(object);
    internal::ModuleCell* cell = module.cell();
    std::lock_guard lock(cell->mutex);
    cell->doc = doc;
    cell->classes = std::move(classes);
    cell->functions = std::move(functions);
    return module;
}

}  // namespace

ModulePython::ModulePython(const String& name, python::PyObjectPtr_Borrowed module, bool ownClass)
    : Module(internal::unchecked, makeModule(name, module.get(), ownClass)) {}

bool ModulePython::matches(const Any& value) { return Module::matches(value) && internal::is_instance_of(value, getClass()); }

std::optional<ModulePython> ModulePython::cast(const Any& value) {
    if (!matches(value)) return std::nullopt;
    return ModulePython(internal::unchecked, value);
}

Class_Generic ModulePython::getClass() {
    static const ClassRegistration registration("ModulePython", [] {
        python::testing::runRegistrationHook("ModulePython");
        const Class_Generic cls =
            ClassBuilder("ModulePython")
                .doc("Class to export a python module.")
                .flags(class_flags::MembersFirst)
                .parent(Module::getClass())
                .parent(python::PythonProxy::getClass())
                // Member look-up is the proxy's: the module's own members first, then the Python
                // module's attributes. Declared here too, as this class's own entry.
                .abstractMethod(Any::$__property__,
                                Signature({Parameter{String("name"), String::getType()}}, Type(Property::getClass()).asOptional()))
                .build();
        Module::create("tala.python").addClass(cls);
        return cls;
    });
    return registration.get();
}

}  // namespace tala
