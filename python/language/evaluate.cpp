// python/language/evaluate.cpp: expression, code and method evaluation.
#include "language/evaluate.hpp"

#include <memory>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/python_names.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "extension/interpreter.hpp"
#include "extension/stack.hpp"
#include "language/interruption.hpp"
#include "language/namespace.hpp"
#include "language/program_cache.hpp"

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
    // A map whose class reads its entries natively gives the same entries without the calls.
    Any failed;
    if (read_map_entries(map, [&](const Any& key, const Any& value) {
            failed = visit(key, value);
            return !is_error_result(failed);
        })) {
        return failed;
    }
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

// Converts each entry and adds it to `entries` under the key's text, for the globals; with
// `names`, also collects the keys in their order.
Any collectEntries(std::vector<GlobalEntry>& entries, const Any& map, std::vector<String>* names = nullptr) {
    return forEachEntry(map, [&entries, names](const Any& key, const Any& value) -> Any {
        auto name = String::cast(key);
        if (!name) return Error(String("A name must be a string: {}.").arg(display(key)));
        PyObjectPtr converted = PyObjectPtr::steal(toPythonLocked(value));
        if (!converted) return fetch_python_error_or("Unable to convert a value.");
        PyObject* pythonKey = pythonName(*name);  // borrowed from a cache that may let it go
        if (pythonKey == nullptr) return fetch_python_error_or("Unable to store a value.");
        entries.push_back(GlobalEntry{PyObjectPtr::borrow(pythonKey), std::move(converted)});
        if (names != nullptr) names->push_back(*name);
        return Any();
    });
}

StaticName g_fileName{"__file__"};
StaticName g_selfName{"self"};

// The file the code is said to come from: a `__file__` the maps gave, as Python's own program
// names the script it runs; otherwise "<string>", as for any text run by exec. The text lives as
// long as the globals keep it.
std::string_view fileNameOf(PyObject* globals) {
    PyObject* file = PyDict_GetItemWithError(globals, g_fileName.get());  // borrowed
    if (file != nullptr && PyUnicode_Check(file)) {
        Py_ssize_t size = 0;
        if (const char* text = PyUnicode_AsUTF8AndSize(file, &size)) return std::string_view(text, static_cast<std::size_t>(size));
    }
    PyErr_Clear();
    return "<string>";
}

// What the two callables of a code evaluation write into: the innermost code evaluation
// running on this thread. They are called only by the statements the evaluation put after the
// code, which no code of the user's can reach.
struct RunningCode {
    Any result;
    Any outLocals;  // the caller's mutable map, or empty
    RunningCode* outer;
};
TALA_HOT_THREAD_LOCAL RunningCode* t_runningCode = nullptr;

class RunningCodeScope {
public:
    explicit RunningCodeScope(const Any& outLocals) : running_{Any(), outLocals, t_runningCode} { t_runningCode = &running_; }
    ~RunningCodeScope() { t_runningCode = running_.outer; }
    RunningCodeScope(const RunningCodeScope&) = delete;
    RunningCodeScope& operator=(const RunningCodeScope&) = delete;
    const Any& result() const { return running_.result; }

private:
    RunningCode running_;
};

// tala_store_local(name, value) and tala_store_result(value): fast-call functions of their own
// (they run once per evaluation, on its hot path), writing into the innermost code evaluation
// of the calling thread.
PyObject* storeLocalFunction(PyObject*, PyObject* const* arguments, Py_ssize_t count) {
    if (count != 2 || !PyUnicode_Check(arguments[0])) {
        PyErr_SetString(PyExc_TypeError, "tala_store_local(name, value) takes a name and a value");
        return nullptr;
    }
    RunningCode* running = t_runningCode;
    if (running == nullptr || running->outLocals.isEmpty()) {
        PyErr_SetString(PyExc_RuntimeError, "No code evaluation is running.");
        return nullptr;
    }
    const Any name = fromPythonLocked(arguments[0]);
    const Any value = fromPythonLocked(arguments[1]);
    if (PyErr_Occurred() != nullptr) return nullptr;  // an int beyond 64 bits: nothing is stored
    Any stored = HashMap_Generic::matches(running->outLocals)
                     ? HashMap_Generic(internal::unchecked, running->outLocals).setChecked(name, value)
                     : resolve(I_MutableMap_Generic(internal::unchecked, running->outLocals).setChecked(name, value));
    if (auto error = Error::cast(stored)) {
        raise_host_error(*error);
        return nullptr;
    }
    Py_RETURN_NONE;
}

PyObject* storeResultFunction(PyObject*, PyObject* const* arguments, Py_ssize_t count) {
    if (count != 1) {
        PyErr_SetString(PyExc_TypeError, "tala_store_result(value) takes one value");
        return nullptr;
    }
    Any value = fromPythonLocked(arguments[0]);
    if (PyErr_Occurred() != nullptr) {
        auto pending = fetch_python_error();
        value = pending.as<Error>();
    }
    if (RunningCode* running = t_runningCode) running->result = std::move(value);
    Py_RETURN_NONE;
}

PyMethodDef g_storeLocal{"tala_store_local", fastCallFunction(storeLocalFunction), METH_FASTCALL,
                         "Writes an output local of the running evaluation back to the host."};
PyMethodDef g_storeResult{"tala_store_result", fastCallFunction(storeResultFunction), METH_FASTCALL,
                          "Keeps the result of the running evaluation for the host."};

