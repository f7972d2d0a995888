// python/proxies/collection_proxies.cpp: proxies of Python iterables, iterators, dicts, sequences and sets.
#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "proxies/python_proxy.hpp"

namespace tala::python {

namespace {

using Result = Union<Any, Lazy<Any>, Error>;

Any call(const Any& self, const char* name, std::vector<Any> arguments = {}) {
    return resolve(callPythonMethod(self, String(name), arguments));
}

template <class T>
Union<T, Lazy<T>, Error> typed(const Any& result, const char* expected) {
    if (auto error = Error::cast(result)) return *error;
    if (auto value = T::cast(result)) return *value;
    return Error(String("The Python method did not return {}: {}.").arg(String(expected), display(result)));
}

Union<None, Lazy<None>, Error> nothing(const Any& result) {
    if (auto error = Error::cast(result)) return *error;
    return None();
}

// keys() / values() of a mapping, as a host list.
Union<List<Any>, Lazy<List<Any>>, Error> listOf(const Any& self, const char* method) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return Error(String("The object is null."));
    PyObjectPtr view = PyObjectPtr::steal(PyObject_CallMethod(object, method, nullptr));
    if (!view) return fetch_python_error_or("Unknown error.");
    List<Any> items;
    PyObjectPtr iterator = PyObjectPtr::steal(PyObject_GetIter(view.get()));
    if (!iterator) {
        PyErr_Clear();
        return items;
    }
    while (PyObjectPtr item = PyObjectPtr::steal(PyIter_Next(iterator.get()))) {
        items.append(from_python(item.get()));
        // An item that did not convert (an int beyond 64 bits) ends the walk with its error.
        if (PyErr_Occurred() != nullptr) break;
    }
    if (PyErr_Occurred() != nullptr) return fetch_python_error_or("Unknown error.");
    return items;
}

// ---- Python's own containers -------------------------------------------------------------------
//
// An object whose type is exactly list, tuple, dict or set (not a subclass, which may override
// any method) is read through the C API: the same answers as its methods give, without looking a
// method up by name and calling it.

bool isExactSequence(PyObject* object) { return PyList_CheckExact(object) || PyTuple_CheckExact(object); }
bool isExactContainer(PyObject* object) {
    return isExactSequence(object) || PyDict_CheckExact(object) || PySet_CheckExact(object);
}

// The item at `index` (negative from the end) of an exact list or tuple, or the IndexError
// that its __getitem__ raises.
Any itemOfSequence(PyObject* sequence, std::int64_t index) {
    const bool list = PyList_CheckExact(sequence);
    const Py_ssize_t size = list ? PyList_GET_SIZE(sequence) : PyTuple_GET_SIZE(sequence);
    if (index < 0) index += size;
    if (index < 0 || index >= size) {
        PyErr_SetString(PyExc_IndexError, list ? "list index out of range" : "tuple index out of range");
        return fetch_python_error_or("Index out of range.");
    }
    // Held while it converts: converting may run Python code that changes the list.
    PyObjectPtr item = PyObjectPtr::borrow(list ? PyList_GET_ITEM(sequence, index) : PyTuple_GET_ITEM(sequence, index));
    return fromPythonResultLocked(item.get());
}

// The value of `key` in an exact dict: `fallback`, or the KeyError of a missing key.
Any valueOfDict(PyObject* dictionary, const Any& key, const std::optional<Any>& fallback) {
    PyObjectPtr pythonKey = PyObjectPtr::steal(toPythonLocked(key));
    if (!pythonKey) return fetch_python_error_or("Unable to convert an argument.");
    PyObjectPtr value = PyObjectPtr::borrow(PyDict_GetItemWithError(dictionary, pythonKey.get()));
    if (value) return from_python_result(value.get());
    if (PyErr_Occurred() != nullptr) return fetch_python_error_or("Unable to read the dict.");
    if (fallback) return *fallback;
    PyErr_SetObject(PyExc_KeyError, pythonKey.get());
    return fetch_python_error_or("Key not found.");
}

// len() and `in` of an exact container; an error for anything else is the caller's to handle.
Union<Integer, Lazy<Integer>, Error> lengthOf(const Any& self) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr || !isExactContainer(object)) return typed<Integer>(call(self, "__len__"), "an integer");
    return Integer(PyObject_Size(object));
}

