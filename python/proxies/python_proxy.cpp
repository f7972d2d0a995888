// python/proxies/python_proxy.cpp: the generic host proxy of a Python object and its reflective methods.
#include "proxies/python_proxy.hpp"

#include <atomic>
#include <mutex>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/module_attribute.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "extension/identifiers.hpp"
#include "functions/function_python.hpp"
#include "pyside/cycles.hpp"

namespace tala::python {

namespace {

using Box = Boxed<PyObject*>;

// Gives the proxy's reference back when the proxy goes: under its interpreter's lock, which a
// thread running elsewhere leaves to the next thread that enters it (isolated layout).
void releaseObject(const Any& self) {
    PyObject* object = pyobjectOf(self);
    if (object != nullptr) releaseIn(ownerOf(self), object);
}

Union<I_Invokable_Generic, None> methodLookup(const Any& self, const String& name) {
    if (auto own = raw_method_of(self, name.view()); !own.isEmpty()) return own;
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return None();
    PyObjectPtr attribute = attributeOrNull(object, name.c_str());
    if (!attribute) return None();
    Any converted = from_python(attribute.get());
    PyErr_Clear();
    if (auto invokable = I_Invokable_Generic::cast(converted)) return *invokable;
    return None();
}

// A Python accessor function used as a host getter or setter: it takes the receiver first, as
// the Python function takes `self`.
I_Invokable_Generic receiverTaking(const I_Invokable_Generic& function) {
    return make_function(
        function.name(), [function](std::span<const Any> arguments) { return function.invokeWith(arguments); },
        function.signature(), false, function.doc());
}

Union<Property, None> propertyFromPythonProperty(PyObject* pythonProperty, Identifier id) {
    PyObjectPtr fget = attributeOrNull(pythonProperty, "fget");
    auto getter = I_Invokable_Generic::cast(from_python(fget.get()));
    PyErr_Clear();
    if (!fget || !getter) return None();
    PyObjectPtr fset = attributeOrNull(pythonProperty, "fset");
    auto setter = I_Invokable_Generic::cast(from_python(fset.get()));
    PyErr_Clear();
    if (setter && setter->resultType().specializes(None::getType())) {
        return Property(id, receiverTaking(*getter), receiverTaking(*setter));
    }
    return Property(id, receiverTaking(*getter));
}

Union<Property, None> propertyLookup(const Any& self, const String& name) {
    if (auto own = raw_property_of(self, name.view()); !own.isEmpty()) return own;
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return None();
    PyObjectPtr attribute = attributeOrNull(object, name.c_str());
    if (!attribute) return None();
    const Identifier id = Identifier::intern(name.view());
    if (PyObject_TypeCheck(attribute.get(), &PyProperty_Type)) {
        auto property = propertyFromPythonProperty(attribute.get(), id);
        if (!property.isEmpty()) return property;
    }
    // Any other attribute: a value property holding the value as it is now, or the error of a
    // value the host cannot hold (an int beyond 64 bits), which reading the property gives.
    return Property::value(id, from_python_result(attribute.get()));
}

Any setPythonAttribute(PyObject* object, const ByteArray& name, const Any& value) {
    PyObjectPtr converted = PyObjectPtr::steal(to_python(value));
    if (!converted) return fetch_python_error_or("Unable to convert the value.");
    const std::string attributeName(name.view());
    if (PyObject_SetAttrString(object, attributeName.c_str(), converted.get()) < 0) {
        return fetch_python_error_or("Unable to set the attribute.");
    }
    return None();
}

Union<None, Lazy<None>, Error> insertProperty(const Any& self, const ByteArray& name, const Property& property) {
    const I_Invokable_Generic getter = property.getter();
    if (getter.functionKind() != FunctionKind::Constant) {
        return Error(String("Unable to insert non-value property to a python object, use 'raw_insert_property' instead."));
    }
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return Error(String("The object is null."));
    Any result = setPythonAttribute(object, name, getter.constantValue());
    if (auto error = Error::cast(result)) return *error;
    return None();
}

Union<None, Lazy<None>, Error> insertMethod(const Any& self, const ByteArray& name, const I_Invokable_Generic& method) {
    I_Invokable_Generic stored = method;
    if (!method.isIndependent() && method.parameterCount() != 0) stored = method.bindArgs(self);
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return Error(String("The object is null."));
    Any result = setPythonAttribute(object, name, stored);
    if (auto error = Error::cast(result)) return *error;
    return None();
}

Union<String, Lazy<String>, Error> displayProxy(const Any& self) {
    Any text = resolve(callPythonMethod(self, String("__str__"), {}));
    if (auto error = Error::cast(text)) return *error;
    if (auto asString = String::cast(text)) return *asString;
    // Displaying whatever came back could call this again without end (a `__str__` that
    // returns its own object): refused, as Python's str() refuses it.
    GilGuard gil(ownerOf(self));
    PyObjectPtr returned = PyObjectPtr::steal(toPythonLocked(text));  // back to what Python gave
    PyErr_Clear();
    PyErr_Format(PyExc_TypeError, "__str__ returned non-string (type %.200s)",
                 returned ? Py_TYPE(returned.get())->tp_name : "unknown");
    return fetch_python_error_or("__str__ returned non-string");
}

// The comparison helper, compiled once per interpreter (in the one the caller runs in) and kept
// there for its life.
PyObject* compareHelper() {
    InterpreterState& here = state();
    return keptHere(here.compareHelper, here.compareHelperTried, [] {
        const Any function = FunctionPython::fromSource(String(
            "def cmp(a, b):\n    if a > b:\n        return 1\n    else:\n        if a < b:\n            return -1\n    return 0"));
        PyObject* callable = pythonCallableOf(function);
        if (callable != nullptr) Py_IncRef(callable);
        return callable;
    });
}

std::int64_t identityDifference(const Any& a, const Any& b) {
    return static_cast<std::int64_t>(object_id(a) - object_id(b));
}

Union<Integer, Lazy<Integer>, Error> compareProxy(const Any& self, const Any& other) {
    if (internal::cast_object(other, PythonProxy::getClass()).isEmpty()) return Integer(identityDifference(self, other));
    // Objects of two interpreters are two objects: neither can be shown to the other.
    if (ownerOf(self) != ownerOf(other)) return Integer(identityDifference(self, other));
    GilGuard gil(ownerOf(self));
    PyObject* mine = pyobjectOf(self);
    PyObject* theirs = pyobjectOf(other);
    if (mine == nullptr || theirs == nullptr) return Integer(identityDifference(self, other));
    if (mine == theirs) return Integer(0);
    if (richcmpfunc compare = Py_TYPE(mine)->tp_richcompare) {
        static constexpr std::pair<int, std::int64_t> kOrder[] = {{Py_LT, -1}, {Py_GT, 1}, {Py_EQ, 0}};
        for (const auto& [operation, answer] : kOrder) {
            PyObject* result = compare(mine, theirs, operation);
            if (result == Py_True) return Integer(answer);
            if (result != nullptr) {
                Py_DecRef(result);
            } else {
                PyErr_Clear();  // the next comparison must not run with an exception set
            }
        }
    }
    PyErr_Clear();
    PyObject* helper = compareHelper();
    PyObjectPtr result = PyObjectPtr::steal(helper == nullptr ? nullptr : PyObject_CallFunctionObjArgs(helper, mine, theirs, nullptr));
    if (!result) {
        (void)fetch_python_error();
        return Error(String("Unable to call helper function."));
    }
    Any converted = from_python(result.get());
    PyErr_Clear();
    if (converted.kind() == Kind::Integer) return Integer(converted.rawInteger());
    return Error(String("Unable to call helper function."));
}

}  // namespace

bool PythonProxy::matches(const Any& value) { return internal::is_instance_of(value, getClass()); }

namespace {

// The field `_pyobj` of a proxy's cell, read in place, or null when the class has none.
const Any* pyobjectField(const internal::ObjectCell& object) {
    if (object.objectClass() == nullptr) return nullptr;
    const std::int64_t slot = object.objectClass()->fieldSlot($_pyobj);
    if (slot < 0 || static_cast<std::size_t>(slot) >= object.fieldCount()) return nullptr;
    return &object.fieldSlots()[slot];
}

// The cell of the proxies made here. The object in its box is the proxy's own reference (its
// finalizer gives it back), which the cell reports to Python's cycle collector. The field's slot
// is found once, so that a collection never rebuilds a class's tables; a lazy field is not
// resolved for it either, since resolving runs code.
class PythonProxyCell final : public internal::ObjectCell {
public:
    explicit PythonProxyCell(const internal::ClassCell* cls) : ObjectCell(cls), field_(pyobjectField(*this)) {}
    void visitChildren(ChildVisitor& visitor) const noexcept override {
        ObjectCell::visitChildren(visitor);
        if (field_ != nullptr && Box::matches(*field_)) {
            visitor.foreign(pythonHeapTag(static_cast<const Interpreter*>(foreignRuntime())), field_->cellAs<Box::Cell>()->value_);
        }
    }

private:
    const Any* field_;  // into this cell's own fields, which never move
};

}  // namespace

PyObject* pyobjectOf(const Any& proxy) {
    // Read in place (every proxy operation starts here): no copy of the box, so no shared count moves.
    const internal::ObjectCell* object = internal::objectCellOf(proxy);
    const Any* found = object == nullptr ? nullptr : pyobjectField(*object);
    if (found == nullptr) return nullptr;
    const Any& field = *found;
    if (Box::matches(field)) return field.cellAs<Box::Cell>()->value_;
    if (field.kind() != Kind::Lazy) return nullptr;
    const Any stored = resolve(field);
    if (!Box::matches(stored)) return nullptr;
    return Box(internal::unchecked, stored).value();
}

PyObject* pythonObjectOfProxy(const Any& value) {
    if (!PythonProxy::matches(value)) return nullptr;
    return pyobjectOf(value);
}

Any makeProxyOf(const Class_Generic& cls, PyObject* object) {
    Py_IncRef(object);
    Any proxy = Any::adopt(Kind::Object, new PythonProxyCell(cls.cell()));
    (void)proxy.setFieldValue($_pyobj, Box(object));
    markOwnedHere(proxy);  // the caller runs in the object's interpreter
    return proxy;
}

Any makePythonProxy(PyObject* object) { return makeProxyOf(PythonProxy::getClass(), object); }

Union<Any, Lazy<Any>, Error> callPythonMethod(const Any& self, const String& name, const std::vector<Any>& arguments) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return Error(String("The object is null."));
    PyObjectPtr method = attributeOrNull(object, name.c_str());
    if (!method || !PyCallable_Check(method.get())) {
        return Error(String("The method is missing: {}, target object: {}.").arg(name, display(self)));
    }
    PyObjectPtr tuple = PyObjectPtr::steal(PyTuple_New(static_cast<Py_ssize_t>(arguments.size())));
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        PyObject* converted = toPythonLocked(arguments[index]);
        if (converted == nullptr) {
            if (PyErr_Occurred() != nullptr) return fetch_python_error_or("");
            return Error(String("Unable to convert an argument: {}.").arg(display(arguments[index])));
        }
        PyTuple_SET_ITEM(tuple.get(), static_cast<Py_ssize_t>(index), converted);
    }
    PyObjectPtr result = PyObjectPtr::steal(PyObject_Call(method.get(), tuple.get(), nullptr));
    if (!result) return fetch_python_error_or("The Python call failed.");
    return from_python_result(result.get());
}

