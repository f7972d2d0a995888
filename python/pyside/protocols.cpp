// python/pyside/protocols.cpp: Python's protocols beyond the slots on wrapped host values: type tests of host classes, member names, copies, `with`.
#include <unordered_map>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "pyside/slot_guard.hpp"
#include "pyside/slots.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

PyObject* answer(bool yes) { return yes ? Py_True : Py_False; }  // immortal: no count taken

// The host class a wrapper stands for, or nothing when it wraps something else.
std::optional<Class_Generic> wrappedClass(PyObject* object) {
    const Any* wrapped = wrappedHostValue(object);
    if (wrapped == nullptr) return std::nullopt;
    return Class_Generic::cast(*wrapped);
}

// The host value a Python object is for the type tests: the wrapped value, or a copy of plain
// data (an int is an instance of the host's Integer). Anything else is an instance of no host
// class.
std::optional<Any> testedValue(PyObject* object) {
    if (const Any* wrapped = wrappedHostValue(object)) return *wrapped;
    if (PyLong_CheckExact(object) || PyFloat_CheckExact(object) || PyUnicode_CheckExact(object) || PyBool_Check(object) ||
        PyBytes_CheckExact(object) || object == Py_None) {
        Any value = fromPythonLocked(object);
        if (PyErr_Occurred() != nullptr) {
            PyErr_Clear();  // an int beyond 64 bits is no host value
            return std::nullopt;
        }
        return value;
    }
    return std::nullopt;
}

// isinstance(value, HostClass): the host class hierarchy decides.
PyObject* instanceCheck(PyObject* self, PyObject* instance) {
    GilGuard gil;
    auto cls = wrappedClass(self);
    if (!cls) {
        PyErr_SetString(PyExc_TypeError, "isinstance() arg 2 must be a type, a tuple of types, or a union");
        return nullptr;
    }
    auto value = testedValue(instance);
    return answer(value && class_of(*value).derivesFrom(*cls));
}

// issubclass(Class, HostClass): a host class, or a Python class the host sees as a class (an
// exception type made for a host error class is that class).
PyObject* subclassCheck(PyObject* self, PyObject* candidate) {
    GilGuard gil;
    auto cls = wrappedClass(self);
    if (!cls) {
        PyErr_SetString(PyExc_TypeError, "issubclass() arg 2 must be a class, a tuple of classes, or a union");
        return nullptr;
    }
    std::optional<Class_Generic> other = wrappedClass(candidate);
    if (!other && PyType_Check(candidate)) {
        other = Class_Generic::cast(fromPythonLocked(candidate));
        PyErr_Clear();
    }
    if (!other) {
        PyErr_SetString(PyExc_TypeError, "issubclass() arg 1 must be a class");
        return nullptr;
    }
    return answer(other->derivesFrom(*cls));
}

void appendName(PyObject* list, PyObject* seen, const String& name) {
    if (name.startsWith("_")) return;
    PyObjectPtr text = PyObjectPtr::steal(PyUnicode_DecodeUTF8(name.data(), static_cast<Py_ssize_t>(name.size()), "replace"));
    if (!text || PySet_Contains(seen, text.get()) != 0) {
        PyErr_Clear();
        return;
    }
    if (PySet_Add(seen, text.get()) == 0) PyList_Append(list, text.get());
    PyErr_Clear();
}