Union<Boolean, Lazy<Boolean>, Error> containsOf(const Any& self, const Any& value) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr || !isExactContainer(object)) return typed<Boolean>(call(self, "__contains__", {value}), "a boolean");
    PyObjectPtr converted = PyObjectPtr::steal(toPythonLocked(value));
    if (!converted) return fetch_python_error_or("Unable to convert an argument.");
    const int found = PySequence_Contains(object, converted.get());
    if (found < 0) return fetch_python_error_or("Unable to test membership.");
    return Boolean(found == 1);
}

Any itemAt(const Any& self, const Integer& index) {
    {
        GilGuard gil(ownerOf(self));
        PyObject* object = pyobjectOf(self);
        if (object != nullptr && isExactSequence(object)) return itemOfSequence(object, index.value());
    }
    return call(self, "__getitem__", {index});
}

Union<PythonProxyIterator, Lazy<PythonProxyIterator>, Error> iterate(const Any& self) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return Error(String("Invalid object."));
    if (isExactContainer(object)) {
        PyObjectPtr iterator = PyObjectPtr::steal(PyObject_GetIter(object));
        if (!iterator) return fetch_python_error_or("Missing '__iter__' method.");
        return PythonProxyIterator(internal::unchecked, makeCollectionProxy(CollectionKind::Iterator, iterator.get()));
    }
    PyObjectPtr method = PyObjectPtr::steal(PyObject_GetAttrString(object, "__iter__"));
    if (!method || !PyCallable_Check(method.get())) {
        PyErr_Clear();
        return Error(String("Missing '__iter__' method."));
    }
    PyObjectPtr noArguments = PyObjectPtr::steal(PyTuple_New(0));
    PyObjectPtr iterator = PyObjectPtr::steal(PyObject_Call(method.get(), noArguments.get(), nullptr));
    if (!iterator) return fetch_python_error_or("Missing '__iter__' method.");
    // Only an iterator can be stepped: anything else `__iter__` gives is refused as Python's
    // own iter() refuses it.
    if (!PyIter_Check(iterator.get())) {
        PyErr_Format(PyExc_TypeError, "iter() returned non-iterator of type '%.100s'", Py_TYPE(iterator.get())->tp_name);
        return fetch_python_error_or("Missing '__iter__' method.");
    }
    return PythonProxyIterator(internal::unchecked, makeCollectionProxy(CollectionKind::Iterator, iterator.get()));
}

Any next(const Any& self) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return Error(String("The object is null."));
    if (!PyIter_Check(object)) {
        PyErr_Format(PyExc_TypeError, "'%.100s' object is not an iterator", Py_TYPE(object)->tp_name);
        return fetch_python_error_or("The object is not an iterator.");
    }
    PyObjectPtr item = PyObjectPtr::steal(PyIter_Next(object));
    if (item) return fromPythonResultLocked(item.get());
    if (PyErr_Occurred() != nullptr) return fetch_python_error_or("Unknown error.");
    return StopIteration();
}

Union<Boolean, Lazy<Boolean>, Error> removeFromSet(const Any& self, const Any& value) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return Boolean(false);
    PyObjectPtr method = PyObjectPtr::steal(PyObject_GetAttrString(object, "remove"));
    if (!method || !PyCallable_Check(method.get())) {
        PyErr_Clear();
        return Error(String("The method is missing in {}.").arg(display(self)));
    }
    PyObjectPtr converted = PyObjectPtr::steal(to_python(value));
    if (!converted) return fetch_python_error_or(String("Unable to convert an argument: {}.").arg(display(value)).c_str());
    PyObjectPtr result = PyObjectPtr::steal(PyObject_CallOneArg(method.get(), converted.get()));
    if (!result) {
        // A failed removal is never an error: whatever was raised is dropped.
        PyObject* type = nullptr;
        PyObject* error = nullptr;
        PyObject* traceback = nullptr;
        PyErr_Fetch(&type, &error, &traceback);
        Py_DecRef(type);
        Py_DecRef(error);
        Py_DecRef(traceback);
        return Boolean(false);
    }
    return Boolean(true);
}

