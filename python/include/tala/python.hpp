// tala/python.hpp: the Python extension for C++ hosts: typed functions over what module "tala.python" offers.
//
// Header-only: a host links the object model (tala::QuartoShared) and loads the extension at
// run time with tala::load_extension; nothing here links the extension itself. Every function
// may be called from any thread at any time: each call takes Python's lock itself and gives it
// back, so a host never holds it, never releases it and never needs to know about it. Failures
// are values: every function answers a tala::Result, never throws for a Python error, and an
// evaluation that fails keeps Python's exception type and traceback (exception_type, traceback).
//
//     tala::load_extension(TALA_PYTHON_EXTENSION);
//     tala::Result<std::int64_t> answer = tala::py::evaluate_expr("x * y", {{"x", 6}, {"y", 7}}).to<std::int64_t>();
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tala/class.hpp"
#include "tala/containers.hpp"
#include "tala/convert.hpp"
#include "tala/error.hpp"
#include "tala/invokable.hpp"
#include "tala/lazy.hpp"
#include "tala/module.hpp"
#include "tala/property.hpp"
#include "tala/result.hpp"
#include "tala/views.hpp"

namespace tala::py {

// The names an evaluation sees as its locals or its globals: none (`{}`), a host map you have
// (a HashMap<String, Any>, a Python dict's proxy, any map with text keys), or name and value
// pairs made into a new map:
//
//     tala::py::evaluate_expr("price * quantity", {{"price", 4.5}, {"quantity", 3}});
class Names {
public:
    Names() noexcept = default;
    Names(const HashMap_Generic& map) : map_(map) {}
    Names(const MapView& map) : map_(map) {}
    Names(std::initializer_list<std::pair<std::string_view, Arg>> entries) {
        HashMap<String, Any> map;
        for (const auto& [name, value] : entries) {
            // A C++ value without a host value (an unsigned number beyond the host's integers)
            // fails the evaluation before it starts.
            if (is_error_result(value.value()) && error_.isEmpty()) error_ = value.value();
            map.set(String(name), value.value());
        }
        map_ = map;
    }

    // The map, or the empty value for none.
    const Any& value() const noexcept { return map_; }
    // The error of a pair whose value could not be made, or the empty value.
    const Any& error() const noexcept { return error_; }

private:
    Any map_;
    Any error_;
};

// The names whose values the code hands back: each name is declared global in the code, starts
// with the value the map gives it (None for names listed here), and after the evaluation holds
// what the code left in it. A handle: copies share the one map.
//
//     tala::py::OutLocals out{"count"};
//     tala::py::evaluate("count = len(prices)", {{"prices", prices}}, {}, out);
//     tala::Result<std::int64_t> count = out.get<std::int64_t>("count");
class OutLocals {
public:
    OutLocals() noexcept = default;
    OutLocals(std::initializer_list<std::string_view> names) {
        HashMap<String, Any> map;
        for (std::string_view name : names) map.set(String(name), Any());
        map_ = map;
    }
    // A map of your own (any mutable map with text keys), whose entries start as they are.
    OutLocals(const HashMap_Generic& map) : map_(map) {}

    // What the code left under `name`; "There is no output local named 'x'." for a name that
    // is not in the map.
    Result<Any> get(std::string_view name) const {
        const auto missing = [name] { return Error(String("There is no output local named '{}'.").arg(String(name))); };
        Result<MapView> map = to<MapView>(map_);
        if (!map) return missing();
        Result<std::optional<Any>> found = map->find(String(name));
        if (!found) return found.error();
        if (!found->has_value()) return missing();
        return **found;
    }
    template <class T>
    Result<T> get(std::string_view name) const {
        return get(name).template to<T>();
    }

    // The map, or the empty value for none.
    const Any& value() const noexcept { return map_; }

private:
    Any map_;
};

namespace internal {

using tala::internal::unchecked;

// A function of the extension, looked up once and kept for the process; from any thread. A
// look-up that finds nothing (the extension is not loaded yet) is tried again on the next call.
class ExtensionFunction {
public:
    using Finder = Any (*)(std::string_view name);

    ExtensionFunction(const char* name, const char* describedAs, Finder find) noexcept
        : name_(name), describedAs_(describedAs), find_(find) {}