// dir(value): the host's public members, each once (the attribute `__dir__` itself answers the
// raw list, repeats and all).
PyObject* memberNames(PyObject* self, PyObject*) {
    GilGuard gil;
    PyObjectPtr list = PyObjectPtr::steal(PyList_New(0));
    PyObjectPtr seen = PyObjectPtr::steal(PySet_New(nullptr));
    if (!list || !seen) return nullptr;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) return list.release();
    const Any value = *wrapped;
    const Class_Generic cls = class_of(value);
    for (const auto& [name, member] : definedFields(cls)) appendName(list.get(), seen.get(), name);
    for (const auto& [name, member] : definedMethods(cls)) appendName(list.get(), seen.get(), name);
    for (const auto& [name, member] : definedProperties(cls)) appendName(list.get(), seen.get(), name);
    for (const auto& entry : own_methods_of(value)) appendName(list.get(), seen.get(), String::cast(entry.key).value_or(String()));
    for (const auto& entry : own_properties_of(value)) {
        appendName(list.get(), seen.get(), String::cast(entry.key).value_or(String()));
    }
    if (auto asClass = Class_Generic::cast(value)) {
        // A class's own members: its static methods and properties.
        for (const auto& [name, member] : definedMethods(*asClass)) appendName(list.get(), seen.get(), name);
        for (const auto& [name, member] : definedProperties(*asClass)) appendName(list.get(), seen.get(), name);
    }
    return list.release();
}

// ---- Copies --------------------------------------------------------------------------------

// The host's own containers copy as Python's do: a new container of the same class. Any other
// host value is a reference to something the host owns (a database, a module): a copy of the
// reference is the same object, as copy.copy of a module or a function is.
Any shallowCopy(const Any& value) {
    if (auto list = List_Generic::cast(value)) return list->copy();
    if (auto map = HashMap_Generic::cast(value)) return map->copy();
    if (auto set = Set_Generic::cast(value)) return set->copy();
    return value;
}

// A deep copy copies the containers inside too, each once (a container that holds itself
// holds its copy).
class DeepCopy {
public:
    Any copy(const Any& value) {
        if (value.kind() != Kind::List && value.kind() != Kind::HashMap && value.kind() != Kind::Set) return value;
        if (auto done = copies_.find(value.cell()); done != copies_.end()) return done->second;
        Any made = shallowCopy(value);
        copies_.emplace(value.cell(), made);
        if (auto list = List_Generic::cast(made)) {
            for (std::size_t index = 0; index < list->size(); ++index) (void)list->set(std::int64_t(index), copy((*list)[index]));
        } else if (auto map = HashMap_Generic::cast(made)) {
            for (const auto& entry : map->copy()) map->set(entry.key, copy(entry.value));
        }
        return made;
    }

private:
    std::unordered_map<const internal::Cell*, Any> copies_;
};

PyObject* shallowCopyMethod(PyObject* self, PyObject*) {
    GilGuard gil;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) return PyObjectPtr::borrow(self).release();
    const Any copied = shallowCopy(*wrapped);
    if (copied.isSame(*wrapped)) return PyObjectPtr::borrow(self).release();
    return toPythonLocked(copied);
}

PyObject* deepCopyMethod(PyObject* self, PyObject*) {
    GilGuard gil;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) return PyObjectPtr::borrow(self).release();
    DeepCopy copier;
    const Any copied = copier.copy(*wrapped);
    if (copied.isSame(*wrapped)) return PyObjectPtr::borrow(self).release();
    return toPythonLocked(copied);
}

// ---- `with` ----------------------------------------------------------------------------------

const Identifier kEnter{"$__enter__"};
const Identifier kExit{"$__exit__"};

Any callHostMethod(const Any& value, Identifier name, std::initializer_list<Any> arguments) {
    auto method = method_of(value, name);
    if (method.isEmpty()) return MissingMemberError(String("Unknown method '{}' in an object of class {}.")
                                                        .arg(String(name.text()), raw_class_of(value).qualname()));
    const I_Invokable_Generic invokable = method.as<I_Invokable_Generic>();
    std::vector<Any> all;
    all.reserve(arguments.size() + 1);
    if (!invokable.isIndependent()) all.push_back(value);
    all.insert(all.end(), arguments.begin(), arguments.end());
    if (!invokable.isBlocking()) return resolve(invokable.invokeWith(all));
    const GilReleased released;
    return resolve(invokable.invokeWith(all));
}