Union<Integer, Lazy<Integer>, Error> indexOf(const Any& self, const Any& value, std::optional<int> start) {
    GilGuard gil(ownerOf(self));
    PyObject* object = pyobjectOf(self);
    if (object == nullptr) return Error(String("The object is null."));
    PyObjectPtr converted = PyObjectPtr::steal(to_python(value));
    if (!converted) return fetch_python_error_or(String("Unable to convert an argument: {}.").arg(display(value)).c_str());
    PyObjectPtr result = PyObjectPtr::steal(PyObject_CallMethod(object, "index", "Oi", converted.get(), start.value_or(0)));
    if (!result) {
        PyErr_Clear();
        return Integer(-1);
    }
    // An `index` that answers something other than an int within 64 bits is an error, not -1.
    Any position = from_python_result(result.get());
    if (auto error = Error::cast(position)) return *error;
    if (position.kind() != Kind::Integer) {
        return Error(String("The Python method did not return an integer: {}.").arg(display(position)));
    }
    return Integer(position.rawInteger());
}

Any extendFrom(const Any& self, const Any& values, const char* method) {
    // Each element of the host iterable added by one call of `method`.
    Any iterator = I_Iterable_Generic(internal::unchecked, values).iter();
    if (is_error_result(iterator)) return iterator;
    for (;;) {
        Any item = I_Iterator_Generic(internal::unchecked, iterator).next();
        if (StopIteration::matches(item)) return Any();
        if (is_error_result(item)) return item;
        Any result = call(self, method, {item});
        if (is_error_result(result)) return result;
    }
}

Class_Generic proxyClass(const char* name, const char* doc, const Class_Generic& interface,
                         const std::function<void(ClassBuilder&)>& members) {
    ClassBuilder builder{String(name)};
    builder.doc(doc).flags(class_flags::MembersFirst).parent(PythonProxy::getClass()).parent(interface);
    members(builder);
    const Class_Generic cls = builder.build();
    Module::create("tala.python").addClass(cls);
    return cls;
}

}  // namespace

Class_Generic PythonProxyIterable::getClass() {
    static const ClassRegistration registration("PythonProxyIterable", [] {
        return proxyClass("PythonProxyIterable", "Proxy of an iterable Python object.", I_Iterable_Generic::getClass(),
                          [](ClassBuilder& builder) {
                              builder.method(Any::$iter, [](const PythonProxy& self) { return iterate(self); })
                                  .method(Any::$contains, [](const PythonProxy& self, const Any& value) {
                                      return containsOf(self, value);
                                  }, {"value"});
                          });
    });
    return registration.get();
}

Class_Generic PythonProxyIterator::getClass() {
    static const ClassRegistration registration("PythonProxyIterator", [] {
        return proxyClass("PythonProxyIterator", "Proxy of a Python iterator.", I_Iterator_Generic::getClass(),
                          [](ClassBuilder& builder) {
                              // The receiver as it comes (the hot calls take no typed copy of it):
                              // a value that is no proxy has no Python object, which next reports.
                              builder.method(Any::$next, [](const Any& self) { return next(self); });
                          });
    });
    return registration.get();
}

