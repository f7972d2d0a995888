// python/proxies/python_type.cpp: host class views of Python types, one per type for the life of the process.
#include "proxies/python_type.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>
#include <unordered_map>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/module_attribute.hpp"
#include "bridge/to_python.hpp"
#include "extension/interpreters.hpp"
#include "functions/function_python.hpp"

namespace tala::python {

namespace {

using Box = Boxed<PyObject*>;

String docOf(PyObject* object) {
    PyObjectPtr doc = attributeOrNull(object, "__doc__");
    if (!doc || !PyUnicode_Check(doc.get())) return String();
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(doc.get(), &size);
    if (text == nullptr) {
        PyErr_Clear();
        return String();
    }
    return String(text, static_cast<std::size_t>(size));
}

// The message of an error whose class is a view of a Python exception class: the exception's
// arguments and notes, one per line.
Any exceptionMessage(const Any& self) {
    List<Any> items;
    for (const char* name : {"args", "__notes__"}) {
        auto property = property_of(self, std::string_view(name));
        if (property.isEmpty()) continue;
        Any value = property.as<Property>().get(self);
        if (I_Iterable_Generic::matches(value)) {
            Any iterator = I_Iterable_Generic(internal::unchecked, value).iter();
            for (Any item; I_Iterator_Generic::matches(iterator);) {
                item = I_Iterator_Generic(internal::unchecked, iterator).next();
                if (is_error_result(item)) break;
                items.append(item);
            }
        }
    }
    return String::join(items, "\n");
}

// A static or class method, read through the class so that it is bound as Python binds it (a
// class method to the class; a static method unwrapped), as a host function.
Any boundThroughClass(PyObject* type, PyObject* name) {
    PyObjectPtr bound = PyObjectPtr::steal(PyObject_GetAttr(type, name));
    if (!bound) {
        PyErr_Clear();
        return Any();
    }
    return FunctionPython::fromCallable(bound.get());
}

void describeMember(internal::ClassCell& cls, PyObject* type, PyObject* key, PyObject* value) {
    auto name = String::cast(from_python(key));
    PyErr_Clear();
    if (!name || name->isEmpty() || name->startsWith("_")) return;
    const Identifier id = Identifier::intern(name->view());
    if (PyType_Check(value)) {
        auto nested = classOfPythonType(value);
        if (auto nestedClass = nested.get<Class_Generic>()) cls.addProperty(id, Property::value(id, *nestedClass, docOf(value)));
    } else if (PyObject_TypeCheck(value, &PyClassMethod_Type) || PyObject_TypeCheck(value, &PyStaticMethod_Type)) {
        // Class methods are no callables of their own; both kinds are methods all the same.
        if (auto invokable = I_Invokable_Generic::cast(boundThroughClass(type, key))) cls.addMethod(id, *invokable);
    } else if (!PyCallable_Check(value)) {
        // A value the host cannot hold (an int beyond 64 bits) is kept as its error.
        cls.addProperty(id, Property::value(id, from_python_result(value), docOf(value)));
    } else {
        auto function = FunctionPython::fromCallable(value);
        if (auto invokable = I_Invokable_Generic::cast(function)) cls.addMethod(id, *invokable);
    }
    PyErr_Clear();
}

void describeMembers(internal::ClassCell& cls, PyObject* type) {
    // The type's own dictionary (a metaclass may answer `__dict__` with anything), copied so
    // that the walk holds its entries even if converting one changes the class.
    PyObjectPtr own = PyObjectPtr::steal(PyType_GetDict(reinterpret_cast<PyTypeObject*>(type)));
    PyObjectPtr dictionary = own ? PyObjectPtr::steal(PyDict_Copy(own.get())) : PyObjectPtr();
    if (!dictionary) {
        PyErr_Clear();
        return;
    }
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    while (PyDict_Next(dictionary.get(), &position, &key, &value)) describeMember(cls, type, key, value);
}

void inheritBaseMethods(internal::ClassCell& cls, PyObject* type) {
    PyObjectPtr bases = attributeOrNull(type, "__bases__");
    if (!bases) return;
    PyObjectPtr iterator = PyObjectPtr::steal(PyObject_GetIter(bases.get()));
    if (!iterator) {
        PyErr_Clear();
        return;
    }
    while (PyObjectPtr base = PyObjectPtr::steal(PyIter_Next(iterator.get()))) {
        auto baseClass = Class_Generic::cast(from_python(base.get()));
        if (!baseClass) continue;
        for (const auto& [name, method] : definedMethods(*baseClass)) {
            const Identifier id = Identifier::intern(name.view());
            if (cls.findMethod(id) == nullptr) cls.addMethod(id, method);
        }
    }
    PyErr_Clear();
}

Class_Generic buildClassView(const String& name, PyObject* type) {
    Py_IncRef(type);  // the class keeps the type for as long as the process lives
    ClassBuilder builder{name};
    Interpreter* owner = currentInterpreter();  // the type's: the view is made where the type lives
    builder.nativePayload(Box(type)).constructor([type, owner](std::span<const Any> arguments) -> Any {
        GilGuard gil(owner);
        PyObjectPtr tuple = PyObjectPtr::steal(PyTuple_New(static_cast<Py_ssize_t>(arguments.size())));
        for (std::size_t index = 0; index < arguments.size(); ++index) {
            PyObject* converted = to_python(arguments[index]);
            if (converted == nullptr) return fetch_python_error_or("Unable to convert an argument.");
            PyTuple_SET_ITEM(tuple.get(), static_cast<Py_ssize_t>(index), converted);
        }
        PyObjectPtr instance = PyObjectPtr::steal(PyObject_Call(type, tuple.get(), nullptr));
        if (!instance) return fetch_python_error_or("Unable to create the instance.");
        return from_python_result(instance.get());
    });
    builder.flags(class_flags::Invokable);
    if (PyType_FastSubclass(reinterpret_cast<PyTypeObject*>(type), Py_TPFLAGS_BASE_EXC_SUBCLASS)) {
        builder.parent(Error::getClass());
        builder.property(Property(Any::$$message, native_function([](const Any& self) { return exceptionMessage(self); },
                                                                  "message", {}, String(), false)));
    }
    Class_Generic cls = builder.build();
    auto* cell = const_cast<internal::ClassCell*>(cls.cell());
    cell->markForeignRuntime(owner);
    describeMembers(*cell, type);
    cell->doc = docOf(type);
    inheritBaseMethods(*cell, type);
    return cls;
}

}  // namespace

// The class views of one interpreter's Python types (its InterpreterState), and the host classes
// of the builtin types of plain data (what the conversion makes of their instances). Entries are
// never removed; each class view holds a reference to its type. `lock` guards the maps; views are
// built outside it, under the interpreter lock.
struct ClassViews {
    spinlock lock;
    std::unordered_map<PyObject*, const internal::ClassCell*> classes;
    // Classes made by a thread that lost the race to another: classes live for ever, so the
    // loser is kept here, reachable, instead of being lost.
    std::vector<const internal::ClassCell*> discarded;
    // Filled once, the first time a class is asked for.
    bool builtinsMade = false;
    std::unordered_map<PyObject*, const internal::ClassCell*> builtins;
};

namespace {

ClassViews& classViews() { return partHere(state().classViews); }

const std::unordered_map<PyObject*, const internal::ClassCell*>& builtinTable() {
    ClassViews& views = classViews();
    if (views.builtinsMade) return views.builtins;
    std::unordered_map<PyObject*, const internal::ClassCell*> built;
    auto add = [&](PyObject* type, const Class_Generic& cls) {
        if (type != nullptr) built.emplace(type, cls.cell());
    };
    add(reinterpret_cast<PyObject*>(&PyByteArray_Type), ByteArray::getClass());
    add(reinterpret_cast<PyObject*>(&PyBytes_Type), ByteArray::getClass());
    add(reinterpret_cast<PyObject*>(&PyMemoryView_Type), ByteArray::getClass());
    add(reinterpret_cast<PyObject*>(&PyFloat_Type), Float::getClass());
    add(reinterpret_cast<PyObject*>(&PyBool_Type), Boolean::getClass());
    add(reinterpret_cast<PyObject*>(&PyType_Type), Class_Generic::getClass());
    for (const auto& [module, name, cls] : {std::tuple{"datetime", "datetime", DateTime::getClass()},
                                            std::tuple{"datetime", "date", Date::getClass()},
                                            std::tuple{"datetime", "time", Time::getClass()},
                                            std::tuple{"decimal", "Decimal", Decimal::getClass()}}) {
        // An import may let another thread of this interpreter build the table too: both are
        // the same, and the first kept stays.
        PyObjectPtr imported = PyObjectPtr::steal(PyImport_ImportModule(module));
        if (!imported) {
            PyErr_Clear();
            continue;
        }
        add(PyDict_GetItemString(PyModule_GetDict(imported.get()), name), cls);
    }
    if (!views.builtinsMade) {
        views.builtins.swap(built);
        views.builtinsMade = true;
    }
    return views.builtins;
}

}  // namespace

object_value_python_type::object_value_python_type(const String& name, PyObjectPtr_Borrowed type)
    : View(internal::unchecked, buildClassView(name, type.get())) {}

bool object_value_python_type::matches(const Any& value) {
    return Class_Generic::matches(value) && Box::matches(Class_Generic(internal::unchecked, value).cell()->nativePayload);
}

PyObject* object_value_python_type::pythonType() const {
    return Box(internal::unchecked, Class_Generic(internal::unchecked, *this).cell()->nativePayload).value();
}

PyObject* pythonTypeOfClassView(const Class_Generic& cls) {
    if (!Box::matches(cls.cell()->nativePayload)) return nullptr;
    return Box(internal::unchecked, cls.cell()->nativePayload).value();
}

Union<Class_Generic, Error> classOfPythonType(PyObject* type) {
    if (type == nullptr || !PyType_Check(type)) return Error(String("Not a type."));
    GilGuard gil;
    if (auto found = builtinTable().find(type); found != builtinTable().end()) return Class_Generic(found->second);
    if (auto hostError = hostClassOfExceptionType(type)) return *hostError;
    ClassViews& views = classViews();
    {
        std::lock_guard lock(views.lock);
        if (auto found = views.classes.find(type); found != views.classes.end()) return Class_Generic(found->second);
    }
    // A type that refers to itself (a class attribute holding the class) is not built twice.
    thread_local std::vector<PyObject*> building;
    if (std::find(building.begin(), building.end(), type) != building.end()) {
        return Error(String("The class is being built."));
    }
    building.push_back(type);
    struct Done {
        ~Done() { building.pop_back(); }
    } done;
    std::string_view typeName = reinterpret_cast<PyTypeObject*>(type)->tp_name;
    if (const auto dot = typeName.rfind('.'); dot != std::string_view::npos) typeName.remove_prefix(dot + 1);
    const object_value_python_type made{String(typeName), PyObjectPtr_Borrowed(type)};
    std::lock_guard lock(views.lock);
    // Another thread may have made one meanwhile: the first stays, so each type has one class.
    const internal::ClassCell* madeCell = Class_Generic(internal::unchecked, made).cell();
    auto [entry, inserted] = views.classes.emplace(type, madeCell);
    if (!inserted) views.discarded.push_back(madeCell);
    return Class_Generic(entry->second);
}

}  // namespace tala::python