PyObject* enterMethod(PyObject* self, PyObject*) {
    GilGuard gil;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) return PyObjectPtr::borrow(self).release();
    const Any value = *wrapped;
    const Any entered = callHostMethod(value, kEnter, {});
    // `with db as same:` gives the very object when the host gives the value itself.
    if (entered.isSame(value)) return PyObjectPtr::borrow(self).release();
    return toPythonLocked(entered);
}

// __exit__(type, exception, traceback): the exception reaches the host as its error; the host's
// answer tells whether the exception is swallowed.
PyObject* exitMethod(PyObject* self, PyObject* const* arguments, Py_ssize_t count) {
    GilGuard gil;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) Py_RETURN_FALSE;
    if (count != 3) {
        PyErr_Format(PyExc_TypeError, "__exit__() takes 3 arguments but %zd were given", count);
        return nullptr;
    }
    const Any value = *wrapped;
    std::vector<Any> converted;
    for (Py_ssize_t index = 0; index < count; ++index) {
        // The traceback is Python's own business: the error carries its report.
        converted.push_back(index == 2 ? Any() : fromPythonLocked(arguments[index]));
        if (PyErr_Occurred() != nullptr) return nullptr;
    }
    const Any result = callHostMethod(value, kExit, {converted[0], converted[1], converted[2]});
    if (auto error = Error::cast(result)) {
        raise_host_error(*error);
        return nullptr;
    }
    return answer(result.kind() == Kind::Boolean && result.rawBoolean());
}

PyObject* instanceCheckSlot(PyObject* self, PyObject* instance) { return guarded<PyObject*>(nullptr, [&] { return instanceCheck(self, instance); }); }
PyObject* subclassCheckSlot(PyObject* self, PyObject* candidate) {
    return guarded<PyObject*>(nullptr, [&] { return subclassCheck(self, candidate); });
}
PyObject* memberNamesSlot(PyObject* self, PyObject* unused) { return guarded<PyObject*>(nullptr, [&] { return memberNames(self, unused); }); }
PyObject* shallowCopySlot(PyObject* self, PyObject* unused) { return guarded<PyObject*>(nullptr, [&] { return shallowCopyMethod(self, unused); }); }
PyObject* deepCopySlot(PyObject* self, PyObject* memo) { return guarded<PyObject*>(nullptr, [&] { return deepCopyMethod(self, memo); }); }
PyObject* enterSlot(PyObject* self, PyObject* unused) { return guarded<PyObject*>(nullptr, [&] { return enterMethod(self, unused); }); }
PyObject* exitSlot(PyObject* self, PyObject* const* arguments, Py_ssize_t count) {
    return guarded<PyObject*>(nullptr, [&] { return exitMethod(self, arguments, count); });
}

}  // namespace

PyMethodDef* commonMethods() {
    static PyMethodDef methods[] = {
        {"__instancecheck__", instanceCheckSlot, METH_O, "Whether the value is an instance of this host class."},
        {"__subclasscheck__", subclassCheckSlot, METH_O, "Whether the class derives from this host class."},
        {"__dir__", memberNamesSlot, METH_NOARGS, "The host value's public members."},
        {"__copy__", shallowCopySlot, METH_NOARGS,
         "A host list, map or set copies into a new one; any other host value is itself."},
        {"__deepcopy__", deepCopySlot, METH_O, "As __copy__, with the host containers inside copied too."},
        {nullptr, nullptr, 0, nullptr},
    };
    return methods;
}

void appendStatementMethods(std::vector<PyMethodDef>& methods, const Class_Generic& cls) {
    if (!definedMethod(cls, kEnter).isEmpty() && !definedMethod(cls, kExit).isEmpty()) {
        methods.push_back(PyMethodDef{"__enter__", enterSlot, METH_NOARGS, "Enters the host object's `with` block."});
        methods.push_back(PyMethodDef{"__exit__", fastCallFunction(exitSlot), METH_FASTCALL,
                                      "Leaves the host object's `with` block."});
    }
}

}  // namespace tala::python