Class_Generic PythonProxyMapping::getClass() {
    static const ClassRegistration registration("PythonProxyMapping", [] {
        return proxyClass(
            "PythonProxyMapping", "Proxy of a Python dict.", I_MutableMap_Generic::getClass(), [](ClassBuilder& builder) {
                builder
                    .method(Any::$set, [](const PythonProxy& self, const Any& key, const Any& value) {
                        return nothing(call(self, "__setitem__", {key, value}));
                    }, {"key", "value"})
                    .method(Any::$remove, [](const PythonProxy& self, const Any& key) -> Result {
                        return Result(internal::unchecked, call(self, "pop", {key}));
                    }, {"key"})
                    // Without a default, as every host reader of a map calls it: the item, or
                    // the KeyError of a missing key as an error.
                    .method(Any::$get, [](const PythonProxy& self, const Any& key, const std::optional<Any>& fallback) -> Result {
                        {
                            GilGuard gil(ownerOf(self));
                            PyObject* object = pyobjectOf(self);
                            if (object != nullptr && PyDict_CheckExact(object)) {
                                return Result(internal::unchecked, valueOfDict(object, key, fallback));
                            }
                        }
                        if (fallback) {
                            Any present = call(self, "__contains__", {key});
                            if (is_error_result(present)) return Result(internal::unchecked, present);
                            if (present.kind() == Kind::Boolean && !present.rawBoolean()) return Result(internal::unchecked, *fallback);
                        }
                        return Result(internal::unchecked, call(self, "__getitem__", {key}));
                    }, {"key", "default"})
                    .method(Any::$setChecked, [](const PythonProxy& self, const Any& key, const Any& value) {
                        return nothing(call(self, "__setitem__", {key, value}));
                    }, {"key", "value"})
                    .method(Any::$contains, [](const PythonProxy& self, const Any& key) { return containsOf(self, key); },
                            {"key"})
                    .method(Any::$clear, [](const PythonProxy& self) { return nothing(call(self, "clear")); })
                    .property(Any::$$valuesType, [](const PythonProxy&) { return Type::any(); }, "Values are of any type.")
                    .method(Any::$values, [](const PythonProxy& self) { return listOf(self, "values"); })
                    .method(Any::$$length, [](const PythonProxy& self) { return lengthOf(self); })
                    .property(Any::$$keysType, [](const PythonProxy&) { return Type::any(); }, "Keys are of any type.")
                    .method(Any::$keys, [](const PythonProxy& self) { return listOf(self, "keys"); })
                    // I_Iterable's: the keys, as Python iterates a dict.
                    .method(Any::$iter, [](const PythonProxy& self) { return iterate(self); });
            });
    });
    return registration.get();
}

Class_Generic PythonProxySequence::getClass() {
    static const ClassRegistration registration("PythonProxySequence", [] {
        return proxyClass(
            "PythonProxySequence", "Proxy of a Python sequence.", I_MutableSequence_Generic::getClass(),
            [](ClassBuilder& builder) {
                builder
                    .method(Any::$set, [](const PythonProxy& self, const Integer& index, const Any& value) {
                        return nothing(call(self, "__setitem__", {index, value}));
                    }, {"index", "value"})
                    .method(Any::$removeAt, [](const PythonProxy& self, const Integer& index, std::optional<long long> count)
                                                -> Union<None, Lazy<None>, Error> {
                        // Deleting at the same index again and again: the following elements move up.
                        for (long long removed = 0; removed < count.value_or(1); ++removed) {
                            Any result = call(self, "__delitem__", {index});
                            if (auto error = Error::cast(result)) return *error;
                        }
                        return None();
                    }, {"index", "count"})
                    .method(Any::$removeOne, [](const PythonProxy& self, const Any& value) -> Union<None, Lazy<None>, Error> {
                        Any count = call(self, "count", {value});
                        if (auto error = Error::cast(count)) return *error;
                        if (count.kind() == Kind::Integer && count.rawInteger() == 0) return None();
                        return nothing(call(self, "remove", {value}));
                    }, {"value"})
                    .method(Any::$pop, [](const PythonProxy& self, const std::optional<Any>& argument) -> Result {
                        if (!argument) return Result(internal::unchecked, call(self, "pop"));
                        return Result(internal::unchecked, call(self, "pop", {*argument}));
                    }, {"index"})
                    .method(Any::$extend, [](const PythonProxy& self, const Any& values) {
                        return nothing(call(self, "extend", {values}));
                    }, {"values"})
                    .method(Any::$clear, [](const PythonProxy& self) { return nothing(call(self, "clear")); })
                    .method(Any::$appendAt, [](const PythonProxy& self, Integer index, const Any& value) {
                        return nothing(call(self, "insert", {index, value}));
                    }, {"index", "value"})
                    .method(Any::$append, [](const PythonProxy& self, const Any& value) {
                        return nothing(call(self, "append", {value}));
                    }, {"value"})
                    .method(Any::$indexOf, [](const PythonProxy& self, const Any& value, std::optional<int> start) {
                        return indexOf(self, value, start);
                    }, {"value", "start"})
                    .method(Any::$contains, [](const PythonProxy& self, const Any& value) { return containsOf(self, value); },
                            {"value"})
                    .method(Any::$atOr, [](const PythonProxy& self, const Integer& index, const Any& fallback) -> Any {
                        Any item = itemAt(self, index);
                        return is_error_result(item) ? fallback : item;
                    }, {"index", "default"})
                    // The receiver as it comes, as for next.
                    .method(Any::$at, [](const Any& self, const Integer& index) -> Result {
                        return Result(internal::unchecked, itemAt(self, index));
                    }, {"index"})
                    .method(Any::$$length, [](const PythonProxy& self) { return lengthOf(self); })
                    // I_Iterable's.
                    .method(Any::$iter, [](const PythonProxy& self) { return iterate(self); });
            });
    });
    return registration.get();
}

