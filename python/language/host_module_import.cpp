// python/language/host_module_import.cpp: `import` of the host's modules, through a finder on Python's meta path.
#include "language/host_module_import.hpp"

#include <atomic>
#include <exception>
#include <string_view>

#include "extension/gil.hpp"
#include "pyside/module_objects.hpp"
#include "tala/tala.hpp"

namespace tala::python {

namespace {

// The finder is a class, as Python's own BuiltinImporter is, and it is its own loader. A module
// description comes only for a name that the host has a module for at that moment, so a module registered
// later is found from then on, and an unknown name goes on to Python's own finders (and ends
// as their ModuleNotFoundError).
const char* const kImportProgram = R"PY(
import sys
from importlib.machinery import ModuleSpec, PathFinder


class TalaHostModuleFinder:
    """Finds the host's modules: `import sqlite` gives the module that scripts see by name."""

    @classmethod
    def find_spec(cls, fullname, path=None, target=None):
        if fullname.partition('.')[0] in sys.stdlib_module_names:
            return None
        if tala_host_module(fullname) is None:
            return None
        return ModuleSpec(fullname, cls, origin='host', is_package=True)

    @staticmethod
    def create_module(found):
        module = tala_host_module(found.name)
        if module is None:
            raise ImportError(f'No host module named {found.name!r}', name=found.name)
        return module

    @staticmethod
    def exec_module(module):
        # The host made the module whole: nothing runs when it is loaded or reloaded.
        pass


def install():
    if TalaHostModuleFinder in sys.meta_path:
        return
    for index, finder in enumerate(sys.meta_path):
        if finder is PathFinder:
            sys.meta_path.insert(index, TalaHostModuleFinder)
            return
    sys.meta_path.append(TalaHostModuleFinder)
)PY";

// The finder's question to the host: the object of the host module of that name, or None when
// there is none (or it is internal). A thin shell: nothing thrown leaves it.
PyObject* hostModuleByName(PyObject*, PyObject* const* arguments, Py_ssize_t count) noexcept {
    if (count != 1 || !PyUnicode_Check(arguments[0])) {
        PyErr_SetString(PyExc_TypeError, "tala_host_module(name) takes a module name");
        return nullptr;
    }
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(arguments[0], &size);
    if (text == nullptr) return nullptr;
    try {
        const std::optional<Module> module = Module::find(std::string_view(text, static_cast<std::size_t>(size)));
        if (!module || module->isInternal()) Py_RETURN_NONE;
        return hostModuleObject(*module);
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return nullptr;
    }
}

PyMethodDef g_hostModuleDefinition{"tala_host_module", fastCallFunction(hostModuleByName), METH_FASTCALL,
                                   "The object of the host module of that name, or None."};

bool install() {
    PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
    PyObjectPtr name = PyObjectPtr::steal(PyUnicode_FromString("tala_host_modules"));
    PyObjectPtr function = PyObjectPtr::steal(PyCFunction_New(&g_hostModuleDefinition, nullptr));
    if (!globals || !name || !function || PyDict_SetItemString(globals.get(), "__builtins__", PyEval_GetBuiltins()) < 0 ||
        PyDict_SetItemString(globals.get(), "__name__", name.get()) < 0 ||
        PyDict_SetItemString(globals.get(), "tala_host_module", function.get()) < 0) {
        return false;
    }
    PyObjectPtr code = PyObjectPtr::steal(Py_CompileString(kImportProgram, "<tala host modules>", Py_file_input));
    if (!code) return false;
    PyObjectPtr ran = PyObjectPtr::steal(PyEval_EvalCode(code.get(), globals.get(), globals.get()));
    if (!ran) return false;
    PyObject* installer = PyDict_GetItemString(globals.get(), "install");  // borrowed
    if (installer == nullptr) return false;
    // The finder's functions keep the globals (and the host function in them) alive.
    return PyObjectPtr::steal(PyObject_CallNoArgs(installer)).get() != nullptr;
}

std::atomic<bool> g_installed{false};

}  // namespace

void installHostModuleImport() {
    if (g_installed.exchange(true, std::memory_order_acq_rel)) return;
    GilGuard gil;
    if (!install()) PyErr_Clear();
}

void installHostModuleImportHere() {
    if (!install()) PyErr_Clear();
}

}  // namespace tala::python