    Result<I_Invokable_Generic> get() const {
        if (const I_Invokable_Generic* found = found_.load(std::memory_order_acquire)) return *found;
        std::lock_guard lock(mutex_);
        if (const I_Invokable_Generic* found = found_.load(std::memory_order_relaxed)) return *found;
        const Any function = find_(name_);
        if (!I_Invokable_Generic::matches(function)) {
            return Error(String("The Python extension is not loaded: the module tala.python has no {}.")
                             .arg(String(describedAs_)));
        }
        // Never freed: threads may still call through it while the process exits.
        const auto* kept = new I_Invokable_Generic(unchecked, function);
        found_.store(kept, std::memory_order_release);
        return *kept;
    }

    // Calls the function with `arguments`; its answer (resolved) or its error.
    template <class... Args>
    Result<Any> call(const Args&... arguments) const {
        Result<I_Invokable_Generic> function = get();
        if (!function) return function.error();
        return resolve((*function)(arguments...));
    }

private:
    const char* name_;
    const char* describedAs_;
    Finder find_;
    mutable std::mutex mutex_;
    mutable std::atomic<const I_Invokable_Generic*> found_{nullptr};
};

inline std::optional<Module> pythonModule() { return Module::find("tala.python"); }

// A module function of "tala.python".
inline Any moduleFunction(std::string_view name) {
    const std::optional<Module> module = pythonModule();
    if (!module) return Any();
    return module->functions().get(String(name)).value_or(Any());
}

// A static method of the language object LanguagePython.
inline Any languageMethod(std::string_view name) {
    const std::optional<Module> module = pythonModule();
    if (!module) return Any();
    const std::optional<Any> language = module->classes().get(String("LanguagePython"));
    if (!language || !Class_Generic::matches(*language)) return Any();
    return definedMethod(Class_Generic(unchecked, *language), Identifier::intern(name));
}

// One instance per function, made on first use and never destroyed (see ExtensionFunction::get).
#define TALA_PY_EXTENSION_FUNCTION(accessor, name, describedAs, finder)                              \
    inline const ExtensionFunction& accessor() {                                                     \
        static const ExtensionFunction* const function = new ExtensionFunction(name, describedAs, finder); \
        return *function;                                                                            \
    }
TALA_PY_EXTENSION_FUNCTION(evaluateFunction, "evaluate", "function evaluate", moduleFunction)
TALA_PY_EXTENSION_FUNCTION(evaluateExprFunction, "evaluate_expr", "function evaluate_expr", moduleFunction)
TALA_PY_EXTENSION_FUNCTION(evaluateMethodFunction, "evaluate_method", "function evaluate_method", moduleFunction)
TALA_PY_EXTENSION_FUNCTION(importFunction, "python_import", "function python_import", moduleFunction)
TALA_PY_EXTENSION_FUNCTION(addSysPathFunction, "python_add_sys_path", "function python_add_sys_path", moduleFunction)
TALA_PY_EXTENSION_FUNCTION(generateStubsFunction, "python_generate_stubs", "function python_generate_stubs",
                           moduleFunction)
TALA_PY_EXTENSION_FUNCTION(threadIdFunction, "threadId", "LanguagePython.threadId", languageMethod)
TALA_PY_EXTENSION_FUNCTION(interruptFunction, "interrupt", "LanguagePython.interrupt", languageMethod)
#undef TALA_PY_EXTENSION_FUNCTION

// The first error among the names given to an evaluation.
inline std::optional<Error> firstError(std::initializer_list<const Names*> names) {
    for (const Names* given : names) {
        if (given->error().hasValue()) return Error(unchecked, given->error());
    }
    return std::nullopt;
}

// A property that the extension gives an error that came out of Python, or nothing.
inline std::optional<Any> errorProperty(const Error& error, const Identifier& name) {
    const Union<Property, None> property = property_of(error, name);
    if (property.isEmpty()) return std::nullopt;
    Any value = resolve(property.as<Property>().get(error));
    if (is_error_result(value) || value.isEmpty()) return std::nullopt;
    return value;
}

inline std::optional<std::string> errorText(const Error& error, const Identifier& name) {
    std::optional<Any> value = errorProperty(error, name);
    if (!value) return std::nullopt;
    Result<std::string> text = to<std::string>(*value);
    if (!text) return std::nullopt;
    return *text;
}

}  // namespace internal

// ---- Evaluation ----------------------------------------------------------------------------

// Evaluates one Python expression and gives its value: plain data (None, bool, int, float, str,
// bytes, Decimal, dates and times, tuples) as host values, other Python objects as proxies that
// the views read (a dict as a MapView, a list as a SequenceView). `locals` and `globals` are the
// names it sees; a name in both is seen with its value from `locals`. Without `globals` the
// process-wide globals are visible too. The error of Python's exception when it raises.
inline Result<Any> evaluate_expr(const String& code, const Names& locals = {}, const Names& globals = {}) {
    if (std::optional<Error> failed = internal::firstError({&locals, &globals})) return *failed;
    return internal::evaluateExprFunction().call(code, locals.value(), globals.value());
}

// Runs Python code as the body of a function: what it returns (`return ...`) is the result,
// None without a return. The names of `outLocals` are the code's globals and come back in it.
// Unlike evaluate_expr, the process-wide globals are not added when `globals` is left out.
inline Result<Any> evaluate(const String& code, const Names& locals = {}, const Names& globals = {},
                            const OutLocals& outLocals = {}) {
    if (std::optional<Error> failed = internal::firstError({&locals, &globals})) return *failed;
    return internal::evaluateFunction().call(code, locals.value(), globals.value(), outLocals.value());
}

// evaluate, with `self` bound to a host value (`return self.weight * 2`).
inline Result<Any> evaluate_method(const Arg& self, const String& code, const Names& locals = {},
                                   const Names& globals = {}, const OutLocals& outLocals = {}) {
    if (is_error_result(self.value())) return Error(tala::internal::unchecked, self.value());
    if (std::optional<Error> failed = internal::firstError({&locals, &globals})) return *failed;
    return internal::evaluateMethodFunction().call(self.value(), code, locals.value(), globals.value(),
                                                   outLocals.value());
}

// ---- Modules and the search path -----------------------------------------------------------

// The Python module or module-level object at a dotted path: "os" is the module, "os.path" the
// object `path` of module os (everything after the last dot is looked up in the module's own
// dictionary: "a.b.c" imports a.b). The empty path gives None. Errors: Python's ImportError,
// "Unable to find the object: os.nonexistent.".
inline Result<Any> import_path(const String& path) { return internal::importFunction().call(path); }

// Adds a directory or archive to sys.path, once (the same text again adds nothing); before
// Python has started, the path is kept and added when it starts.
inline Result<void> add_sys_path(const String& path) {
    Result<Any> added = internal::addSysPathFunction().call(path);
    if (!added) return added.error();
    return {};
}

// The Python stub text of a host module: a class stub for each of its classes.
inline Result<std::string> generate_stubs(const Module& module) {
    return internal::generateStubsFunction().call(module).to<std::string>();
}

// ---- Stopping an evaluation ----------------------------------------------------------------

// The calling thread's identifier, as `interrupt` takes it (Python's threading.get_ident()).
inline Result<std::int64_t> thread_id() { return internal::threadIdFunction().call().to<std::int64_t>(); }

// Stops the evaluation running on the thread `threadId` (from any other thread): it fails with
// the error of tala.python.Interrupted (see is_interrupted), within milliseconds for Python code,
// after its wait for code waiting inside C (time.sleep). Whether an evaluation was running there.
inline Result<bool> interrupt(std::int64_t threadId) {
    return internal::interruptFunction().call(Integer(threadId)).to<bool>();
}

// ---- Errors --------------------------------------------------------------------------------

// An error's message: for a Python exception, what str() of it gives ("division by zero"); for
// a syntax error, Python's report of it.
inline std::string message(const Error& error) { return error.message().toStdString(); }

// The qualified name of the Python exception's type ("ZeroDivisionError",
// "json.decoder.JSONDecodeError", "sqlite.SqlError"); nothing for an error that no Python code
// raised.
inline std::optional<std::string> exception_type(const Error& error) {
    static const Identifier name("$$exceptionType");
    return internal::errorText(error, name);
}

// The report Python's own program prints for the exception: "Traceback (most recent call
// last):", the frames with the lines of the evaluated code, and the last line. Made when first
// read; nothing for an error that no Python code raised.
inline std::optional<std::string> traceback(const Error& error) {
    static const Identifier name("$$traceback");
    return internal::errorText(error, name);
}

// For code that called sys.exit(n): the status Python's own program would end with (n; 0 for
// sys.exit() or sys.exit(None)); nothing otherwise (and nothing for sys.exit("text"), which ends
// Python's program with 1 after printing the text).
inline std::optional<std::int64_t> exit_status(const Error& error) {
    static const Identifier name("$$exitStatus");
    std::optional<Any> status = internal::errorProperty(error, name);
    if (!status) return std::nullopt;
    Result<std::int64_t> number = to<std::int64_t>(*status);
    if (!number) return std::nullopt;
    return *number;
}

// Whether the error is that of an evaluation stopped by `interrupt`.
inline bool is_interrupted(const Error& error) { return exception_type(error) == "tala.python.Interrupted"; }

}  // namespace tala::py
