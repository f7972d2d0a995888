// python/proxies/python_proxy.hpp: host objects that stand for Python objects.
#pragma once

#include <Python.h>

#include <vector>

#include "tala/tala.hpp"

namespace tala::python {

// A host proxy of one Python object. Its one field `_pyobj` holds a boxed PyObject* with one
// strong reference, taken when the proxy is made and given back by the class's finalizer.
// Collection proxies derive from it.
class PythonProxy : public internal::View<PythonProxy> {
public:
    using View::View;
    static bool matches(const Any& value);
    static Class_Generic getClass();
};

class PythonProxyIterable : public internal::View<PythonProxyIterable> {
public:
    using View::View;
    static bool matches(const Any& value);
    static Class_Generic getClass();
};
class PythonProxyIterator : public internal::View<PythonProxyIterator> {
public:
    using View::View;
    static bool matches(const Any& value);
    static Class_Generic getClass();
};
class PythonProxyMapping : public internal::View<PythonProxyMapping> {
public:
    using View::View;
    static bool matches(const Any& value);
    static Class_Generic getClass();
};
class PythonProxySequence : public internal::View<PythonProxySequence> {
public:
    using View::View;
    static bool matches(const Any& value);
    static Class_Generic getClass();
};
class PythonProxySet : public internal::View<PythonProxySet> {
public:
    using View::View;
    static bool matches(const Any& value);
    static Class_Generic getClass();
};

// A new PythonProxy holding a new reference to `object`. The caller holds the interpreter lock.
Any makePythonProxy(PyObject* object);

// A new instance of `cls` (PythonProxy or a class derived from it) holding a new reference to
// `object`. The caller holds the interpreter lock.
Any makeProxyOf(const Class_Generic& cls, PyObject* object);

enum class CollectionKind { Iterable, Iterator, Mapping, Sequence, Set };
// A new collection proxy of the given kind holding a new reference to `object`.
Any makeCollectionProxy(CollectionKind kind, PyObject* object);

// The Python object a proxy holds (borrowed: the reference stays the proxy's), or null when the
// value is no proxy or holds nothing.
PyObject* pyobjectOf(const Any& proxy);

// Calls the Python method `name` of the proxy's object with the host arguments converted; the
// result converted back. Errors: "The object is null.", "The method is missing: {}, target
// object: {}.", "Unable to convert an argument: {}.", or the Python exception.
Union<Any, Lazy<Any>, Error> callPythonMethod(const Any& self, const String& name, const std::vector<Any>& arguments);

}  // namespace tala::python
