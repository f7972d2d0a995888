// python/pyside/documentation.cpp: host signatures as inspect.Signature objects, and the descriptions help() renders for host values.
#include "pyside/documentation.hpp"

#include "bridge/module_attribute.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "language/python_support.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

PyObject* text(std::string_view value) {
    return PyUnicode_DecodeUTF8(value.data(), static_cast<Py_ssize_t>(value.size()), "replace");
}

// The Python type a host class reads as in an annotation: Python's own for the classes whose
// values cross as Python data, else the host type's text ("List[Row]"). Null for Any (no
// annotation at all).
PyObjectPtr annotationOf(const Type& type) {
    const Class_Generic cls = type.toClass();
    if (type == Type::any() || cls == Type::any().toClass()) return PyObjectPtr();
    struct Builtin {
        Class_Generic (*hostClass)();
        PyTypeObject* pythonType;
    };
    static const Builtin builtins[] = {
        {&String::getClass, &PyUnicode_Type}, {&Integer::getClass, &PyLong_Type}, {&Float::getClass, &PyFloat_Type},
        {&Boolean::getClass, &PyBool_Type},   {&ByteArray::getClass, &PyBytes_Type},
    };
    if (!type.isOptional()) {
        for (const Builtin& builtin : builtins) {
            if (cls == builtin.hostClass()) return PyObjectPtr::borrow(reinterpret_cast<PyObject*>(builtin.pythonType));
        }
        if (cls == None::getClass()) return PyObjectPtr::borrow(Py_None);
        struct Standard {
            Class_Generic (*hostClass)();
            const char* module;
            const char* name;
        };
        static const Standard standards[] = {{&Decimal::getClass, "decimal", "Decimal"},
                                             {&Date::getClass, "datetime", "date"},
                                             {&Time::getClass, "datetime", "time"},
                                             {&DateTime::getClass, "datetime", "datetime"}};
        for (const Standard& standard : standards) {
            if (cls != standard.hostClass()) continue;
            if (PyObject* found = moduleAttribute(standard.module, standard.name)) return PyObjectPtr::borrow(found);
        }
    }
    std::string written(type.toString().view());
    for (char& c : written) {
        if (c == '<') c = '[';
        if (c == '>') c = ']';
    }
    return PyObjectPtr::steal(text(written));
}

// (name, optional, annotation) for each declared parameter, with "self" first when asked.
PyObjectPtr parameterList(const Signature& signature, bool withSelf) {
    PyObjectPtr list = PyObjectPtr::steal(PyList_New(0));
    if (!list) return list;
    auto add = [&](std::string_view name, bool optional, PyObject* annotation) {
        PyObjectPtr entry = PyObjectPtr::steal(
            Py_BuildValue("(NOO)", text(name), optional ? Py_True : Py_False, annotation != nullptr ? annotation : Py_Ellipsis));
        return entry && PyList_Append(list.get(), entry.get()) == 0;
    };
    if (withSelf && !add("self", false, nullptr)) return PyObjectPtr();
    for (const Parameter& parameter : signature.parameters()) {
        PyObjectPtr annotation = annotationOf(parameter.type);
        if (!add(parameter.name.view(), parameter.optional, annotation.get())) return PyObjectPtr();
    }
    return list;
}

PyObjectPtr signatureObject(const Signature& signature, bool withSelf, bool withResult) {
    PyObject* make = supportFunction("make_signature");
    if (make == nullptr) {
        PyErr_SetString(PyExc_RuntimeError, "The signature helper is not available.");
        return PyObjectPtr();
    }
    PyObjectPtr parameters = parameterList(signature, withSelf);
    if (!parameters) return PyObjectPtr();
    PyObjectPtr result = withResult ? annotationOf(signature.resultType()) : PyObjectPtr();
    return PyObjectPtr::steal(PyObject_CallFunctionObjArgs(make, parameters.get(), result ? result.get() : Py_Ellipsis, nullptr));
}

// ---- Descriptions for help() ---------------------------------------------------------------

