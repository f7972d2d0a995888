// python/language/evaluate.cpp: expression, code and method evaluation.
#include "language/evaluate.hpp"

#include <memory>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "language/namespace.hpp"

namespace tala {

namespace python {
namespace {

// Calls `visit(name, value)` for each entry of a host map: a HashMap directly (its iterator
// throws the object model's error if the map changes meanwhile), any other map through its
// keys and get. Returns an Error when the map cannot be read.
template <class Visit>
Any forEachEntry(const Any& map, Visit&& visit) {
    if (auto hashMap = HashMap_Generic::cast(map)) {
        for (const auto& entry : *hashMap) {
            Any done = visit(entry.key, entry.value);
            if (is_error_result(done)) return done;
        }
        return Any();
    }
    if (!I_Map_Generic::matches(map)) return Error(String("Not a map: {}.").arg(display(map)));
    const I_Map_Generic view(internal::unchecked, map);
    Any keys = resolve(view.keys());
    if (is_error_result(keys)) return keys;
    auto list = List_Generic::cast(keys);
    if (!list) return Error(String("The keys of the map are not a list: {}.").arg(display(keys)));
    for (const Any& key : *list) {
        Any value = resolve(view.get(key));
        if (is_error_result(value)) return value;
        Any done = visit(key, value);
        if (is_error_result(done)) return done;
    }
    return Any();
}

// Converts each entry and stores it in `dictionary` under the key's text.
Any storeEntries(PyObject* dictionary, const Any& map) {
    return forEachEntry(map, [dictionary](const Any& key, const Any& value) -> Any {
        auto name = String::cast(key);
        if (!name) return Error(String("A name must be a string: {}.").arg(display(key)));
        PyObjectPtr converted = PyObjectPtr::steal(to_python(value));
        if (!converted) return fetch_python_error_or("Unable to convert a value.");
        if (PyDict_SetItemString(dictionary, name->c_str(), converted.get()) < 0) {
            return fetch_python_error_or("Unable to store a value.");
        }
        return Any();
    });
}

// The two dictionaries of one evaluation, with the host's modules merged into the globals. The
// namespace dictionary is released once merged: nothing can observe it afterwards.
struct Dictionaries {
    PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
    PyObjectPtr locals = PyObjectPtr::steal(PyDict_New());

