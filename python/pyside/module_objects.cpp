// python/pyside/module_objects.cpp: one Python object per registered host module, and the attributes Python's import system keeps on it.
#include "pyside/module_objects.hpp"

#include <array>
#include <string>
#include <unordered_map>

#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

// What Python keeps of one registered host module: its object, and the import attributes set
// on it (a dict, made on the first write).
struct ModuleObject {
    PyObject* object = nullptr;
    PyObject* importAttributes = nullptr;
};

// Registered module -> its Python object, one table per interpreter (its InterpreterState).
// Modules are never unregistered, so entries are never removed: the table holds one reference to
// each object and dict for the life of the interpreter. `lock` guards the map; the objects and
// dicts are read and changed under the interpreter lock.
struct ModuleObjects {
    spinlock lock;
    std::unordered_map<const internal::ModuleCell*, ModuleObject> entries;
};

namespace {

ModuleObjects& moduleObjects() { return partHere(state().moduleObjects); }

constexpr std::array<std::string_view, 6> kImportAttributes = {"__spec__",    "__loader__", "__package__",
                                                               "__path__",    "__file__",   "__cached__"};

bool isImportAttribute(std::string_view name) {
    for (std::string_view attribute : kImportAttributes) {
        if (attribute == name) return true;
    }
    return false;
}

bool isRegistered(const Module& module) {
    const std::optional<Module> found = Module::find(module.name().view());
    return found && found->cell() == module.cell();
}

// The entry of a module whose object was made, or null. Interpreter lock held.
ModuleObject* entryOf(const Module& module) {
    ModuleObjects& table = moduleObjects();
    const std::unique_lock<spinlock> lock = lockReleasingGil(table.lock);
    auto found = table.entries.find(module.cell());
    return found == table.entries.end() ? nullptr : &found->second;
}

int writeImportAttribute(ModuleObject& entry, PyObject* name, PyObject* newValue) {
    if (entry.importAttributes == nullptr) {
        if (newValue == nullptr) {
            PyErr_SetObject(PyExc_AttributeError, name);
            return -1;
        }
        entry.importAttributes = PyDict_New();
        if (entry.importAttributes == nullptr) return -1;
    }
    if (newValue != nullptr) return PyDict_SetItem(entry.importAttributes, name, newValue);
    if (PyDict_DelItem(entry.importAttributes, name) == 0) return 0;
    if (PyErr_ExceptionMatches(PyExc_KeyError)) {
        PyErr_Clear();
        PyErr_SetObject(PyExc_AttributeError, name);
    }
    return -1;
}

// Setting `__name__` to the module's own name changes nothing; any other value would make the
// module something it is not.
int writeName(const Module& module, PyObject* newValue) {
    if (newValue != nullptr && PyUnicode_Check(newValue)) {
        const String name = module.name();
        PyObjectPtr own = PyObjectPtr::steal(PyUnicode_FromStringAndSize(name.data(), static_cast<Py_ssize_t>(name.size())));
        if (!own) return -1;
        const int same = PyUnicode_Compare(own.get(), newValue);
        if (same == 0) return 0;
        if (PyErr_Occurred() != nullptr) return -1;
    }
    PyErr_Format(PyExc_AttributeError, "The name of the host module %s cannot be changed.", module.name().c_str());
    return -1;
}

// True when `newValue` is the object of the very host module that the member `name` holds.
bool holdsAlready(const Module& module, std::string_view name, PyObject* newValue) {
    const Any* wrapped = wrappedHostValue(newValue);
    if (wrapped == nullptr || !Module::matches(*wrapped)) return false;
    auto property = property_of(module, name);
    if (property.isEmpty()) return false;
    const Any current = resolve(property.as<Property>().get(module));
    return Module::matches(current) && Module(internal::unchecked, current).cell() == Module(internal::unchecked, *wrapped).cell();
}

}  // namespace

PyObject* hostModuleObject(const Module& module) {
    if (!isRegistered(module)) return wrapHostValueLocked(module);
    if (ModuleObject* entry = entryOf(module)) {
        Py_IncRef(entry->object);
        return entry->object;
    }
    // Making the wrapper may build its type, which may let other threads in: whichever thread
    // stores its object first wins, and the other drops its own.
    PyObjectPtr made = PyObjectPtr::steal(wrapHostValueLocked(module));
    if (!made) return nullptr;
    ModuleObjects& table = moduleObjects();
    const std::unique_lock<spinlock> lock = lockReleasingGil(table.lock);
    auto [entry, inserted] = table.entries.try_emplace(module.cell(), ModuleObject{made.get(), nullptr});
    if (inserted) (void)made.release();  // the table's reference
    Py_IncRef(entry->second.object);
    return entry->second.object;
}

PyObject* readModuleImportAttribute(const Any& value, std::string_view name) {
    if (!isImportAttribute(name) || !Module::matches(value)) return nullptr;
    ModuleObject* entry = entryOf(Module(internal::unchecked, value));
    if (entry == nullptr || entry->importAttributes == nullptr) return nullptr;
    PyObject* found = PyDict_GetItemString(entry->importAttributes, std::string(name).c_str());  // borrowed
    if (found == nullptr) return nullptr;
    Py_IncRef(found);
    return found;
}

std::optional<int> writeModuleAttribute(const Any& value, PyObject* name, std::string_view text, PyObject* newValue) {
    if (!Module::matches(value)) return std::nullopt;
    const Module module(internal::unchecked, value);
    ModuleObject* entry = entryOf(module);
    if (entry == nullptr) return std::nullopt;  // not a registered module's object
    if (isImportAttribute(text)) return writeImportAttribute(*entry, name, newValue);
    if (text == "__name__") return writeName(module, newValue);
    if (newValue != nullptr && holdsAlready(module, text, newValue)) return 0;
    return std::nullopt;
}

}  // namespace tala::python