// [(name, signature, doc)] of a class's public methods that are (or are not) independent of an
// instance.
PyObjectPtr methodList(const Class_Generic& cls, bool independent) {
    PyObjectPtr list = PyObjectPtr::steal(PyList_New(0));
    if (!list) return list;
    for (const auto& [name, member] : definedMethods(cls)) {
        if (name.startsWith("_")) continue;
        const I_Invokable_Generic method(internal::unchecked, member);
        if (method.isIndependent() != independent) continue;
        PyObjectPtr signature = signatureObject(method.signature(), !independent, true);
        if (!signature) return PyObjectPtr();
        PyObjectPtr entry = PyObjectPtr::steal(Py_BuildValue("(NON)", text(name.view()), signature.get(), text(method.doc().view())));
        if (!entry || PyList_Append(list.get(), entry.get()) < 0) return PyObjectPtr();
    }
    return list;
}

// [(name, annotation, doc, writable)] of a class's public properties.
PyObjectPtr propertyList(const Class_Generic& cls) {
    PyObjectPtr list = PyObjectPtr::steal(PyList_New(0));
    if (!list) return list;
    for (const auto& [name, member] : definedProperties(cls)) {
        if (name.startsWith("_")) continue;
        const Property property(internal::unchecked, member);
        PyObjectPtr annotation = annotationOf(property.getter().resultType());
        PyObjectPtr entry = PyObjectPtr::steal(Py_BuildValue("(NONO)", text(name.view()), annotation ? annotation.get() : Py_None,
                                                             text(property.doc().view()),
                                                             property.setter().isEmpty() ? Py_False : Py_True));
        if (!entry || PyList_Append(list.get(), entry.get()) < 0) return PyObjectPtr();
    }
    return list;
}

std::string moduleNameOf(const Class_Generic& cls) {
    if (auto module = Module::cast(cls.declaringContext())) return std::string(module->name().view());
    return std::string();
}

PyObject* describeClass(const char* kind, const Class_Generic& cls) {
    PyObjectPtr constructor = signatureObject(I_Invokable_Generic(internal::unchecked, cls).signature(), false, false);
    PyObjectPtr methods = methodList(cls, false);
    PyObjectPtr statics = methodList(cls, true);
    PyObjectPtr properties = propertyList(cls);
    if (!constructor || !methods || !statics || !properties) return nullptr;
    return Py_BuildValue("(sNNNOOOO)", kind, text(cls.name().view()), text(moduleNameOf(cls)), text(cls.doc().view()),
                         constructor.get(), methods.get(), statics.get(), properties.get());
}

PyObject* describeFunction(const I_Invokable_Generic& function) {
    PyObjectPtr signature = signatureObject(function.signature(), false, true);
    if (!signature) return nullptr;
    std::string module;
    if (auto found = Module::cast(declaring_context(class_of(function)))) module = found->name().view();
    return Py_BuildValue("(sNNNO[][][])", "function", text(function.name().view()), text(module), text(function.doc().view()),
                         signature.get());
}

PyObject* describe(PyObject*, PyObject* object) {
    GilGuard gil;
    const Any* wrapped = wrappedHostValue(object);
    if (wrapped == nullptr) Py_RETURN_NONE;
    const Any value = *wrapped;
    if (auto cls = Class_Generic::cast(value)) return describeClass("class", *cls);
    if (value.kind() == Kind::Function) return describeFunction(I_Invokable_Generic(internal::unchecked, value));
    return describeClass("object", class_of(value));
}

PyObject* describeSlot(PyObject* self, PyObject* object) noexcept {
    try {
        return describe(self, object);
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return nullptr;
    }
}

PyObject* isHostValue(PyObject*, PyObject* object) noexcept { return wrappedHostValue(object) != nullptr ? Py_True : Py_False; }

}  // namespace

PyObject* signatureOf(const I_Invokable_Generic& invokable) {
    // A class's signature is how it is called: its __init__'s parameters, no result.
    const bool isClass = Class_Generic::matches(invokable);
    return signatureObject(invokable.signature(), false, !isClass).release();
}

PyMethodDef* describeHostValueFunction() {
    static PyMethodDef definition{"describe_host_value", describeSlot, METH_O,
                                  "What help() shows of a wrapped host value, or None for any other object."};
    return &definition;
}

PyMethodDef* isHostValueFunction() {
    static PyMethodDef definition{"is_host_value", isHostValue, METH_O, "Whether the object is a wrapped host value."};
    return &definition;
}

}  // namespace tala::python