// The locals every code evaluation starts from: the two callables, made once per interpreter and
// kept; each evaluation takes a copy.
PyObject* codeLocalsTemplate() {
    InterpreterState& here = state();
    return keptHere(here.codeLocals, here.codeLocalsTried, [] {
        PyObjectPtr dictionary = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr local = PyObjectPtr::steal(PyCFunction_New(&g_storeLocal, nullptr));
        PyObjectPtr result = PyObjectPtr::steal(PyCFunction_New(&g_storeResult, nullptr));
        if (dictionary && local && result && PyDict_SetItemString(dictionary.get(), "tala_store_local", local.get()) == 0 &&
            PyDict_SetItemString(dictionary.get(), "tala_store_result", result.get()) == 0) {
            return dictionary.release();
        }
        PyErr_Clear();
        return static_cast<PyObject*>(nullptr);
    });
}

PyObjectPtr codeLocals() {
    PyObject* locals = codeLocalsTemplate();
    if (locals == nullptr) {
        PyErr_SetString(PyExc_RuntimeError, "The callables of code evaluation could not be made.");
        return PyObjectPtr();
    }
    return PyObjectPtr::steal(PyDict_Copy(locals));
}

}  // namespace

Any evaluate_expr(const String& code, const Union<I_Map<String, Any>, None>& locals,
                  const Union<I_Map<String, Any>, None>& globals) {
    if (auto shortage = stackShortage()) return *shortage;
    (void)ensurePythonOnce();
    GilGuard gil;
    EvaluationScope evaluation;
    std::vector<GlobalEntry> entries;
    Any stored = collectEntries(entries, globals.isEmpty() ? Any(tala::globals()) : Any(globals));
    if (is_error_result(stored)) return stored;
    // Locals go into the globals dictionary too: an expression sees both through one.
    if (!locals.isEmpty()) {
        stored = collectEntries(entries, locals);
        if (is_error_result(stored)) return stored;
    }
    PyObjectPtr globalNames = evaluationGlobals(entries);
    if (!globalNames) return fetch_python_error_or("Unable to store a value.");
    const GlobalsChanges changes;
    PyObjectPtr program = compiledProgram(ProgramKind::Expression, code.view(), {}, fileNameOf(globalNames.get()));
    if (!program) return fetch_python_error_or("Unable to compile the expression.");
    PyObjectPtr localNames = expressionLocals();
    if (!localNames) return fetch_python_error_or("Unable to prepare the evaluation.");
    PyObjectPtr result = PyObjectPtr::steal(PyEval_EvalCode(program.get(), globalNames.get(), localNames.get()));
    if (evaluation.endsInterrupted()) result.reset();
    if (!result) {
        const ExceptionOrigin origin{program.get(), code.view(), false};
        return fetch_python_error_or("Unable to evaluate the expression.", &origin);
    }
    Any value = from_python_result(result.get());
    result.reset();
    // Dictionaries that nothing kept serve the next evaluation.
    giveBackExpressionLocals(std::move(localNames));
    giveBackGlobals(std::move(globalNames), entries, changes);
    return value;
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
    // Host code that re-enters Python from Python uses the stack at every level: it stops with
    // an error before the stack runs out.
    if (auto shortage = stackShortage()) return *shortage;
    (void)ensurePythonOnce();
    GilGuard gil;
    EvaluationScope evaluation;
    // Globals, then output locals (whose names the program is made for), then locals: a later
    // map wins a name.
    std::vector<GlobalEntry> entries;
    std::vector<String> outNames;
    for (const Any* map : {static_cast<const Any*>(&globals), static_cast<const Any*>(&outLocals), static_cast<const Any*>(&locals)}) {
        if (map->isEmpty()) continue;
        Any stored = collectEntries(entries, *map, map == &outLocals ? &outNames : nullptr);
        if (auto error = Error::cast(stored)) return *error;
    }
    PyObjectPtr globalNames = evaluationGlobals(entries, g_selfName.get());
    if (!globalNames) return fetch_python_error_or("Unable to store a value.");
    const GlobalsChanges changes;
    PyObjectPtr program = compiledProgram(ProgramKind::Code, code.view(), outNames, fileNameOf(globalNames.get()));
    if (!program) return fetch_python_error_or("Unable to compile the code.");
    PyObjectPtr localNames = codeLocals();
    if (!localNames) return fetch_python_error_or("Unable to prepare the evaluation.");
    PyObjectPtr selfObject = PyObjectPtr::steal(toPythonLocked(self));
    if (!selfObject || !storeOwnGlobal(globalNames.get(), g_selfName.get(), selfObject.get())) {
        return fetch_python_error_or("Unable to store a value.");
    }
    entries.push_back(GlobalEntry{PyObjectPtr::borrow(g_selfName.get()), std::move(selfObject)});

    Any value;
    {
        const RunningCodeScope running(outLocals);
        PyObjectPtr ran = PyObjectPtr::steal(PyEval_EvalCode(program.get(), globalNames.get(), localNames.get()));
        if (evaluation.endsInterrupted()) ran.reset();
        if (!ran) {
            const ExceptionOrigin origin{program.get(), code.view(), true};
            return fetch_python_error_or("Unable to run the code.", &origin);
        }
        value = running.result();
    }
    localNames.reset();
    giveBackGlobals(std::move(globalNames), entries, changes);
    if (auto error = Error::cast(value)) return *error;
    return value;
}

}  // namespace tala