namespace {

// `type(object).__name__`: what Python calls the object's type in its own messages.
String typeNameOfProxy(const PythonProxy& self) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return String("NoneType");
    PyObjectPtr name = PyObjectPtr::steal(PyType_GetName(Py_TYPE(object)));
    Py_ssize_t size = 0;
    const char* text = name ? PyUnicode_AsUTF8AndSize(name.get(), &size) : nullptr;
    if (text == nullptr) {
        PyErr_Clear();
        return String(Py_TYPE(object)->tp_name);
    }
    return String(text, static_cast<std::size_t>(size));
}

}  // namespace

Class_Generic PythonProxy::getClass() {
    static const ClassRegistration registration("PythonProxy", [] {
        auto removeNothing = [](const PythonProxy&, const ByteArray&) -> Union<Boolean, Lazy<Boolean>, Error> {
            return Boolean(false);
        };
        // The look-ups ask the class's own members first anyway (see methodLookup), so the
        // object model may answer those without calling them.
        const Class_Generic cls = ClassBuilder("PythonProxy")
            .doc("Proxy wrapper around of 'PyObject'.")
            .flags(class_flags::MembersFirst)
            .parent(I_RuntimeOnly::getClass())
            .field($_pyobj)
            .finalizer(releaseObject)
            .method(Any::$__removeProperty__, removeNothing, {"name"})
            .method(Any::$__removeMethod__, removeNothing, {"name"})
            .method(Any::$__property__, [](const PythonProxy& self, const String& name) { return propertyLookup(self, name); },
                    {"name"})
            .method(Any::$__ownProperty__, [](const PythonProxy& self, const String& name) { return propertyLookup(self, name); },
                    {"name"})
            .method(Any::$__ownProperties__, [](const PythonProxy&) { return HashMap<String, Property>(); })
            .method(Any::$__ownMethods__, [](const PythonProxy&) { return HashMap<String, I_Invokable_Generic>(); })
            .method(Any::$__ownMethod__, [](const PythonProxy& self, const String& name) { return methodLookup(self, name); },
                    {"name"})
            .method(Any::$__method__, [](const PythonProxy& self, const String& name) { return methodLookup(self, name); },
                    {"name"})
            .method(Any::$__insertProperty__, [](const PythonProxy& self, const ByteArray& name, const Property& property) {
                return insertProperty(self, name, property);
            }, {"name", "property"})
            .method(Any::$__insertMethod__, [](const PythonProxy& self, const ByteArray& name, const I_Invokable_Generic& method) {
                return insertMethod(self, name, method);
            }, {"name", "method"})
            .method(Any::$__display__, [](const PythonProxy& self) { return displayProxy(self); })
            .method(Any::$__compare__, [](const PythonProxy& self, const Any& other) { return compareProxy(self, other); },
                    {"other"})
            .method(Any::$__typeName__, [](const PythonProxy& self) { return typeNameOfProxy(self); }, {},
                    "The name of the Python object's type, for messages about it.")
            .build();
        Module::create("tala.python").addClass(cls);
        return cls;
    });
    return registration.get();
}

}  // namespace tala::python
