// python/stubs/module_functions.cpp: python_import and python_generate_stubs.
#include "stubs/module_functions.hpp"

#include <string>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "stubs/stub_generator.hpp"
#include "stubs/typed_stub_generator.hpp"

namespace tala::python {

Union<Any, Lazy<Any>, Error> python_import(const String& path) {
    if (path.isEmpty()) return None();
    const std::string_view text = path.view();
    const std::size_t dot = text.rfind('.');
    const std::string moduleName(dot == std::string_view::npos ? text : text.substr(0, dot));
    const std::string objectName(dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1));
    // Started before the lock is taken: taking it before the interpreter exists is fatal.
    (void)ensurePythonOnce();
    GilGuard gil;
    PyObjectPtr module = PyObjectPtr::steal(PyImport_ImportModule(moduleName.c_str()));
    if (!module) {
        if (PyErr_Occurred() != nullptr) return fetch_python_error_or("");
        return Error(String("Unable to find the module: {}.").arg(String(moduleName)));
    }
    if (objectName.empty()) return from_python_result(module.get());
    PyObject* dictionary = PyModule_GetDict(module.get());  // borrowed
    if (dictionary == nullptr) {
        PyErr_Clear();
        return Error(String("Unable to get the module dict: {}.").arg(String(moduleName)));
    }
    PyObject* object = PyDict_GetItemString(dictionary, objectName.c_str());  // borrowed
    if (object == nullptr) {
        PyErr_Clear();
        return Error(String("Unable to find the object: {}.").arg(path));
    }
    return from_python_result(object);
}

String python_generate_stubs(const Module& module) { return generate_stubs(module); }

HashMap<String, String> python_generate_typed_stubs(const Module& module) { return generate_typed_stub_package(module); }

}  // namespace tala::python