    Dictionaries() {
        PyObjectPtr hostNamespace = PyObjectPtr::steal(buildHostNamespace());
        if (hostNamespace && PyDict_Merge(globals.get(), hostNamespace.get(), 0) < 0) PyErr_Clear();
        // The code runs as the main program does (classes it defines belong to "__main__"),
        // unless a map the caller gives names it otherwise.
        PyObjectPtr mainName = PyObjectPtr::steal(PyUnicode_FromString("__main__"));
        if (!mainName || PyDict_SetItemString(globals.get(), "__name__", mainName.get()) < 0) PyErr_Clear();
    }
};

// Calls the builtin `eval` or `exec` with (text, globals, locals).
PyObjectPtr callBuiltin(const char* builtin, const std::string& text, const Dictionaries& dictionaries) {
    PyObject* builtins = PyEval_GetBuiltins();
    PyObject* function = builtins == nullptr ? nullptr : PyDict_GetItemString(builtins, builtin);
    if (function == nullptr) return PyObjectPtr();
    // The whole text with its length: a NUL inside is refused by Python's compiler, never a cut.
    PyObjectPtr arguments = PyObjectPtr::steal(Py_BuildValue("(s#OO)", text.data(), static_cast<Py_ssize_t>(text.size()),
                                                             dictionaries.globals.get(), dictionaries.locals.get()));
    if (!arguments) return PyObjectPtr();
    return PyObjectPtr::steal(PyObject_CallObject(function, arguments.get()));
}

Any storeLocal(PyObject* dictionary, const char* name, const Any& value) {
    PyObjectPtr converted = PyObjectPtr::steal(to_python(value));
    if (!converted || PyDict_SetItemString(dictionary, name, converted.get()) < 0) {
        return fetch_python_error_or("Unable to store a value.");
    }
    return Any();
}

// The generated program: the code as the body of `tala_outer`, its result stored, then each
// output local stored.
std::string programText(const String& code, const std::vector<String>& outNames) {
    string_builder text(code.size() + 128);
    text << "def tala_outer():\n";
    for (const String& name : outNames) text << "\tglobal " << name << '\n';
    const std::string_view body = code.view();
    for (std::size_t start = 0;;) {
        const std::size_t end = body.find('\n', start);
        text << '\t' << body.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start) << '\n';
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    text << "tala_store_result( tala_outer() )\n";
    for (const String& name : outNames) text << "tala_store_local('" << name << "'," << name << ")\n";
    return std::move(text.raw());
}

std::vector<String> keysOf(const Any& map) {
    std::vector<String> names;
    (void)forEachEntry(map, [&names](const Any& key, const Any&) -> Any {
        if (auto name = String::cast(key)) names.push_back(*name);
        return Any();
    });
    return names;
}

}  // namespace

Any evaluate_expr(const String& code, const Union<I_Map<String, Any>, None>& locals,
                  const Union<I_Map<String, Any>, None>& globals) {
    (void)ensurePythonOnce();
    GilGuard gil;
    Dictionaries dictionaries;
    Any stored = storeEntries(dictionaries.globals.get(), globals.isEmpty() ? Any(tala::globals()) : Any(globals));
    if (is_error_result(stored)) return stored;
    // Locals go into the globals dictionary too: an expression sees both through one.
    if (!locals.isEmpty()) {
        stored = storeEntries(dictionaries.globals.get(), locals);
        if (is_error_result(stored)) return stored;
    }
    PyObjectPtr result = callBuiltin("eval", std::string(code.view()), dictionaries);
    if (!result) return fetch_python_error_or("Unable to evaluate the expression.");
    return from_python_result(result.get());
}

Any evaluate(const String& code, const Union<I_Map<String, Any>, None>& locals,
             const Union<I_Map<String, Any>, None>& globals, const Union<I_MutableMap<String, Any>, None>& outLocals) {
    return resolve(language_python_evaluate_method(Any(), code, locals, globals, outLocals));
}

}  // namespace python

Union<Any, Lazy<Any>, Error> language_python_evaluate_method(const Any& self, const String& code,
                                                             const Union<I_Map<String, Any>, None>& locals,
                                                             const Union<I_Map<String, Any>, None>& globals,
                                                             const Union<I_MutableMap<String, Any>, None>& outLocals) {
    using namespace python;
    (void)ensurePythonOnce();
    GilGuard gil;
    Dictionaries dictionaries;
    for (const Any* map : {static_cast<const Any*>(&globals), static_cast<const Any*>(&outLocals), static_cast<const Any*>(&locals)}) {
        if (map->isEmpty()) continue;
        Any stored = storeEntries(dictionaries.globals.get(), *map);
        if (auto error = Error::cast(stored)) return *error;
    }
    const std::vector<String> outNames = outLocals.isEmpty() ? std::vector<String>() : keysOf(outLocals);

    // The two callables of this call: they write into this call's result slot and output map.
    auto result = std::make_shared<Any>();
    const Any output = outLocals;
    const I_Invokable_Generic storeLocalFunction = native_function(
        [output](const String& name, const Any& value) -> Any {
            return I_MutableMap_Generic(internal::unchecked, output).setChecked(name, value);
        },
        "tala_store_local", {"name", "value"});
    const I_Invokable_Generic storeResultFunction = native_function(
        [result](const Any& value) { *result = value; }, "tala_store_result", {"value"});
    for (const auto& [name, value] : {std::pair<const char*, const Any*>{"tala_store_local", &storeLocalFunction},
                                      std::pair<const char*, const Any*>{"tala_store_result", &storeResultFunction}}) {
        Any stored = storeLocal(dictionaries.locals.get(), name, *value);
        if (auto error = Error::cast(stored)) return *error;
    }
    if (Any stored = storeLocal(dictionaries.globals.get(), "self", self); is_error_result(stored)) {
        return Error(internal::unchecked, stored);
    }

    PyObjectPtr ran = callBuiltin("exec", programText(code, outNames), dictionaries);
    if (!ran) return fetch_python_error_or("Unable to run the code.");
    Any value = *result;
    if (auto error = Error::cast(value)) return *error;
    return value;
}

}  // namespace tala