Class_Generic PythonProxySet::getClass() {
    static const ClassRegistration registration("PythonProxySet", [] {
        return proxyClass(
            "PythonProxySet", "Proxy of a Python set.", I_MutableSet_Generic::getClass(), [](ClassBuilder& builder) {
                builder
                    .method(Any::$remove, [](const PythonProxy& self, const Any& value) { return removeFromSet(self, value); },
                            {"value"})
                    .method(Any::$insert, [](const PythonProxy& self, const Any& value) {
                        return nothing(call(self, "add", {value}));
                    }, {"value"})
                    .method(Any::$extend, [](const PythonProxy& self, const Any& values) -> Union<None, Lazy<None>, Error> {
                        Any result = extendFrom(self, values, "add");
                        if (auto error = Error::cast(result)) return *error;
                        return None();
                    }, {"values"})
                    .method(Any::$clear, [](const PythonProxy& self) { return nothing(call(self, "clear")); })
                    .method(Any::$$length, [](const PythonProxy& self) { return lengthOf(self); })
                    // I_Set's and I_Iterable's.
                    .method(Any::$contains, [](const PythonProxy& self, const Any& value) { return containsOf(self, value); },
                            {"value"})
                    .method(Any::$iter, [](const PythonProxy& self) { return iterate(self); });
            });
    });
    return registration.get();
}

bool PythonProxyIterable::matches(const Any& value) { return internal::is_instance_of(value, getClass()); }
bool PythonProxyIterator::matches(const Any& value) { return internal::is_instance_of(value, getClass()); }
bool PythonProxyMapping::matches(const Any& value) { return internal::is_instance_of(value, getClass()); }
bool PythonProxySequence::matches(const Any& value) { return internal::is_instance_of(value, getClass()); }
bool PythonProxySet::matches(const Any& value) { return internal::is_instance_of(value, getClass()); }

Any makeCollectionProxy(CollectionKind kind, PyObject* object) {
    switch (kind) {
        case CollectionKind::Iterable: return makeProxyOf(PythonProxyIterable::getClass(), object);
        case CollectionKind::Iterator: return makeProxyOf(PythonProxyIterator::getClass(), object);
        case CollectionKind::Mapping: return makeProxyOf(PythonProxyMapping::getClass(), object);
        case CollectionKind::Sequence: return makeProxyOf(PythonProxySequence::getClass(), object);
        case CollectionKind::Set: return makeProxyOf(PythonProxySet::getClass(), object);
    }
    return makePythonProxy(object);
}

}  // namespace tala::python
